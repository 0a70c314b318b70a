#pragma once

#include <poll.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/write.hpp>
#include <sstream>
#include <stdexcept>
#include <string>

namespace orvx::registry {

/// Accepts a connection and answers one request with the given bytes.
class FakeServer {
  public:
    explicit FakeServer(const char* address)
        : acceptor_(context_, {boost::asio::ip::make_address(address), 0}) {}

    std::string authority() const {
        std::ostringstream text;
        text << acceptor_.local_endpoint();
        return text.str();
    }

    /// Returns the header of the request.
    std::string answer(const std::string& bytes) {
        pollfd polled{acceptor_.native_handle(), POLLIN, 0};
        if (::poll(&polled, 1, 10'000) != 1) {
            throw std::runtime_error("no connection within ten seconds");
        }
        boost::asio::ip::tcp::socket socket = acceptor_.accept();
        std::string request;
        boost::asio::read_until(socket, boost::asio::dynamic_buffer(request), "\r\n\r\n");
        boost::asio::write(socket, boost::asio::buffer(bytes));
        return request;
    }

  private:
    boost::asio::io_context context_;
    boost::asio::ip::tcp::acceptor acceptor_;
};

}  // namespace orvx::registry
