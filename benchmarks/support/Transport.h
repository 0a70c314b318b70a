#pragma once

#include <cstdint>
#include <string>

namespace orvx::benchmarks {

enum class Transport { Plain, Tls };

/// The path of a file in the folder of the running program.
std::string fileInProgramFolder(const char* name);
/// The benchmark server's certificate, which is its own authority.
std::string certificateFile();

/// The address of a benchmark server on 127.0.0.1.
struct Address {
    std::uint16_t port;
    Transport transport = Transport::Plain;

    std::string url() const;
};

}  // namespace orvx::benchmarks
