// Listens, makes a Connection of what is accepted, and closes everything when stopped.
// Everything runs on the thread that calls run(); stop() only leaves a message for it, and port()
// and url() read what never changes.
// There is no lock: the io_context is what the threads share.

#include "RegistryServer.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "Connection.h"
#include "FileError.h"

namespace orvx::registry {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

class RegistryServer::Impl {
  public:
    explicit Impl(const RegistryOptions& options)
        : shared_{options, {storeOptions(options), options.admin}, {}, {}},
          acceptor_(context_, resolve(options)),
          endpoint_(acceptor_.local_endpoint()),
          retry_(context_) {
        if (!options.log.empty()) {
            shared_.log.emplace(options.log);
        }
        if (!options.script.empty()) {
            runScript(options.script);
        }
        accept();
    }

    const tcp::endpoint& endpoint() const { return endpoint_; }
    void run() { context_.run(); }
    void stop() {
        asio::post(context_, [this] { close(); });
    }

  private:
    static StoreOptions storeOptions(const RegistryOptions& options) {
        StoreOptions store;
        store.ttl = options.ttl;
        store.maxEntries = options.maxEntries;
        store.file = options.store;
        return store;
    }

    void runScript(const std::string& path) {
        std::ifstream file(path);
        std::ostringstream text;
        text << file.rdbuf();
        if (!file || text.fail()) {
            throw FileError("script " + path + ": it cannot be read");
        }
        try {
            shared_.dispatcher.setFaults(text.str());
        } catch (const std::invalid_argument& error) {
            throw FileError("script " + path + ": " + error.what());
        }
    }

    tcp::endpoint resolve(const RegistryOptions& options) {
        return *tcp::resolver(context_).resolve(options.host, std::to_string(options.port));
    }

    void accept() {
        acceptor_.async_accept([this](error_code error, tcp::socket socket) {
            if (!acceptor_.is_open()) {
                return;
            }
            if (error == asio::error::no_descriptors ||
                error == boost::system::errc::too_many_files_open_in_system) {
                return acceptWithoutDescriptor();
            }
            if (error) {
                return acceptLater();
            }
            if (shared_.connections.size() >= shared_.options.maxConnections) {
                shared_.closeOldest();
            }
            socket.set_option(tcp::no_delay(true), error);
            std::make_shared<Connection>(std::move(socket), shared_)->awaitRequest();
            accept();
        });
    }

    // Without a free file descriptor accepting fails whether somebody waits or not. Another
    // connection ends for one that waits; if there is none, the next try could fail at once.
    void acceptWithoutDescriptor() {
        acceptor_.async_wait(tcp::acceptor::wait_read, [this](error_code error) {
            if (error) {
                return;
            }
            if (shared_.connections.empty()) {
                return acceptLater();
            }
            shared_.closeOldest();
            accept();
        });
    }

    void acceptLater() {
        retry_.expires_after(std::chrono::milliseconds(100));
        retry_.async_wait([this](error_code) { accept(); });
    }

    void close() {
        acceptor_.close();
        retry_.cancel();
        while (!shared_.connections.empty()) {
            shared_.closeOldest();
        }
    }

    // Connections end no later than the context does, and need this until then.
    Connection::Shared shared_;
    asio::io_context context_;
    tcp::acceptor acceptor_;
    const tcp::endpoint endpoint_;
    asio::steady_timer retry_;
};

RegistryServer::RegistryServer(const RegistryOptions& options)
    : impl_(std::make_unique<Impl>(options)) {}

RegistryServer::~RegistryServer() = default;

std::uint16_t RegistryServer::port() const {
    return impl_->endpoint().port();
}

std::string RegistryServer::url() const {
    std::ostringstream text;
    text << "http://" << impl_->endpoint();
    return text.str();
}

void RegistryServer::run() {
    impl_->run();
}

void RegistryServer::stop() {
    impl_->stop();
}

}  // namespace orvx::registry
