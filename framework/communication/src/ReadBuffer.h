#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace orvx::communication {

/// Bytes that were received and not yet consumed, in one piece. The buffer grows while nothing is
/// consumed: its user must limit that.
class ReadBuffer {
  public:
    std::string_view view() const { return {bytes_.data() + begin_, end_ - begin_}; }
    void consume(std::size_t count) { begin_ += count; }

    /// Makes space for the next read and marks its first byte, so that isUntouched() shows whether
    /// bytes were read, unless the first one equals the mark. Throws std::bad_alloc.
    void prepare() {
        constexpr std::size_t kLeast = 1024;
        constexpr std::size_t kFirst = 4096;
        if (begin_ == end_) {
            begin_ = end_ = 0;
        }
        if (bytes_.size() - end_ < kLeast) {
            bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(begin_));
            end_ -= begin_;
            begin_ = 0;
            bytes_.resize(end_ < kFirst / 2 ? kFirst : 2 * end_);
        }
        bytes_[end_] = kMark;
    }
    char* space() { return bytes_.data() + end_; }
    std::size_t spaceSize() const { return bytes_.size() - end_; }
    bool isUntouched() const { return bytes_[end_] == kMark; }
    /// `count` bytes were read into the space.
    void received(std::size_t count) { end_ += count; }
    /// Inserts a byte at `offset` of view(). Throws std::bad_alloc.
    void insert(std::size_t offset, char byte) {
        bytes_.insert(bytes_.begin() + static_cast<std::ptrdiff_t>(begin_ + offset), byte);
        ++end_;
    }

  private:
    // A byte that peers hardly send by mistake: a zero may be the end of a text.
    static constexpr char kMark = '\1';

    std::vector<char> bytes_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
};

}  // namespace orvx::communication
