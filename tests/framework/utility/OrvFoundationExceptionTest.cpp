// The exception of the framework.

#include <orvx/utility/OrvFoundationException.h>

#include <gtest/gtest.h>

#include <string>

namespace orvx::utility {
namespace {

TEST(TheFoundationException, HasAMessageAndACode) {
    const OrvFoundationException exception("no way", 17);
    EXPECT_STREQ(exception.what(), "no way");
    EXPECT_EQ(exception.errorCode(), 17);
}

TEST(TheFoundationException, OwnsItsMessage) {
    std::string message = "no way";
    const OrvFoundationException exception(message.c_str(), 0);
    message = "gone";
    EXPECT_STREQ(exception.what(), "no way");
}

TEST(TheFoundationException, IsCaughtAsARuntimeError) {
    EXPECT_THROW(throw OrvFoundationException("no way", 0), std::runtime_error);
}

TEST(TheFoundationException, IsCopiedWithItsCode) {
    const OrvFoundationException exception("no way", -1);
    OrvFoundationException other("other", 0);
    other = exception;
    EXPECT_STREQ(other.what(), "no way");
    EXPECT_EQ(OrvFoundationException(exception).errorCode(), -1);
    EXPECT_EQ(other.errorCode(), -1);
}

}  // namespace
}  // namespace orvx::utility
