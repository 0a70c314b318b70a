// Compiled by clang only, with -verify: fails to compile unless clang reports exactly the marked
// accesses. Each of them reaches a record without the client's lock.
#include "RegistrationTable.h"
#include "Upkeep.h"

namespace orvx::serviceregistryclient {

class ClientTestAccess {
  public:
    using Client = OrvServiceRegistryClient;
    using Record = Client::RegistrationTable::Record;

    static void afterUnlocking(Client& client, std::uint64_t id) {
        utility::MutexLock lock(client.mutex);
        const Record record = client.mapRegistryCallback->find(id);
        Client::RegistrationData& data = *record;
        record->wasRegistered = data.wasRegistered;
        lock.unlock();
        record->wasRegistered = true;  // expected-warning {{writing variable 'wasRegistered'}}
        data.wasRegistered = true;     // expected-warning {{writing variable 'wasRegistered'}}
        record->facts.requestSent();   // expected-warning {{reading variable 'facts'}}
    }

    // As in the handler of an answer, which shares the request.
    static bool withAnotherLock(const Client::RequestContainer& request, utility::Mutex& other) {
        const utility::MutexLock lock(other);
        // expected-warning@+1 {{calling function 'registryIdOf'}}
        const std::string id = Client::RegistrationTable::registryIdOf(request);
        // expected-warning@+1 {{reading variable 'record'}}
        return request.record != nullptr && !id.empty();
    }

    static void callbackUnderTheLock(Client& client, const Client::Response& response) {
        const utility::MutexLock lock(client.mutex);
        client.callCallbackLocked({}, response);
        client.callCallback({}, response);  // expected-warning {{cannot call function}}
    }

    static void callbackWithoutTheLock(Client& client, const Client::Response& response) {
        client.callCallback({}, response);
        client.callCallbackLocked({}, response);  // expected-warning {{requires holding mutex}}
    }
};

}  // namespace orvx::serviceregistryclient
