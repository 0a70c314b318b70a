#pragma once

#include "ReadBuffer.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace orvx::communication {

/// A connection's bytes, both ways, in plain text or over TLS. From the first read() on one read is
/// outstanding, so that an end is noticed whenever it comes.
///
/// For the I/O thread only. Nothing throws where it does not say so.
class Stream {
  public:
    enum class End : std::uint8_t {
        Orderly,    ///< The peer has said all that it wanted to say.
        Broken,     ///< Reset, or over TLS without a farewell.
        TlsFailed,  ///< Refused by the peer, or by TLS itself.
        OutOfMemory,
    };
    enum class Written : std::uint8_t { All, Later, Broken };

    /// Is told what happens, never from inside a call to the stream.
    class Listener {
      public:
        /// Something was read; to go on, read().
        virtual void onRead() = 0;
        virtual void onEnd(End end) = 0;
        /// All that was to be sent Later is sent.
        virtual void onWritten() = 0;
        /// It cannot be sent. The outstanding read ends, with what the peer has said before.
        virtual void onWriteBroken() = 0;

      protected:
        ~Listener() = default;
    };

    Stream() = default;
    virtual ~Stream() = default;
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    void setListener(Listener* listener) { listener_ = listener; }
    /// What has been read.
    ReadBuffer& bytes() { return bytes_; }

    /// Reads what comes next. Throws std::bad_alloc.
    virtual void read() = 0;
    /// Whether the outstanding read has found nothing, as far as it has looked.
    bool hasReadNothing() const { return bytes_.isUntouched(); }
    /// Whether nothing has come that was not yet read, looking at this moment.
    virtual bool isQuiet() = 0;
    /// Sends both, of which the body must stay until it is sent or the stream is closed. Broken:
    /// the outstanding read ends, with what the peer has said before. Throws std::bad_alloc.
    virtual Written write(std::string_view head, std::string_view body) = 0;
    /// Why TLS failed, for people; empty before.
    const std::string& words() const { return words_; }
    /// Ends all. The listener is told nothing any more.
    virtual void close() noexcept = 0;

  protected:
    Listener* listener_ = nullptr;
    ReadBuffer bytes_;
    std::string words_;
};

}  // namespace orvx::communication
