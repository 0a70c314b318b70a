// Compares the table of registrations with a naive model. There is no client: the tests assert to
// the annotations that its lock is held.
#include "RegistrationTable.h"
#include "Upkeep.h"

#include <orvx/common/XObject.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace orvx::serviceregistryclient {
namespace {

using Client = OrvServiceRegistryClient;
using Record = Client::RegistrationTable::Record;
using Request = std::shared_ptr<Client::RequestContainer>;

Record newRecord() {
    Client::Upkeep::lockIsHeld();
    auto record = std::make_shared<Client::RegistrationData>();
    record->requestContainer = std::make_shared<Client::RequestContainer>();
    record->requestContainer->serviceCreate =
        std::make_shared<common::ServiceCreate>(std::make_unique<common::XObject>("", "echo", ""));
    return record;
}

/// Performs the same operations on the table and on a model, in random order, and compares both
/// after each one.
class RegistrationTable : public ::testing::TestWithParam<unsigned> {
  protected:
    void change() {
        switch (number(10)) {
            case 0:
            case 1:
            case 2:
                return insert();
            case 3:
            case 4:
                return redirect();
            case 5:
                return erase();
            case 6:
                return number(4) == 0 ? eraseAll() : setRegistryEntry();
            default:
                return setRegistryEntry();
        }
    }

    void expectSame() {
        Client::Upkeep::lockIsHeld();
        EXPECT_TRUE(std::equal(model_.begin(), model_.end(), table_.begin(), table_.end()));
        const std::uint64_t id = number(lastId_ + 2);
        const auto found = model_.find(id);
        EXPECT_EQ(table_.find(id), found == model_.end() ? nullptr : found->second) << id;
        for (const std::string& registryId : registryIds_) {
            EXPECT_EQ(table_.findByRegistryId(registryId), walk(registryId)) << registryId;
        }
    }

  private:
    /// The record with the lowest id whose description has this registry id.
    Record walk(const std::string& registryId) const {
        Client::Upkeep::lockIsHeld();
        for (const auto& [id, record] : model_) {
            const common::ServiceCreate& service = *record->requestContainer->serviceCreate;
            if (service.hasId() && service.getId() == registryId) {
                return record;
            }
        }
        return nullptr;
    }

    void insert() {
        Client::Upkeep::lockIsHeld();
        if (model_.size() == 12) {
            return;
        }
        const Record record = newRecord();
        requests_.push_back({++lastId_, record->requestContainer});
        model_.emplace(lastId_, record);
        table_.insert(lastId_, record);
    }
    /// Redirects an id to the record of an entry, as an answer does, or to any record.
    void redirect() {
        Client::Upkeep::lockIsHeld();
        if (model_.empty()) {
            return;
        }
        const std::uint64_t id = anyId();
        Record target = table_.findByRegistryId(anyRegistryId());
        if (!target) {
            target = model_.at(anyId());
        }
        const Record before = std::exchange(model_.at(id), target);
        EXPECT_EQ(table_.redirect(id, target), before);
    }
    void erase() {
        Client::Upkeep::lockIsHeld();
        if (!model_.empty()) {
            const std::uint64_t id = anyId();
            table_.erase(id);
            model_.erase(id);
        }
    }
    void eraseAll() {
        Client::Upkeep::lockIsHeld();
        if (model_.empty()) {
            return;
        }
        const Record record = model_.at(anyId());
        for (auto entry = model_.begin(); entry != model_.end();) {
            entry = entry->second == record ? model_.erase(entry) : std::next(entry);
        }
        table_.eraseAll(*record);
    }
    /// Uses a request id that is present: its own request may belong to another record by now.
    void setRegistryEntry() {
        Client::Upkeep::lockIsHeld();
        if (requests_.empty()) {
            return;
        }
        const auto& [id, request] = requests_[number(requests_.size())];
        if (model_.count(id) != 0) {
            table_.setRegistryEntry(*request, anyRegistryId(), "/uri");
        }
    }

    std::uint64_t anyId() {
        return std::next(model_.begin(), static_cast<std::ptrdiff_t>(number(model_.size())))->first;
    }
    std::string anyRegistryId() { return registryIds_[number(registryIds_.size())]; }
    std::size_t number(std::size_t bound) { return random_() % bound; }

    std::mt19937 random_{GetParam()};
    const std::vector<std::string> registryIds_{"", "a", "b", "ab"};
    Client::RegistrationTable table_;
    std::map<std::uint64_t, Record> model_;
    std::vector<std::pair<std::uint64_t, Request>> requests_;
    std::uint64_t lastId_ = 0;
};

TEST_P(RegistrationTable, FindsTheSameRecordsAsANaiveModel) {
    for (int step = 0; step < 2000 && !HasFailure(); ++step) {
        SCOPED_TRACE(step);
        change();
        expectSame();
    }
}

TEST(TheRegistrationTable, KeepsOneCopyOfAnEndpointForRegistrationsInARow) {
    Client::Upkeep::lockIsHeld();
    Client::RegistrationTable table;
    const common::ServiceInfo one("registry", "a", 80);
    const auto shared = table.share(one);
    EXPECT_EQ(*shared, one);
    EXPECT_NE(shared.get(), &one);
    EXPECT_EQ(table.share(common::ServiceInfo("registry", "a", 80)), shared);
    const common::ServiceInfo other("registry", "a", 81);
    EXPECT_EQ(*table.share(other), other);
    EXPECT_EQ(*shared, one);
}

TEST(RequestIds, AreInAscendingOrderHoweverTheyWereAdded) {
    RequestIds ids;
    EXPECT_TRUE(ids.empty());
    for (const std::uint64_t id : {5U, 2U, 9U, 5U, 2U, 7U}) {
        ids.insert(id);
    }
    EXPECT_EQ(ids.back(), 9U);
    ids.erase(7);
    for (const std::uint64_t id : {2U, 5U, 9U}) {
        EXPECT_EQ(ids.front(), id);
        ids.erase(id);
    }
    EXPECT_TRUE(ids.empty());
}

INSTANTIATE_TEST_SUITE_P(Seeds, RegistrationTable, ::testing::Range(1U, 11U));

}  // namespace
}  // namespace orvx::serviceregistryclient
