// Accepts connections, makes a Connection for each, and closes them when stopped.
// Everything runs on the thread that calls run(). stop() and reload() post a task to it; port() and
// url() read constants.
// There is no lock: the threads share only the io_context.

#include "RegistryServer.h"

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <iostream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "AwakeClock.h"
#include "Connection.h"
#include "EtcdBackend.h"
#include "FileContent.h"
#include "Tls.h"

namespace orvx::registry {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

// Connections inherit this size from the listening socket. The kernel uses twice as much, and a
// piece of a list is not much longer than 16 KiB, so a client that reads nothing costs less than 64
// KiB.
constexpr int kSendBuffer = 16'384;

}  // namespace

class RegistryServer::Impl {
  public:
    explicit Impl(const RegistryOptions& options)
        : shared_{options,
                  {storeOptions(options), {options.admin, options.rate, options.audit}},
                  {},
                  makeTlsContext(options.tls),
                  {}},
          acceptor_(context_, resolve(options)),
          endpoint_(acceptor_.local_endpoint()),
          retry_(context_),
          readyLimit_(context_),
          clockTimer_(context_) {
        if (!options.etcd.empty()) {
            EtcdOptions etcd;
            etcd.members = options.etcd;
            etcd.tls = options.etcdTls;
            etcd.tryTimeout = EtcdBackend::tryTimeout(options.ttl);
            etcd.onNoDescriptor = [this] {
                if (acceptor_.is_open()) {
                    dropOldest();
                }
            };
            etcd_.emplace(context_, etcd, options.etcdPrefix, shared_.dispatcher.store(),
                          [this] { onChangeAtEtcd(); });
            shared_.dispatcher.setBackend(*etcd_);
        }
        if (!options.log.empty()) {
            shared_.log.emplace(options.log);
        }
        if (!options.script.empty()) {
            runScript(options.script);
        }
        if (!options.tokens.empty()) {
            shared_.dispatcher.setTokens(readTokens(options.tokens));
        }
        acceptor_.set_option(asio::socket_base::send_buffer_size(kSendBuffer));
        if (countsAwakeTimeOnly(options)) {
            advanceClock();
        }
        requireDescriptor();
        accept();
    }

    const tcp::endpoint& endpoint() const { return endpoint_; }
    void onReady(std::function<void(bool)> ready) {
        onReady_ = std::move(ready);
        if (!etcd_) {
            return asio::post(context_, [this] { callOnReady(true); });
        }
        readyLimit_.expires_after(shared_.options.readyTimeout);
        readyLimit_.async_wait([this](error_code) { callOnReady(false); });
    }
    void run() { context_.run(); }
    void stop() {
        asio::post(context_, [this] { close(); });
    }
    void reload(std::function<void()> done) {
        asio::post(context_, [this, done = std::move(done)] {
            readFilesAgain();
            if (done) {
                done();
            }
        });
    }
    bool hasTls() const { return !shared_.options.tls.certificate.empty(); }

  private:
    static StoreOptions storeOptions(const RegistryOptions& options) {
        StoreOptions store;
        store.ttl = options.ttl;
        store.maxEntries = options.maxEntries;
        store.file = options.store;
        if (countsAwakeTimeOnly(options)) {
            store.clock = AwakeClock(longestGap(options));
        }
        return store;
    }

    /// Throws if no file descriptor is left for a connection: no client would ever be served.
    void requireDescriptor() { tcp::socket(context_).open(endpoint_.protocol()); }

    void onChangeAtEtcd() {
        shared_.wakeWatchers();
        if (onReady_ && etcd_->isCurrent()) {
            readyLimit_.cancel();
            callOnReady(true);
        }
    }

    void callOnReady(bool isCurrent) {
        if (onReady_) {
            std::exchange(onReady_, nullptr)(isCurrent);
        }
    }

    /// Whether the store's clock stands still while the process is stopped, so that no entry
    /// expires whose checks could not be read. A replica handles this itself, and needs the real
    /// time to know the age of its copy.
    static bool countsAwakeTimeOnly(const RegistryOptions& options) {
        return options.ttl.count() > 0 && options.etcd.empty();
    }

    /// At most half of the time between two checks, of which there are at least three in a ttl.
    static AwakeClock::Duration longestGap(const RegistryOptions& options) {
        return std::min<AwakeClock::Duration>(AwakeClock::Duration(options.ttl) / 6,
                                              std::chrono::seconds(1));
    }

    /// Calls the store's clock so often that no gap is counted while the process is awake.
    void advanceClock() {
        shared_.dispatcher.store().now();
        clockTimer_.expires_after(longestGap(shared_.options) / 2);
        clockTimer_.async_wait([this](error_code) {
            if (acceptor_.is_open()) {
                advanceClock();
            }
        });
    }

    void runScript(const std::string& path) {
        try {
            shared_.dispatcher.setFaults(contentOf("script", path));
        } catch (const std::invalid_argument& error) {
            throw FileError("script " + path + ": " + error.what());
        }
    }

