// The names of the communication statuses.

#include <gtest/gtest.h>
#include <orvx/communication/CommunicationStatus.h>

#include <limits>
#include <string>

namespace orvx::communication {
namespace {

std::string nameOf(std::int32_t number) {
    return communicationStatusToString(static_cast<CommunicationStatus>(number));
}

TEST(TheCommunicationStatus, HasAFixedNameAndNumber) {
    const std::string names[] = {
        "OK",         "INVALID_REQUEST", "NO_SESSION",     "RESOLVE_FAILED", "CONNECT_FAILED",
        "TLS_FAILED", "SEND_FAILED",     "RECEIVE_FAILED", "TIMED_OUT",      "MALFORMED",
        "CUT_SHORT",  "TOO_LARGE",       "ABANDONED",      "OUT_OF_MEMORY",  "OTHER"};
    std::int32_t number = 0;
    for (const std::string& name : names) {
        EXPECT_EQ(nameOf(number), name);
        ++number;
    }
}

TEST(TheCommunicationStatus, HasAnEmptyNameForAnyOtherNumber) {
    EXPECT_EQ(nameOf(15), "");
    EXPECT_EQ(nameOf(-1), "");
    EXPECT_EQ(nameOf(std::numeric_limits<std::int32_t>::max()), "");
    EXPECT_EQ(nameOf(std::numeric_limits<std::int32_t>::min()), "");
}

}  // namespace
}  // namespace orvx::communication
