#pragma once

#include <orvx/communication/IClientHttpFactory.h>
#include <orvx/utility/ILoggerFactory.h>

#include <memory>

namespace orvx::communication {

/// HTTP/1.1 for a client: one I/O thread ("ORVX_HttpIO") for all sessions and requests.
///
/// Thread-safety: setters, init() and deinit() are called by one thread at a time; getters and
/// sessions may be used from any thread at any time.
class OrvClientCommunicationContext {
  public:
    OrvClientCommunicationContext();
    /// Calls deinit().
    ~OrvClientCommunicationContext();
    OrvClientCommunicationContext(const OrvClientCommunicationContext&) = delete;
    OrvClientCommunicationContext& operator=(const OrvClientCommunicationContext&) = delete;

    /// Takes effect with the next init(). Without a factory nothing is logged.
    void setLoggerFactory(std::shared_ptr<utility::ILoggerFactory> loggerFactory);
    /// Sets the level up to which lines are logged. Takes effect with the next init().
    void setLogLevel(utility::ILogger::LogLevel level);
    /// Sets the configuration of new sessions; see getHttpConfig(). Takes effect with the next
    /// init().
    void setHttpConfig(HttpConfig config);

    /// Starts the I/O thread; does nothing while it runs. Sessions that were made before work from
    /// now on.
    /// Throws utility::OrvFoundationException if the HTTP configuration is invalid or there are no
    /// file descriptors left, and std::system_error if the thread cannot be made.
    void init();

    /// Gives up every outstanding request without calling its handler, closes every connection and
    /// ends the I/O thread. When it returns, no handler runs any more. It takes at most a second
    /// longer than a handler that is running. Called from inside a handler, it does not wait for
    /// that handler.
    /// Sessions stay valid and work again after the next init(); requests that are sent meanwhile
    /// are dropped.
    /// In a forked child it does nothing and leaks the thread's resources.
    void deinit();

    /// A copy of the HTTP configuration, for new sessions.
    HttpConfig getHttpConfig() const;
    /// The factory; lives as long as the context.
    IClientHttpFactory& getClientHttpFactory() const;
    /// A session that answers each request with NoSession, on the I/O thread.
    std::shared_ptr<IClientHttpSession> getUnavailableSession() const;
    /// The health check that new sessions report to. Never null.
    std::shared_ptr<HealthCheck> getHealthCheck() const;
    /// The statistics that new sessions report to: those of the HTTP configuration, or the
    /// context's own. Never null.
    std::shared_ptr<ClientStatistics> getClientStatistics() const;

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace orvx::communication