    tcp::endpoint resolve(const RegistryOptions& options) {
        tcp::endpoint endpoint = tcp::resolver(context_)
                                     .resolve(options.host, std::to_string(options.port))
                                     .begin()
                                     ->endpoint();
        const bool verifiesClients =
            !options.tls.certificate.empty() && !options.tls.authority.empty();
        const bool isGuarded = !options.tokens.empty() || verifiesClients;
        if (!isGuarded && !options.open && !isLoopback(endpoint.address())) {
            throw std::runtime_error(
                "at " + endpoint.address().to_string() +
                " anybody could announce: it takes --tokens, --client-ca, or --open");
        }
        return endpoint;
    }

    static bool isLoopback(const asio::ip::address& address) {
        return address.is_v6() && address.to_v6().is_v4_mapped()
                   ? make_address_v4(asio::ip::v4_mapped, address.to_v6()).is_loopback()
                   : address.is_loopback();
    }

    void readFilesAgain() {
        const RegistryOptions& options = shared_.options;
        try {
            auto tls = makeTlsContext(options.tls);
            auto tokens = options.tokens.empty() ? nullptr : readTokens(options.tokens);
            shared_.tls = std::move(tls);
            shared_.dispatcher.setTokens(std::move(tokens));
        } catch (const FileError& error) {
            std::cerr << "orvx-registry: " << error.what() << "; nothing is taken over"
                      << std::endl;
            return;
        }
        shared_.dispatcher.audit("files read again", nullptr);
        shared_.endOldOnes();
        std::cout << "orvx-registry has read its files again" << std::endl;
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
            serve(std::move(socket));
            accept();
        });
    }

    void serve(tcp::socket socket) {
        error_code error;
        const auto address = socket.remote_endpoint(error).address();
        // A handshake takes as much time as many requests.
        if (hasTls() && !shared_.dispatcher.admitsConnection(address)) {
            return shared_.dispatcher.counts().countDrop(Drop::Rate);
        }
        if (shared_.connections.size() >= shared_.options.maxConnections) {
            dropOldest();
        }
        socket.set_option(tcp::no_delay(true), error);
        std::make_shared<Connection>(std::move(socket), address, shared_)->begin();
    }

    // Without a free file descriptor async_accept() fails even if no client is waiting. So this
    // function first waits for a client, and then closes another connection for it. If there is no
    // other connection, it tries again after a pause, because the next attempt could fail at once.
    void acceptWithoutDescriptor() {
        acceptor_.async_wait(tcp::acceptor::wait_read, [this](error_code error) {
            if (error) {
                return;
            }
            dropOldest() ? accept() : acceptLater();
        });
    }

    /// Returns false if no connection is open.
    bool dropOldest() {
        if (shared_.connections.empty()) {
            return false;
        }
        shared_.dispatcher.counts().countDrop(Drop::Connections);
        shared_.closeOldest();
        return true;
    }

    void acceptLater() {
        retry_.expires_after(std::chrono::milliseconds(100));
        retry_.async_wait([this](error_code) { accept(); });
    }

    void close() {
        acceptor_.close();
        retry_.cancel();
        onReady_ = nullptr;
        readyLimit_.cancel();
        clockTimer_.cancel();
        shared_.endOldOnes();
        shared_.onLastClosed = [this] { finish(); };
        if (shared_.connections.empty()) {
            return finish();
        }
        retry_.expires_after(shared_.options.farewellTimeout);
        retry_.async_wait([this](error_code) {
            while (!shared_.connections.empty()) {
                shared_.closeOldest();
            }
        });
    }

    void finish() {
        retry_.cancel();
        if (etcd_) {
            etcd_->stop();
        }
    }

    // Declared before the context, which may destroy connections that use it.
    Connection::Shared shared_;
    asio::io_context context_;
    tcp::acceptor acceptor_;
    const tcp::endpoint endpoint_;
    asio::steady_timer retry_;
    asio::steady_timer readyLimit_;
    std::function<void(bool)> onReady_{};
    asio::steady_timer clockTimer_;
    std::optional<EtcdBackend> etcd_;
};

RegistryServer::RegistryServer(const RegistryOptions& options)
    : impl_(std::make_unique<Impl>(options)) {}

RegistryServer::~RegistryServer() = default;

std::uint16_t RegistryServer::port() const {
    return impl_->endpoint().port();
}

std::string RegistryServer::url() const {
    std::ostringstream text;
    text << (impl_->hasTls() ? "https://" : "http://") << impl_->endpoint();
    return text.str();
}

void RegistryServer::onReady(std::function<void(bool isCurrent)> ready) {
    impl_->onReady(std::move(ready));
}

void RegistryServer::run() {
    impl_->run();
}

void RegistryServer::stop() {
    impl_->stop();
}

void RegistryServer::reload(std::function<void()> done) {
    impl_->reload(std::move(done));
}

}  // namespace orvx::registry
