// Saves the state in a file that other programs read.
// Runs on the main thread; there is no lock.

#include "StatusFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

#include "Report.h"

namespace orvx::announce {

using nlohmann::json;

namespace {

bool replace(const std::string& name, const std::string& content) {
    const std::string fresh = name + ".new";
    ::unlink(fresh.c_str());
    const int file = ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (file < 0) {
        return false;
    }
    errno = EIO;  // a short write sets no errno
    const auto size = ::write(file, content.data(), content.size());
    const bool isWhole = ::close(file) == 0 && size == static_cast<ssize_t>(content.size());
    return isWhole && std::rename(fresh.c_str(), name.c_str()) == 0;
}

}  // namespace

void StatusFile::write(const json& state) {
    if (state == written_) {
        return;
    }
    json content = state;
    content["updated"] = timestamp();
    if (replace(name_, content.dump(2, ' ', false, json::error_handler_t::replace) + "\n")) {
        written_ = state;
        failed_ = false;
    } else if (!std::exchange(failed_, true)) {
        throw std::system_error(errno, std::generic_category(), name_);
    }
}

}  // namespace orvx::announce
