// Reads the files of --from and --token-file, at the start and on SIGHUP.
// Runs on the main thread; there is no lock.

#include "InputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <stdexcept>
#include <system_error>

namespace orvx::announce {

namespace {

constexpr std::size_t kMaxSize = 16U << 20U;

class OpenFile {
  public:
    OpenFile(const std::string& name, int flags) : descriptor_(::open(name.c_str(), flags)) {}
    ~OpenFile() {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    int descriptor() const { return descriptor_; }

  private:
    int descriptor_;
};

[[noreturn]] void fail(const std::string& name) {
    throw std::system_error(errno, std::generic_category(), name);
}

}  // namespace

std::string readInputFile(const std::string& name, Reading reading) {
    const bool isReload = reading == Reading::Reload;
    // Without O_NONBLOCK, opening a FIFO waits for a writer.
    const OpenFile file(name, O_RDONLY | O_CLOEXEC | O_NOCTTY | (isReload ? O_NONBLOCK : 0));
    struct stat status {};
    if (file.descriptor() < 0 || ::fstat(file.descriptor(), &status) != 0) {
        fail(name);
    }
    if (isReload && !S_ISREG(status.st_mode)) {
        throw std::runtime_error(name + ": not a regular file");
    }
    std::string content;
    std::array<char, 65536> bytes{};
    for (;;) {
        const auto size = ::read(file.descriptor(), bytes.data(), bytes.size());
        if (size == 0) {
            return content;
        }
        if (size < 0) {
            fail(name);
        }
        content.append(bytes.data(), static_cast<std::size_t>(size));
        if (content.size() > kMaxSize) {
            throw std::runtime_error(name + ": larger than 16 MiB");
        }
    }
}

}  // namespace orvx::announce
