#pragma once

#include <boost/asio/basic_stream_socket.hpp>
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>

namespace orvx::communication {

/// Of TCP or a Unix domain.
using Socket = boost::asio::basic_stream_socket<boost::asio::generic::stream_protocol,
                                                boost::asio::io_context::executor_type>;

/// Whether nothing lies there to be read, an end neither.
bool isQuiet(Socket& socket) noexcept;

}  // namespace orvx::communication
