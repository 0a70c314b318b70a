// The dead resolver, used by libcurl.
//
// Threads: a transfer runs on a thread of its own, and libcurl looks names up on further ones.

#include "DeadResolver.h"

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <future>
#include <memory>

namespace orvx::testing {
namespace {

using ::testing::AllOf;
using ::testing::Each;
using ::testing::IsEmpty;
using ::testing::Not;

CURLcode get(const std::string& url) {
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> easy(curl_easy_init(),
                                                                   curl_easy_cleanup);
    curl_easy_setopt(easy.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
    return curl_easy_perform(easy.get());
}

TEST(TheDeadResolver, KeepsALookupOfLibcurlWaitingUntilItIsReleased) {
    DeadResolver resolver;
    auto transfer = std::async(std::launch::async, get, "http://x.silent.test/");
    ASSERT_TRUE(resolver.waitForLookups(1));
    EXPECT_GE(resolver.waiting(), 1U);  // newer versions of libcurl look up each family
    EXPECT_EQ(transfer.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    resolver.release();
    EXPECT_EQ(resolver.waiting(), 0U);
    EXPECT_EQ(transfer.get(), CURLE_COULDNT_RESOLVE_HOST);
    EXPECT_THAT(resolver.lookups(), Each("x.silent.test"));
}

TEST(TheDeadResolver, ReleasesWaitingLookUpsWhenItIsDestroyed) {
    std::future<CURLcode> transfer;
    {
        const DeadResolver resolver;
        transfer = std::async(std::launch::async, get, "http://x.silent.test/");
        ASSERT_TRUE(resolver.waitForLookups(1));
    }
    EXPECT_EQ(transfer.get(), CURLE_COULDNT_RESOLVE_HOST);
}

TEST(TheDeadResolver, FailsASilentLookupAtTheLatestAfterItsBound) {
    const DeadResolver resolver(std::chrono::seconds(0));
    EXPECT_EQ(get("http://x.silent.test/"), CURLE_COULDNT_RESOLVE_HOST);
    EXPECT_EQ(resolver.waiting(), 0U);
}

TEST(TheDeadResolver, FailsUnknownNamesAtOnce) {
    const DeadResolver resolver;
    EXPECT_EQ(get("http://x.unknown.test/"), CURLE_COULDNT_RESOLVE_HOST);
    EXPECT_THAT(resolver.lookups(), AllOf(Not(IsEmpty()), Each("x.unknown.test")));
}

TEST(TheDeadResolver, DoesNotKeepOtherNamesFromTheirAnswer) {
    const DeadResolver resolver;
    addrinfo* addresses = nullptr;
    ASSERT_EQ(getaddrinfo("127.0.0.1", "80", nullptr, &addresses), 0);
    freeaddrinfo(addresses);
    EXPECT_TRUE(resolver.lookups().empty());
}

}  // namespace
}  // namespace orvx::testing
