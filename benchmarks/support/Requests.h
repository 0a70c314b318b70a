#pragma once

#include <orvx/common/ServiceCreate.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace orvx::benchmarks {

enum class Method { Put, Head, Delete };

inline constexpr const char* kUserAgent = "OrvxServiceRegistryClient";

/// A complete description with about 300 bytes as JSON.
std::shared_ptr<common::ServiceCreate> makeService(std::size_t number);
std::string jsonOf(const common::ServiceCreate& service);
/// The size in bytes of the texts that a registration must store: the body of the request, the
/// values of the description, its path, and the registry's location and id.
std::size_t textsOf(const common::ServiceCreate& service);

/// The requests that the library makes for this many services, one each.
struct Requests {
    explicit Requests(std::size_t count);

    std::size_t size() const { return services.size(); }
    const std::string& target(Method method, std::size_t index) const {
        return method == Method::Put ? uris[index] : entries[index];
    }

    std::vector<std::shared_ptr<common::ServiceCreate>> services;
    std::vector<std::string> uris;
    std::vector<std::string> entries;
    std::vector<std::string> bodies;
};

}  // namespace orvx::benchmarks
