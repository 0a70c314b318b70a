// Generic objects as JSON: the one place that knows the JSON library.
// Entered by any thread. The values are copied under the object's lock and written without it.

#include <orvx/common/GenericObject.h>

#include <nlohmann/json.hpp>
#include <ostream>

namespace orvx::common {

/// Found by the JSON library, which takes lists and objects apart by itself.
static void to_json(nlohmann::json& json, const GenericObjectValue& value) {
    std::visit([&json](const auto& content) { json = content; }, value.data());
}

void GenericObject::toJSONStream(std::ostream& stream, bool pretty) const {
    const nlohmann::json json = copyOfValues();
    const std::string text = json.dump(pretty ? 4 : -1);  // throws on invalid UTF-8
    // Unformatted: the stream's width, flags and locale must not change the text.
    stream.write(text.data(), static_cast<std::streamsize>(text.size()));
}

}  // namespace orvx::common
