#pragma once

#include "Outcome.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orvx/communication/OrvClientCommunicationContext.h>

#include <memory>
#include <ostream>
#include <string>

#include "HostileServer.h"

namespace orvx::communication {

inline std::ostream& operator<<(std::ostream& stream, CommunicationStatus status) {
    return stream << communicationStatusToString(status);
}

}  // namespace orvx::communication

namespace orvx::testing {

using communication::CommunicationStatus;
using communication::HttpConfig;
using communication::HttpResponse;
using communication::IClientHttpSession;
using communication::OrvClientCommunicationContext;
using SessionPointer = std::shared_ptr<IClientHttpSession>;

/// An initialised communication context and a server.
class HttpTest : public ::testing::Test {
  protected:
    HttpTest() { context_.init(); }

    SessionPointer session(const HttpConfig& config = {}) {
        return session(server_.port(), config);
    }
    SessionPointer session(std::uint32_t port, const HttpConfig& config = {},
                           const std::string& host = "127.0.0.1") {
        return context_.getClientHttpFactory().createSession(
            host, port, config, context_.getHealthCheck(), context_.getClientStatistics());
    }
    static HttpConfig oneConnection() {
        HttpConfig config;
        config.connectionsPerEndpoint = 1;
        return config;
    }

    HostileServer server_;
    OrvClientCommunicationContext context_;
};

/// Sends the request and waits for the outcome.
inline HttpResponse put(const SessionPointer& session, const std::string& path = "/",
                        const std::string& content = "") {
    Outcome outcome;
    session->sendPutRequestJson(path, content.data(), content.size(), outcome.handler());
    return outcome.response();
}
inline HttpResponse head(const SessionPointer& session, const std::string& uri = "/") {
    Outcome outcome;
    session->sendHeadRequest(uri, outcome.handler());
    return outcome.response();
}
inline HttpResponse remove(const SessionPointer& session, const std::string& uri = "/") {
    Outcome outcome;
    session->sendDeleteRequest(uri, "", outcome.handler());
    return outcome.response();
}
inline int codeOf(const HttpResponse& response) {
    return static_cast<int>(response.getStatusCode());
}

}  // namespace orvx::testing
