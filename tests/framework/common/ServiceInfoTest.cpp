// Endpoints and their keys. One thread.

#include <gtest/gtest.h>
#include <orvx/common/ServiceInfo.h>

namespace orvx::common {
namespace {

std::string keyOf(const std::string& host, std::uint16_t port = 80) {
    return ServiceInfo("echo", host, port).getKey();
}

TEST(TheServiceVersion, IsEmptyByDefault) {
    EXPECT_TRUE(ServiceVersion().isEmpty());
    EXPECT_EQ(ServiceVersion().asString(), "");
}

TEST(TheServiceVersion, IsTheTextItWasMadeFrom) {
    const ServiceVersion version("1.4.2");
    EXPECT_FALSE(version.isEmpty());
    EXPECT_EQ(version.asString(), "1.4.2");
}

TEST(TheServiceVersion, IsEqualToOneOfTheSameText) {
    EXPECT_TRUE(ServiceVersion("1.0") == ServiceVersion("1.0"));
    EXPECT_TRUE(ServiceVersion() == ServiceVersion(""));
    EXPECT_TRUE(ServiceVersion("1.0") != ServiceVersion("1.0.0"));
    EXPECT_FALSE(ServiceVersion("1.0") != ServiceVersion("1.0"));
}

TEST(TheServiceInfo, HoldsWhatItWasMadeFrom) {
    const ServiceInfo info("echo", "Host", 65535, "/api/", ServiceVersion("2"));
    EXPECT_EQ(info.getName(), "echo");
    EXPECT_EQ(info.getHost(), "Host");
    EXPECT_EQ(info.getPort(), 65535);
    EXPECT_EQ(info.getPrefix(), "/api/");
    EXPECT_EQ(info.getVersion().asString(), "2");
}

TEST(TheServiceInfo, HasNeitherPrefixNorVersionByDefault) {
    const ServiceInfo info("echo", "host", 80);
    EXPECT_EQ(info.getPrefix(), "");
    EXPECT_TRUE(info.getVersion().isEmpty());
}

TEST(TheServiceInfo, IsIndependentOfItsCopy) {
    ServiceInfo info("echo", "host", 80, "/a/", ServiceVersion("1"));
    const ServiceInfo copy(info);
    info = ServiceInfo("other", "elsewhere", 81);
    EXPECT_EQ(copy.getName(), "echo");
    EXPECT_EQ(copy.getKey(), "host:80");
    EXPECT_EQ(copy.getPrefix(), "/a/");
    EXPECT_EQ(info.getKey(), "elsewhere:81");
}

TEST(TheServiceInfo, IsEqualToOneOfTheSameFiveValues) {
    const ServiceInfo info("echo", "host", 80, "/a/", ServiceVersion("1"));
    EXPECT_TRUE(info == ServiceInfo(info));
    EXPECT_FALSE(info != ServiceInfo(info));
    for (const ServiceInfo& other : {ServiceInfo("time", "host", 80, "/a/", ServiceVersion("1")),
                                     ServiceInfo("echo", "Host", 80, "/a/", ServiceVersion("1")),
                                     ServiceInfo("echo", "host", 81, "/a/", ServiceVersion("1")),
                                     ServiceInfo("echo", "host", 80, "/b/", ServiceVersion("1")),
                                     ServiceInfo("echo", "host", 80, "/a/", ServiceVersion("2"))}) {
        EXPECT_TRUE(info != other);
        EXPECT_FALSE(info == other);
    }
}

TEST(TheKeyOfAServiceInfo, IsTheHostAndThePort) {
    EXPECT_EQ(keyOf("registry.example", 8080), "registry.example:8080");
    EXPECT_EQ(keyOf("127.0.0.1", 0), "127.0.0.1:0");
    EXPECT_EQ(keyOf("h", 65535), "h:65535");
    EXPECT_EQ(keyOf("", 80), ":80");
}

TEST(TheKeyOfAServiceInfo, DoesNotTellUpperFromLowerCase) {
    EXPECT_EQ(keyOf("Registry.EXAMPLE"), "registry.example:80");
    EXPECT_EQ(keyOf("AZaz@[`{"), "azaz@[`{:80");
}

TEST(TheKeyOfAServiceInfo, LeavesBytesBeyondAsciiAlone) {
    EXPECT_EQ(keyOf("\xC3\x84-\xC4-\xFF"), "\xC3\x84-\xC4-\xFF:80");
}

TEST(TheKeyOfAServiceInfo, IsTheSameForAnAddressWithAndWithoutBrackets) {
    EXPECT_EQ(keyOf("::1"), "[::1]:80");
    EXPECT_EQ(keyOf("[::1]"), "[::1]:80");
    EXPECT_EQ(keyOf("2001:DB8::A"), keyOf("[2001:db8::a]"));
}

TEST(TheKeyOfAServiceInfo, DoesNotDependOnAnythingButHostAndPort) {
    EXPECT_EQ(ServiceInfo("a", "host", 80, "/p/", ServiceVersion("1")).getKey(),
              ServiceInfo("b", "host", 80).getKey());
}

TEST(TheKeyOfAServiceInfo, TellsPortsAndHostsApart) {
    EXPECT_NE(keyOf("host", 80), keyOf("host", 81));
    EXPECT_NE(keyOf("host"), keyOf("hosts"));
    EXPECT_NE(keyOf("::1", 80), keyOf("::1:80", 80));
}

}  // namespace
}  // namespace orvx::common
