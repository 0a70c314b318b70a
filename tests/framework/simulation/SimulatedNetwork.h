#pragma once

#include "AtEnd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orvx/communication/OrvClientCommunicationContext.h>
#include <orvx/simulation/World.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace orvx::simulation {

using communication::CommunicationStatus;
using communication::HttpResponse;
using communication::IClientHttpSession;
using communication::OrvClientCommunicationContext;
using communication::ResponseHandler;

/// An initialised communication context in a world, with a session.
class SimulatedNetwork : public ::testing::Test {
  protected:
    SimulatedNetwork() { context->init(); }

    std::shared_ptr<IClientHttpSession> makeSession(std::uint32_t port = 8500) {
        return context->getClientHttpFactory().createSession(
            "registry", port, context->getHttpConfig(), context->getHealthCheck(),
            context->getClientStatistics());
    }
    /// Records the outcome, which must come on the I/O thread.
    ResponseHandler note(const std::string& what) {
        return [this, what](const HttpResponse& response) {
            EXPECT_EQ(world.currentThread(), "ORVX_HttpIO");
            outcomes.push_back(what + ' ' + describe(response));
        };
    }
    static std::string describe(const HttpResponse& response) {
        return response.getCommunicationStatus() == CommunicationStatus::Ok
                   ? std::to_string(static_cast<int>(response.getStatusCode()))
                   : communication::communicationStatusToString(response.getCommunicationStatus());
    }
    void put(const std::string& path, ResponseHandler handler) {
        session->sendPutRequestJson(path, "{}", 2, std::move(handler));
    }
    Request take() { return world.takeRequest().value(); }

    World world;
    std::optional<OrvClientCommunicationContext> context{std::in_place};
    std::shared_ptr<IClientHttpSession> session = makeSession();
    std::vector<std::string> outcomes;
};

}  // namespace orvx::simulation
