#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

namespace orvx::registry {

/// Reads the fields of one JSON object strictly. Reading a field removes it, so the fields that
/// remain at the end are unknown ones. Errors are a std::invalid_argument with the name of the
/// field, but without its value, which may be a secret.
///
/// Thread-safety: none.
class JsonFields {
  public:
    explicit JsonFields(std::string_view line);

    bool has(const char* name) const { return object_.contains(name); }
    std::string text(const char* name);
    bool flag(const char* name);
    std::uint64_t number(const char* name, std::uint64_t least, std::uint64_t most);
    double fraction(const char* name, double most, const char* unit);
    void requireNoMore() const;

    /// Calls `read` with each line of a text that is neither empty nor begins with #. The message
    /// of a std::invalid_argument that `read` throws gets the line's number as a prefix.
    template <typename Read>
    static void forEachLine(std::string_view text, Read&& read);

  private:
    nlohmann::json take(const char* name);

    nlohmann::json object_;
};

template <typename Read>
void JsonFields::forEachLine(std::string_view text, Read&& read) {
    for (int number = 1; !text.empty(); ++number) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(line.size() < text.size() ? line.size() + 1 : text.size());
        const auto first = line.find_first_not_of(" \t\r");
        if (first == std::string_view::npos || line[first] == '#') {
            continue;
        }
        try {
            read(line);
        } catch (const std::invalid_argument& error) {
            throw std::invalid_argument("line " + std::to_string(number) + ": " + error.what());
        }
    }
}

}  // namespace orvx::registry
