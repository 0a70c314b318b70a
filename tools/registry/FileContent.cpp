// Reads a whole file. Entered by any thread; there is no state and no lock.

#include "FileContent.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <system_error>

namespace orvx::registry {

namespace {

class OpenFile {
  public:
    OpenFile(const std::string& path, int flags) : descriptor_(::open(path.c_str(), flags)) {}
    ~OpenFile() {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    bool isOpen() const { return descriptor_ >= 0; }
    bool isRegular() const {
        struct stat status {};
        return ::fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode);
    }
    /// Appends the content. False: `errno` says why not.
    bool read(std::string& content) const {
        std::array<char, 65'536> bytes;
        ssize_t size = 0;
        while ((size = ::read(descriptor_, bytes.data(), bytes.size())) > 0) {
            content.append(bytes.data(), static_cast<std::size_t>(size));
        }
        return size == 0;
    }

  private:
    int descriptor_;
};

}  // namespace

std::string contentOf(const char* purpose, const std::string& path, FileKind kind) {
    const auto fail = [&](const std::string& why) {
        throw FileError(std::string(purpose) + ' ' + path + ": it " + why);
    };
    // Without O_NONBLOCK, opening a FIFO waits for a writer.
    const OpenFile file(
        path, O_RDONLY | O_CLOEXEC | O_NOCTTY | (kind == FileKind::Regular ? O_NONBLOCK : 0));
    if (file.isOpen() && kind == FileKind::Regular && !file.isRegular()) {
        fail("is not a regular file");
    }
    std::string content;
    if (!file.isOpen() || !file.read(content)) {
        fail("cannot be read: " + std::generic_category().message(errno));
    }
    return content;
}

}  // namespace orvx::registry
