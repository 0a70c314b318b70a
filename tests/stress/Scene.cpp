// A client, its users and a hostile registry.
//
// Threads: the test's, which stops the client; the users', which call the client's operations until
// they are ended; the client's, which call the ledger. No locks here.

#include "Scene.h"

#include "StopBound.h"

#include <utility>

namespace orvx::stress {

namespace {

constexpr int kUsers = 3;

int upTo(Random& random, int most) {
    return std::uniform_int_distribution<int>(0, most)(random);
}

}  // namespace

std::shared_ptr<common::ServiceCreate> Scene::service(const std::string& name) {
    return std::make_shared<common::ServiceCreate>(std::make_unique<common::XObject>("", name, ""));
}

Scene::Scene(std::uint64_t seed) : random_(seed) {
    http.connectionsPerEndpoint = 4;
    context->setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
    context->enableRetry(false);
    context->enableCheck(false);
    context->setRetryInterval(milliseconds(1));
    context->setCheckInterval(std::chrono::seconds(0));
    server.onRequest(obey);
}

Scene::~Scene() {
    endUsers();
}

void Scene::start() {
    context->setHttpConfig(http);
    context->init();
    client_ = static_cast<OrvServiceRegistryClient*>(context->getServiceRegistryClient());
    client().addServiceRegisterStatusListener(ledger.listener(mark));
}

IOrvServiceRegistryClient::ResponseCallback Scene::record(std::function<void()> then) {
    return [answer = ledger.answer(ledger.begin(mark)),
            then = std::move(then)](const OrvRegistrationResponse& outcome) {
        answer(outcome);
        if (then) {
            then();
        }
    };
}

IOrvServiceRegistryClient::UnregisterHandle Scene::registerService(const std::string& name) {
    return registerAt("127.0.0.1", server.port(), service(name));
}

IOrvServiceRegistryClient::UnregisterHandle Scene::registerAt(
    const std::string& host, std::uint16_t port,
    const std::shared_ptr<common::ServiceCreate>& what) {
    return client().registerServiceAtRegistry({"registry", host, port}, what, record());
}

void Scene::registerAndThen(const std::string& name, std::function<void()> then) {
    client().registerServiceAtRegistry({"registry", "127.0.0.1", server.port()}, service(name),
                                       record(std::move(then)));
}

IOrvServiceRegistryClient::UnregisterHandle Scene::registered(const std::string& name) {
    const auto outcome = std::make_shared<std::promise<OrvRegistrationResponse::Status>>();
    auto handle = client().registerServiceAtRegistry(
        {"registry", "127.0.0.1", server.port()}, service(name),
        [outcome](const OrvRegistrationResponse& told) { outcome->set_value(told.status); });
    auto future = outcome->get_future();
    if (future.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        ADD_FAILURE() << name << ": no outcome";
    } else {
        EXPECT_EQ(future.get(), OrvRegistrationResponse::OK) << name;
    }
    return handle;
}

void Scene::startUsers() {
    for (int i = 0; i < kUsers; ++i) {
        users_.emplace_back([this, seed = random_()] { use(seed); });
    }
}

void Scene::endUsers() {
    pace_.end();
    for (std::thread& user : users_) {
        user.join();
    }
    users_.clear();
}

void Scene::use(std::uint64_t seed) {
    Random random(seed);
    std::vector<IOrvServiceRegistryClient::UnregisterHandle> handles;
    do {
        const int choice = upTo(random, 9);
        if (handles.empty() || choice < 4) {
            handles.push_back(registerService("user-" + std::to_string(++services_)));
        } else if (choice < 8) {
            handles[static_cast<std::size_t>(upTo(random, static_cast<int>(handles.size()) - 1))](
                record());
        } else if (choice == 8) {
            client().addServiceRegisterStatusListener(ledger.listener(mark));
        } else {
            client().unregisterAllServicesFromRegistry(
                ledger.answer(ledger.beginWithdrawalOfAll(mark)));
        }
    } while (pace_.wait(milliseconds(upTo(random, 1))));
}

void Scene::passAMoment() {
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::microseconds(upTo(random_, 3000));
    while (std::chrono::steady_clock::now() < end) {
        std::this_thread::yield();
    }
}

void Scene::stopClient() {
    expectQuick([this] { client().deinit(); });
}

void Scene::stopContext() {
    expectQuick([this] { context->deinit(); });
}

void Scene::endContext() {
    expectQuick([this] { context.reset(); });
}

void Scene::expectQuick(const std::function<void()>& stop) {
    const auto begin = std::chrono::steady_clock::now();
    stop();
    *mark = true;
    EXPECT_LT(std::chrono::steady_clock::now() - begin, testing::kStopBound)
        << "stopping took too long";
}

}  // namespace orvx::stress
