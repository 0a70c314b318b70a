// Any location in the answers to the registrations of two services, and to their second
// registrations: the entry is the text after the last slash, and no other path is checked or
// deleted; without a slash the registration has failed. Log lines contain no harmful bytes. One
// thread; there is no lock.

#include "ConsoleText.h"
#include "Input.h"
#include "RecordingLogger.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <orvx/common/XObject.h>
#include <orvx/communication/RequestTarget.h>
#include <orvx/simulation/World.h>

#include <optional>

namespace {

using namespace orvx::serviceregistryclient;
using orvx::fuzz::Input;
using orvx::fuzz::isUtf8;
using orvx::fuzz::require;
using orvx::fuzz::requireSame;
using Uuid = std::optional<std::string>;

/// One line, as the network delivers it.
std::string locationFrom(Input& input) {
    std::string location = input.text();
    location.erase(std::min(location.find_first_of(std::string_view("\n\0", 2)), location.size()));
    location.erase(location.find_last_not_of('\r') + 1);
    return location;
}

/// The rule. Spaces around a header's value do not belong to it.
Uuid uuidIn(std::string location) {
    location.erase(location.find_last_not_of(" \t") + 1);
    location.erase(0, location.find_first_not_of(" \t"));
    const auto slash = location.rfind('/');
    return slash == std::string::npos ? Uuid() : location.substr(slash + 1);
}

class Story {
  public:
    explicit Story(Input input) : input_(input) {
        context_.setLoggerFactory(log_);
        context_.init();
    }

    void play() {
        const Uuid one = announce("one");
        const Uuid two = announce("two");
        if (one != two || !one) {
            checkAndLose({one, two});
        }
        withdraw();
        for (const auto& line : log_->takeLines()) {
            requireShowable(orvx::utility::toConsoleText(line.text));
        }
    }

  private:
    std::string locationLine(std::string& location) {
        location = locationFrom(input_);
        return "Location: " + location + "\r\n";
    }

    Uuid announce(const std::string& name) {
        handles_.push_back(context_.getServiceRegistryClient()->registerServiceAtRegistry(
            orvx::common::ServiceInfo("registry", "127.0.0.1", 8500),
            std::make_shared<orvx::common::ServiceCreate>(
                std::make_unique<orvx::common::XObject>("", name, "")),
            [this](const OrvRegistrationResponse& response) { outcomes_.push_back(response); }));
        std::string location;
        const std::string line = locationLine(location);
        next("PUT", "/" + name).answer(201, line);
        world_.settle();
        const Uuid uuid = uuidIn(location);
        requireSame(outcomes_.size(), 1U, "the number of outcomes");
        requireSame(outcomes_.front().status,
                    uuid ? OrvRegistrationResponse::OK : OrvRegistrationResponse::ERROR,
                    "the outcome");
        outcomes_.clear();
        return uuid;
    }

    /// The registry has lost the entries, and answers the new registrations with other locations.
    void checkAndLose(const std::vector<Uuid>& uuids) {
        world_.advance(context_.getCheckInterval());
        std::vector<orvx::simulation::Request> heads;
        for (const Uuid& uuid : uuids) {
            if (uuid) {
                heads.push_back(next("HEAD", "/" + *uuid));
            }
        }
        requireSame(world_.requestsToTake(), 0U, "the number of further requests");
        for (auto& head : heads) {
            head.answer(404);
        }
        while (auto put = world_.takeRequest()) {
            std::string location;
            const std::string line = locationLine(location);
            put->answer(200, line);
            entries_.push_back(uuidIn(location));
        }
        requireSame(entries_.size(), heads.size(), "the number of registrations again");
    }

    void withdraw() {
        for (const auto& handle : handles_) {
            handle(
                [this](const OrvRegistrationResponse& response) { outcomes_.push_back(response); });
        }
        // Two services with one entry, and entries without a uuid, have special rules.
        const bool isClear =
            std::none_of(entries_.begin(), entries_.end(),
                         [](const Uuid& uuid) { return uuid == ""; }) &&
            (entries_.size() < 2 || entries_.front() != entries_.back() || !entries_.front());
        for (const Uuid& uuid : entries_) {
            if (isClear && uuid) {
                next("DELETE", "/" + *uuid).answer(200);
            }
        }
        while (auto request = world_.takeRequest()) {
            require(!isClear || entries_.empty(), "nothing else is deleted");
            request->answer(200);
        }
        world_.settle();
        requireSame(outcomes_.size(), handles_.size(), "the number of outcomes of withdrawing");
    }

    orvx::simulation::Request next(const std::string& method, const std::string& path) {
        const auto request = world_.takeRequest();
        require(request.has_value(), "a request is sent");
        requireSame(request->method() + request->path(), method + path, "the request");
        requireSendable(orvx::communication::requestTarget(request->path()));
        return *request;
    }

    static void requireSendable(const std::string& target) {
        require(target.front() == '/' && std::all_of(target.begin(), target.end(),
                                                     [](char c) { return c > ' ' && c < '\x7F'; }),
                "a request's target is visible ASCII");
    }

    static void requireShowable(const std::string& line) {
        require(isUtf8(line), "a shown line is UTF-8");
        require(std::none_of(line.begin(), line.end(),
                             [](char c) { return (c >= 0 && c < ' ') || c == '\x7F'; }),
                "no control character is shown");
        for (auto at = line.find('\xC2'); at != std::string::npos; at = line.find('\xC2', at + 1)) {
            require(static_cast<unsigned char>(line[at + 1]) >= 0xA0,
                    "no control character is shown");
        }
    }

    Input input_;
    orvx::simulation::World world_;
    const std::shared_ptr<orvx::testing::RecordingLoggerFactory> log_ =
        std::make_shared<orvx::testing::RecordingLoggerFactory>();
    OrvServiceRegistryContext context_;
    std::vector<IOrvServiceRegistryClient::UnregisterHandle> handles_;
    std::vector<OrvRegistrationResponse> outcomes_;
    std::vector<Uuid> entries_;  // after the second registrations
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    Story(Input(bytes, size)).play();
    return 0;
}
