// Descriptions with any content: their JSON contains exactly the given values, or they are refused
// with an empty output if a text is not UTF-8. One thread; there is no lock.

#include "Input.h"

#include <orvx/common/ServiceCreate.h>

#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>
#include <sstream>

namespace {

using nlohmann::json;
using orvx::common::GenericObjectValue;
using orvx::common::ServiceCreate;
using orvx::common::XObject;
using orvx::fuzz::Input;
using orvx::fuzz::isUtf8;
using orvx::fuzz::require;
using orvx::fuzz::requireSame;

/// One value, and the expected JSON.
struct Value {
    GenericObjectValue given;
    json expected;
};

double doubleFrom(Input& input) {
    const std::uint64_t bits = input.number();
    double value = 0;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

Value valueFrom(Input& input, unsigned levels);

Value listFrom(Input& input, unsigned levels) {
    GenericObjectValue::List given;
    json expected = json::array();
    for (unsigned left = input.below(8); left > 0; --left) {
        Value item = valueFrom(input, levels);
        given.push_back(item.given);
        expected.push_back(item.expected);
    }
    return {given, expected};
}

Value objectFrom(Input& input, unsigned levels) {
    GenericObjectValue::Object given;
    json expected = json::object();
    for (unsigned left = input.below(8); left > 0; --left) {
        const std::string key = input.text();
        Value item = valueFrom(input, levels);
        given[key] = item.given;
        expected[key] = item.expected;
    }
    return {given, expected};
}

Value valueFrom(Input& input, unsigned levels) {
    switch (input.below(levels == 0 ? 5 : 7)) {
        case 0:
            return {nullptr, nullptr};
        case 1: {
            const bool value = input.below(2) == 1;
            return {value, value};
        }
        case 2: {
            const auto value = static_cast<std::int64_t>(input.number());
            return {value, value};
        }
        case 3: {
            const double value = doubleFrom(input);
            return {value, std::isfinite(value) ? json(value) : json()};
        }
        case 4: {
            const std::string value = input.text();
            return {value, value};
        }
        case 5:
            return listFrom(input, levels - 1);
        default:
            return objectFrom(input, levels - 1);
    }
}

std::vector<std::string> textsFrom(Input& input) {
    std::vector<std::string> texts(input.below(4));
    for (std::string& text : texts) {
        text = input.text();
    }
    return texts;
}

template <typename Setter, typename Content>
void set(ServiceCreate& service, json& expected, Setter setter, const char* key, Content content) {
    (service.*setter)(content);
    expected[key] = content;
}

void change(Input& input, ServiceCreate& service, json& expected) {
    constexpr unsigned kLevels = 40;
    switch (input.below(10)) {
        case 0:
            return set(service, expected, &ServiceCreate::setId, "id", input.text());
        case 1:
            return set(service, expected, &ServiceCreate::setUri, "uri", input.text());
        case 2:
            return set(service, expected, &ServiceCreate::setDescription, "description",
                       input.text());
        case 3:
            return set(service, expected, &ServiceCreate::setPort, "port",
                       static_cast<long>(input.number()));
        case 4:
            return set(service, expected, &ServiceCreate::setVersions, "versions",
                       textsFrom(input));
        case 5:
            return set(service, expected, &ServiceCreate::setPrivileges, "privileges",
                       textsFrom(input));
        case 6:
            return set(service, expected, &ServiceCreate::setServiceCategories, "serviceCategories",
                       textsFrom(input));
        case 7: {
            const std::string key = input.text();
            service.getGenericObject().removeValue(key);
            expected.erase(key);
            return;
        }
        default: {
            const std::string key = input.text();
            const Value value = valueFrom(input, kLevels);
            service.getGenericObject().setValue(key, value.given);
            expected[key] = value.expected;
        }
    }
}

bool isWritable(const json& value) {
    for (const auto& [key, item] : value.items()) {
        if (value.is_object() && !isUtf8(key)) {
            return false;
        }
        if (value.is_structured() && !isWritable(item)) {
            return false;
        }
    }
    return !value.is_string() || isUtf8(value.get_ref<const std::string&>());
}

/// Empty if the description is refused.
std::string written(const ServiceCreate& service, bool pretty) {
    std::ostringstream stream;
    try {
        service.getGenericObject().toJSONStream(stream, pretty);
    } catch (const std::exception&) {
        require(stream.str().empty(), "nothing of a refused description is written");
    }
    return stream.str();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    Input input(bytes, size);
    const std::string name = input.text();
    ServiceCreate service(std::make_unique<XObject>("", name, ""));
    json expected = json::object();
    if (!name.empty()) {
        expected["name"] = name;
    }
    while (!input.isEmpty()) {
        change(input, service, expected);
    }
    const std::string line = written(service, false);
    requireSame(!line.empty(), isWritable(expected), "written");
    requireSame(written(ServiceCreate(service), false), line, "what a copy is written as");
    if (!line.empty()) {
        require(std::all_of(line.begin(), line.end(),
                            [](char c) { return static_cast<unsigned char>(c) >= 0x20; }),
                "no control character is written");
        requireSame(json::parse(line), expected, "the description");
        requireSame(json::parse(written(service, true)), expected, "the pretty description");
    }
    return 0;
}
