// The registration request: completing a copy of the description, storing it, sending the PUT.
// Entered by the user's threads, and by the timer's thread and the I/O thread when a PUT is sent
// again. The lock is held to store and to look up, but not while the request is passed to the
// session.

#include "RegistrationTable.h"
#include "Upkeep.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <algorithm>
#include <new>
#include <ostream>
#include <streambuf>
#include <utility>

namespace orvx::serviceregistryclient {

using common::ServiceCreate;
using communication::CommunicationStatus;
using communication::HttpResponse;

namespace {

/// Sets missing values to their defaults. Removes the id, which the registry assigns.
void complete(ServiceCreate& service) {
    service.getGenericObject().removeValue("id");
    if (!service.hasUri()) {
        service.setUri("/" + service.getName());
    }
    if (!service.hasDescription()) {
        service.setDescription(service.getName());
    }
    if (!service.hasPrivileges()) {
        service.setPrivileges({});
    }
    if (!service.hasServiceCategories()) {
        service.setServiceCategories({});
    }
    if (!service.hasVersions()) {
        service.setVersions({});
    }
}

/// A stream buffer that appends to a text.
class TextBuffer : public std::streambuf {
  public:
    explicit TextBuffer(std::string& text) : text_(text) {}

  private:
    std::streamsize xsputn(const char* bytes, std::streamsize count) override {
        text_.append(bytes, static_cast<std::size_t>(count));
        return count;
    }
    int_type overflow(int_type character) override {
        text_ += traits_type::to_char_type(character);
        return character;
    }

    std::string& text_;
};

// Five times as fast as a string stream.
std::string toJson(const ServiceCreate& service) {
    std::string json;
    TextBuffer buffer(json);
    std::ostream stream(&buffer);
    stream.exceptions(std::ios::badbit);  // Exceptions of the buffer reach the caller.
    service.getGenericObject().toJSONStream(stream, false);
    return json;
}

/// The data that a request owns, in one block of memory.
struct RequestContent {
    explicit RequestContent(const ServiceCreate& original) : service(original) {}

