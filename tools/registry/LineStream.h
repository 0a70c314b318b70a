#pragma once

#include <cstdint>
#include <ostream>
#include <streambuf>
#include <string>

#include "LineWriter.h"

namespace orvx::registry {

/// The line that tells how many lines were dropped.
std::string dropLine(std::uint64_t dropped);

/// Lets std::cout or std::cerr write through a LineWriter while this object lives, so that a reader
/// that stops reading does not stop the program.
///
/// Thread-safety: that of the stream.
class LineStream : private std::streambuf {
  public:
    /// Whether the stream fails, until clear(), when a line is lost.
    enum class Loss { IsFailure, IsIgnored };

    /// `stream`: outlives this object. `descriptor`: as for LineWriter.
    LineStream(std::ostream& stream, int descriptor, Loss loss);
    /// As LineWriter. The stream has its former buffer again.
    ~LineStream() override;
    LineStream(const LineStream&) = delete;
    LineStream& operator=(const LineStream&) = delete;

  private:
    int_type overflow(int_type letter) override;
    std::streamsize xsputn(const char* letters, std::streamsize count) override;
    int sync() override;

    std::ostream& stream_;
    std::streambuf* const former_;
    tools::LineWriter writer_;
    const Loss loss_;
    std::string text_;  // a line that has no end yet
};

}  // namespace orvx::registry
