#pragma once

#include "ReadBuffer.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace orvx::communication {

/// A byte stream over a connection, plain or over TLS. From the first read() on, one read is always
/// outstanding, so that the end of the connection is noticed at any time.
///
/// For the I/O thread only. Functions do not throw unless stated.
class Stream {
  public:
    enum class End : std::uint8_t {
        Orderly,    ///< The peer has closed its side.
        Broken,     ///< Reset, or closed without TLS close_notify.
        TlsFailed,  ///< Refused by the peer, or a TLS error.
        OutOfMemory,
    };
    enum class Written : std::uint8_t { All, Later, Broken };

    /// Receives the events of a stream, never from inside a call to the stream.
    class Listener {
      public:
        /// Bytes were read. To continue, call read().
        virtual void onRead() = 0;
        virtual void onEnd(End end) = 0;
        /// A write that returned Later is complete.
        virtual void onWritten() = 0;
        /// A write has failed. The outstanding read delivers the bytes that the peer sent before,
        /// and ends then.
        virtual void onWriteBroken() = 0;

      protected:
        ~Listener() = default;
    };

    Stream() = default;
    virtual ~Stream() = default;
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    void setListener(Listener* listener) { listener_ = listener; }
    /// The bytes that were read and not yet consumed.
    ReadBuffer& bytes() { return bytes_; }

    /// Starts the next read. Throws std::bad_alloc.
    virtual void read() = 0;
    /// Whether the outstanding read has received nothing, without asking the kernel.
    bool hasReadNothing() const { return bytes_.isUntouched(); }
    /// Whether there are no unread bytes. Asks the kernel.
    virtual bool hasNoInput() = 0;
    /// Sends `head` and `body`. The body must stay valid until it is sent or the stream is closed.
    /// After Broken the outstanding read delivers the bytes that the peer sent before, and ends
    /// then. Throws std::bad_alloc.
    virtual Written write(std::string_view head, std::string_view body) = 0;
    /// The cause of a TLS failure for human readers; empty without a failure.
    const std::string& tlsError() const { return tlsError_; }
    /// Closes the connection. The listener receives no more events.
    virtual void close() noexcept = 0;

  protected:
    Listener* listener_ = nullptr;
    ReadBuffer bytes_;
    std::string tlsError_;
};

}  // namespace orvx::communication
