// What is announced: read from options or from a file, checked, completed, and handed to the
// library. Everything happens on the main thread; there is no lock.

#include "ServiceDescriptions.h"

#include <unistd.h>

#include <array>
#include <cctype>
#include <fstream>
#include <limits>
#include <set>
#include <string_view>

#include "RegistryUrl.h"

namespace orvx::announce {

namespace {

using common::GenericObjectValue;
using nlohmann::json;

json fromOptions(const ServiceOptions& options) {
    json service{{"name", options.name}};
    if (options.port != 0) {
        service["port"] = options.port;
    }
    const auto set = [&service](const char* key, const auto& value) {
        if (!value.empty()) {
            service[key] = value;
        }
    };
    set("host", options.host);
    set("description", options.description);
    set("uri", options.uri);
    set("serviceCategories", options.categories);
    set("privileges", options.privileges);
    if (!options.version.empty()) {
        service["versions"] = json::array({options.version});
    }
    return service;
}

std::vector<json> fromFile(const std::string& name) {
    std::ifstream stream(name);
    if (!stream) {
        throw UsageError("--from: cannot read " + name);
    }
    const json content = json::parse(stream, nullptr, false);
    if (!content.is_array() || content.empty()) {
        throw UsageError("--from: not a JSON list of descriptions: " + name);
    }
    return content;
}

[[noreturn]] void refuse(const json& service, const std::string& why) {
    const std::string text = service.dump(-1, ' ', true, json::error_handler_t::replace);
    throw UsageError("a service " + why + ": " + text);
}

bool isText(const json& service, const char* key) {
    const auto found = service.find(key);
    return found != service.end() && found->is_string() &&
           !found->get_ref<const std::string&>().empty();
}

bool isUtf8(const json& service) {
    try {
        return !service.dump().empty();
    } catch (const json::exception&) {
        return false;
    }
}

void check(const json& service) {
    if (!isUtf8(service)) {
        refuse(service, "is not in UTF-8");
    }
    if (!service.is_object() || !isText(service, "name")) {
        refuse(service, "has no name");
    }
    const auto port = service.find("port");
    if (port == service.end() || !port->is_number_unsigned() || *port < 1 || *port > 65535) {
        refuse(service, "has no port from 1 to 65535");
    }
    for (const char* key : {"host", "uri", "description"}) {
        if (service.contains(key) && !isText(service, key)) {
            refuse(service, std::string("has a ") + key + " that is no text");
        }
    }
}

std::string thisHost(const RegistryOptions& registry) {
    std::array<char, 256> name{};
    const bool isKnown = ::gethostname(name.data(), name.size() - 1) == 0 && name[0] != '\0';
    return isKnown && !isLoopback(registry.host) ? name.data() : "127.0.0.1";
}

/// All but RFC 3986's unreserved characters and the colon.
std::string percentEncoded(const std::string& text) {
    static constexpr char digits[] = "0123456789ABCDEF";
    static constexpr std::string_view marks = "-._~:";
    std::string encoded;
    for (const char letter : text) {
        const auto byte = static_cast<unsigned char>(letter);
        if ((byte < 0x80 && std::isalnum(byte) != 0) || marks.find(letter) != marks.npos) {
            encoded += letter;
        } else {
            encoded += {'%', digits[byte / 16], digits[byte % 16]};
        }
    }
    return encoded;
}

/// Another one for each instance of a service. The port follows the last colon.
std::string defaultUri(const json& service) {
    std::string host = service["host"];
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    return "/" + percentEncoded(service["name"]) + "/" + percentEncoded(host) + ":" +
           service["port"].dump();
}

GenericObjectValue toValue(const json& value) {
    switch (value.type()) {
        case json::value_t::boolean:
            return value.get<bool>();
        case json::value_t::number_unsigned:
            if (value > std::numeric_limits<std::int64_t>::max()) {
                return value.get<double>();
            }
            [[fallthrough]];
        case json::value_t::number_integer:
            return value.get<std::int64_t>();
        case json::value_t::number_float:
            return value.get<double>();
        case json::value_t::string:
            return value.get<std::string>();
        case json::value_t::array: {
            GenericObjectValue::List list;
            for (const json& element : value) {
                list.push_back(toValue(element));
            }
            return list;
        }
        case json::value_t::object: {
            GenericObjectValue::Object object;
            for (const auto& [key, element] : value.items()) {
                object[key] = toValue(element);
            }
            return object;
        }
        default:
            return nullptr;
    }
}

}  // namespace

std::vector<json> describe(const ServiceOptions& options, const RegistryOptions& registry) {
    if (options.file.empty() && options.name.empty()) {
        throw UsageError("--name or --from is needed");
    }
    auto services =
        options.file.empty() ? std::vector{fromOptions(options)} : fromFile(options.file);
    std::set<std::string> uris;
    for (json& service : services) {
        check(service);
        if (!service.contains("host")) {
            service["host"] = options.host.empty() ? thisHost(registry) : options.host;
        }
        const std::string uri = service.value("uri", defaultUri(service));
        service["uri"] = uri.front() == '/' ? uri : "/" + uri;
        if (!uris.insert(service["uri"]).second) {
            refuse(service, "has the uri of another one");
        }
    }
    return services;
}

std::shared_ptr<common::ServiceCreate> toService(const json& description) {
    auto service = std::make_shared<common::ServiceCreate>(
        std::make_unique<common::XObject>("", description.at("name").get<std::string>(), ""));
    for (const auto& [key, value] : description.items()) {
        service->getGenericObject().setValue(key, toValue(value));
    }
    return service;
}

}  // namespace orvx::announce
