// Reads service descriptions from options or a file, validates and completes them, and converts
// them to the library's type. Runs on the main thread; there is no lock.

#include "ServiceDescriptions.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <set>
#include <string_view>

#include "RegistryUrl.h"
#include "ServiceFile.h"

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

bool isText(const json& value) {
    return value.is_string() && !value.get_ref<const std::string&>().empty();
}

bool isListOfTexts(const json& value) {
    return value.is_array() && std::all_of(value.begin(), value.end(), isText);
}

bool isUtf8(const json& service) {
    try {
        return !service.dump().empty();
    } catch (const json::exception&) {
        return false;
    }
}

void validate(const ParsedService& read) {
    const json& service = read.description;
    if (!isUtf8(service)) {
        read.fail("", "the service is not in UTF-8");
    }
    if (!isText(service.value("name", json()))) {
        read.fail("name", "the service has no name");
    }
    const json port = service.value("port", json());
    if (!port.is_number_unsigned() || port < 1 || port > 65535) {
        read.fail("port", "the service has no port from 1 to 65535");
    }
    for (const char* key : {"host", "uri", "description"}) {
        if (service.contains(key) && !isText(service[key])) {
            read.fail(key, std::string("the service has a ") + key + " that is no text");
        }
    }
    for (const char* key : {"versions", "privileges", "serviceCategories"}) {
        if (service.contains(key) && !isListOfTexts(service[key])) {
            read.fail(key, std::string("the service has ") + key + " that are no list of texts");
        }
    }
}

std::string defaultHost(const RegistryOptions& registry) {
    std::array<char, 256> name{};
    const bool isKnown = ::gethostname(name.data(), name.size() - 1) == 0 && name[0] != '\0';
    return isKnown && !isLoopback(registry.host) ? name.data() : "127.0.0.1";
}

/// Encodes all characters except RFC 3986's unreserved ones and the colon.
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

std::string withoutBrackets(const std::string& host) {
    const bool isBracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    return isBracketed ? host.substr(1, host.size() - 2) : host;
}

/// Differs for each instance of a service. The port follows the last colon.
std::string defaultUri(const json& service) {
    return "/" + percentEncoded(service["name"]) + "/" + percentEncoded(service["host"]) + ":" +
           service["port"].dump();
}

GenericObjectValue toValue(const json& value) {
    switch (value.type()) {
        case json::value_t::boolean:
            return value.get<bool>();
        case json::value_t::number_unsigned:
            return value.get<std::uint64_t>();
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

std::vector<json> readDescriptions(const ServiceOptions& options, const RegistryOptions& registry,
                                   Reading reading) {
    if (options.file.empty() && options.name.empty()) {
        throw UsageError("--name or --from is needed");
    }
    const auto read = options.file.empty() ? std::vector{ParsedService{fromOptions(options)}}
                                           : readServiceFile(options.file, reading);
    std::vector<json> services;
    std::set<std::string> uris;
    for (const ParsedService& one : read) {
        validate(one);
        json service = one.description;
        if (!service.contains("host")) {
            service["host"] = options.host.empty() ? defaultHost(registry) : options.host;
        }
        service["host"] = withoutBrackets(service["host"]);
        const std::string uri = service.value("uri", defaultUri(service));
        service["uri"] = uri.front() == '/' ? uri : "/" + uri;
        if (!uris.insert(service["uri"]).second) {
            one.fail("uri", "the service has the uri of another one");
        }
        services.push_back(std::move(service));
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
