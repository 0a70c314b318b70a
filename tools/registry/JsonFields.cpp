// Reads the fields of an object one by one. Unknown fields are refused, not ignored.
// There is no shared state and no lock.

#include "JsonFields.h"

namespace orvx::registry {

using nlohmann::json;

namespace {

std::string quoted(const std::string& name) {
    return "\"" + name + "\"";
}

[[noreturn]] void refuse(const std::string& why) {
    throw std::invalid_argument(why);
}

}  // namespace

JsonFields::JsonFields(std::string_view line) : object_(json::parse(line, nullptr, false)) {
    if (!object_.is_object()) {
        refuse("not a JSON object");
    }
}

json JsonFields::take(const char* name) {
    if (!has(name)) {
        refuse(quoted(name) + " is missing");
    }
    json value = std::move(object_[name]);
    object_.erase(name);
    return value;
}

std::string JsonFields::text(const char* name) {
    const json value = take(name);
    if (!value.is_string()) {
        refuse(quoted(name) + " must be a text");
    }
    return value.get<std::string>();
}

bool JsonFields::flag(const char* name) {
    const json value = take(name);
    if (!value.is_boolean()) {
        refuse(quoted(name) + " must be true or false");
    }
    return value.get<bool>();
}

std::uint64_t JsonFields::number(const char* name, std::uint64_t least, std::uint64_t most) {
    const json value = take(name);
    if (!value.is_number_unsigned() || value < least || value > most) {
        refuse(quoted(name) + " must be a whole number from " + std::to_string(least) + " to " +
               std::to_string(most));
    }
    return value.get<std::uint64_t>();
}

double JsonFields::fraction(const char* name, double most, const char* unit) {
    const json value = take(name);
    if (!value.is_number() || value < 0 || value > most) {
        refuse(quoted(name) + " must be a number of " + unit + " from 0 to " +
               json(static_cast<std::uint64_t>(most)).dump());
    }
    return value.get<double>();
}

void JsonFields::requireNoMore() const {
    if (!object_.empty()) {
        refuse(quoted(object_.begin().key()) + " has no meaning here");
    }
}

}  // namespace orvx::registry
