// Opens the file of a log, and says once when it cannot be written.
// Entered by the thread that runs the server, or a test's.
// There is no lock.

#include "LogOutput.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <system_error>
#include <utility>

#include "FileContent.h"

namespace orvx::registry {

LogOutput::LogOutput(std::string name, const std::string& path,
                     tools::LineWriter::DropLine dropLine)
    : name_(std::move(name)) {
    if (path == "-") {
        return;
    }
    // Without O_NONBLOCK, opening a FIFO waits for a reader.
    descriptor_ = ::open(path.c_str(),
                         O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666);
    if (descriptor_ < 0) {
        throw FileError(name_ + ' ' + path + ": " +
                        (errno == ENXIO ? "no process reads this FIFO"
                                        : std::generic_category().message(errno)));
    }
    file_.emplace(descriptor_, std::move(dropLine));
}

LogOutput::~LogOutput() {
    file_.reset();
    if (descriptor_ >= 0) {
        ::close(descriptor_);
    }
}

bool LogOutput::write(const std::string& line) {
    bool isWritten = false;
    if (file_) {
        isWritten = file_->write(line);
    } else {
        std::cout.clear();  // a line of somebody else may have been lost
        isWritten = static_cast<bool>(std::cout << line << std::flush);
        std::cout.clear();
    }
    if (!isWritten && !std::exchange(hasFailed_, true)) {
        std::cerr << "orvx-registry: the " << name_ << " cannot be written" << std::endl;
    }
    hasFailed_ = !isWritten;
    return isWritten;
}

}  // namespace orvx::registry