    ServiceCreate service;
    std::string uri;
    std::string body;
};

}  // namespace

IOrvServiceRegistryClient::UnregisterHandle OrvServiceRegistryClient::registerServiceAtRegistry(
    const common::ServiceInfo& serviceInfo, const std::shared_ptr<ServiceCreate>& service,
    ResponseCallback callback) {
    return internal_registerAtRegistry(serviceInfo, service, std::move(callback));
}

IOrvServiceRegistryClient::UnregisterHandle OrvServiceRegistryClient::internal_registerAtRegistry(
    const common::ServiceInfo& serviceInfo, const std::shared_ptr<ServiceCreate>& service,
    ResponseCallback callback) {
    const auto refuse = [&](OrvRegistrationResponse::ErrorCode reason) {
        callCallback(callback, std::make_shared<OrvRegistrationResponse>(
                                   OrvRegistrationResponse::ERROR, reason));
    };
    if (!initiated) {
        refuse(OrvRegistrationResponse::DELEGATOR_NOT_INITIATED);
        return handleOfRefusedService(service ? service->getName() : "");
    }
    const auto content = service ? std::make_shared<RequestContent>(*service) : nullptr;
    const std::shared_ptr<ServiceCreate> completed(content, content ? &content->service : nullptr);
    if (!completed || !completed->hasName()) {
        logger->logError(false) << "Service is missing name";
        refuse(OrvRegistrationResponse::SERVICE_NAME_MISSING);
        return handleOfUnnamedService();
    }

    complete(*completed);
    try {
        content->body = toJson(*completed);
    } catch (...) {
        logger->logError(false) << "could not create content to send to registry";
        refuse(OrvRegistrationResponse::OTHER);
        return handleOfRefusedService(completed->getName());
    }

    content->uri = completed->getUri();
    const auto request = std::make_shared<RequestContainer>(RequestContainer{
        nullptr, completed, std::shared_ptr<const std::string>(content, &content->uri),
        std::shared_ptr<const std::string>(content, &content->body)});
    return upkeep->announce(serviceInfo, request, std::move(callback));
}

// A handle whose client is gone answers a blocked caller only, which would wait for ever otherwise.
template <typename Withdraw>
IOrvServiceRegistryClient::UnregisterHandle OrvServiceRegistryClient::makeHandle(
    Withdraw withdraw) const {
    return [reference = reference, withdraw = std::move(withdraw)](const ResponseCallback& done) {
        const bool isCalled =
            reference->call([&](OrvServiceRegistryClient& client) { withdraw(client, done); });
        if (const auto* waiting = done.target<PromiseCallback>(); waiting != nullptr && !isCalled) {
            (*waiting)(
                {OrvRegistrationResponse::ERROR, OrvRegistrationResponse::DELEGATOR_NOT_INITIATED});
        }
    };
}

IOrvServiceRegistryClient::UnregisterHandle OrvServiceRegistryClient::makeHandleFor(
    std::uint64_t id) const {
    return makeHandle([id](OrvServiceRegistryClient& client, const ResponseCallback& done) {
        client.upkeep->withdraw(id, done);
    });
}

// The handle is made before the registration is stored, so that every registration has one even if
// memory runs out.
std::uint64_t OrvServiceRegistryClient::storeRegistration(
    const common::ServiceInfo& serviceInfo, const std::shared_ptr<RequestContainer>& request,
    ResponseCallback callback, UnregisterHandle& handle) {
    const auto retryInterval =
        std::max<std::chrono::milliseconds::rep>(context.getRetryInterval().count(), 0);
    auto backoffSequence = std::make_unique<communication::QunaConnectionBackoffSequence>(
        4, static_cast<std::uint64_t>(retryInterval));
    auto callbacks = std::make_unique<CallbackList>();
    callbacks->callbacks.push_back(std::move(callback));
    const auto record = std::make_shared<RegistrationData>();

    const utility::MutexLock lock(mutex);
    record->requestContainer = request;
    record->backoffSequence = std::move(backoffSequence);
    record->registerCallbacks = std::move(callbacks);
    record->state = REGISTERING;
    record->facts.since = timer.now();
    request->serviceInfo = mapRegistryCallback->share(serviceInfo);
    const std::uint64_t id = ++lastRequestId;
    handle = makeHandle([id](OrvServiceRegistryClient& client, const ResponseCallback& done) {
        client.internal_unregisterFromRegistry(id, done);
    });
    mapRegistryCallback->insert(id, record);
    return id;
}

// A request that cannot be made because memory ran out is handled like one that failed on the
// network.
void OrvServiceRegistryClient::sendPutRequest(std::uint64_t id,
                                              const std::shared_ptr<RequestContainer>& request) {
    try {
        std::shared_ptr<communication::IClientHttpSession> session;
        {
            const utility::MutexLock lock(mutex);
            session = beginRequestLocked(id, *request, "sendPutRequest");
        }
        if (!session) {
            return;
        }
        session->sendPutRequestJson(*request->uri, request->body->data(), request->body->size(),
                                    [this, id, request](HttpResponse response) {
                                        handlePutResponse(id, request, std::move(response));
                                    });
    } catch (const std::bad_alloc&) {
        handlePutResponseError(id, request, HttpResponse(CommunicationStatus::OutOfMemory));
    }
}

IOrvServiceRegistryClient::UnregisterHandle OrvServiceRegistryClient::handleOfRefusedService(
    const std::string& name) const {
    return makeHandle([name](OrvServiceRegistryClient& client, const ResponseCallback& done) {
        client.logger->logWarning(false)
            << "Service '" << name << "' to unregister is not registered.";
        client.callCallback(done, std::make_shared<OrvRegistrationResponse>(
                                      OrvRegistrationResponse::OK, OrvRegistrationResponse::NONE));
    });
}

IOrvServiceRegistryClient::UnregisterHandle OrvServiceRegistryClient::handleOfUnnamedService()
    const {
    return makeHandle([](OrvServiceRegistryClient& client, const ResponseCallback& done) {
        client.logger->logWarning(false)
            << "Unnamed service is not registered. Cannot be unregistered.";
        client.callCallback(done, std::make_shared<OrvRegistrationResponse>(
                                      OrvRegistrationResponse::OK, OrvRegistrationResponse::NONE));
    });
}

}  // namespace orvx::serviceregistryclient
