// Addresses of the benchmark server and the files in the programs' folder.
// No thread, no lock.

#include "Transport.h"

#include <filesystem>

namespace orvx::benchmarks {

std::string fileInProgramFolder(const char* name) {
    return std::filesystem::read_symlink("/proc/self/exe").replace_filename(name);
}

std::string certificateFile() {
    return fileInProgramFolder("certificate.pem");
}

std::string Address::url() const {
    const char* const scheme = transport == Transport::Tls ? "https" : "http";
    return scheme + std::string("://127.0.0.1:") + std::to_string(port);
}

}  // namespace orvx::benchmarks
