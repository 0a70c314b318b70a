// A library that is preloaded into a program. A lookup of "hangs.test" then writes to stderr that
// it has begun, and never ends. A name that ends with ".unknown.test" is unknown at once, without a
// question to a name server. Thread-safe: there is no state.

#include <dlfcn.h>
#include <netdb.h>
#include <unistd.h>

#include <cstring>
#include <string_view>

extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* name,
                                                                  const char* service,
                                                                  const addrinfo* hints,
                                                                  addrinfo** result) {
    constexpr std::string_view kBegun = "looking up hangs.test\n";
    while (name != nullptr && std::strcmp(name, "hangs.test") == 0) {
        [[maybe_unused]] const auto size = ::write(STDERR_FILENO, kBegun.data(), kBegun.size());
        ::pause();
    }
    constexpr std::string_view kUnknown = ".unknown.test";
    const std::string_view text = name == nullptr ? "" : name;
    if (text.size() > kUnknown.size() && text.substr(text.size() - kUnknown.size()) == kUnknown) {
        return EAI_NONAME;
    }
    using Lookup = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
    return reinterpret_cast<Lookup>(::dlsym(RTLD_NEXT, "getaddrinfo"))(name, service, hints,
                                                                       result);
}
