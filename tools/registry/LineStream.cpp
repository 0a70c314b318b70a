// Collects what a stream writes, and passes whole lines on when the stream is flushed.
// Entered by the thread that uses the stream; the line of what was dropped is made on any thread.
// There is no lock.

#include "LineStream.h"

#include <cstddef>

namespace orvx::registry {

std::string dropLine(std::uint64_t dropped) {
    return "orvx-registry: lines dropped: " + std::to_string(dropped) + ", nobody read them\n";
}

LineStream::LineStream(std::ostream& stream, int descriptor, Loss loss)
    : stream_(stream), former_(stream.rdbuf(this)), writer_(descriptor, dropLine), loss_(loss) {}

LineStream::~LineStream() {
    stream_.rdbuf(former_);
}

LineStream::int_type LineStream::overflow(int_type letter) {
    text_ += traits_type::to_char_type(letter);
    return letter;
}

std::streamsize LineStream::xsputn(const char* letters, std::streamsize count) {
    text_.append(letters, static_cast<std::size_t>(count));
    return count;
}

int LineStream::sync() {
    const std::size_t size = text_.rfind('\n') + 1;  // 0: there is no whole line
    if (size == 0) {
        return 0;
    }
    const bool isWritten = writer_.write(text_.substr(0, size));
    text_.erase(0, size);
    return isWritten || loss_ == Loss::IsIgnored ? 0 : -1;
}

}  // namespace orvx::registry
