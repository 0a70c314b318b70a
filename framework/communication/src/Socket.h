#pragma once

#include <boost/asio/basic_stream_socket.hpp>
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>

namespace orvx::communication {

/// A socket for TCP or a Unix domain.
using Socket = boost::asio::basic_stream_socket<boost::asio::generic::stream_protocol,
                                                boost::asio::io_context::executor_type>;

/// Whether the socket has nothing to read: neither bytes nor the end of the stream.
bool hasNoInput(Socket& socket) noexcept;

}  // namespace orvx::communication
