// Tests base64 texts and their bytes.

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "Base64.h"

namespace orvx::registry {
namespace {

TEST(Base64, DecodesWhatItHasEncoded) {
    std::string bytes;
    for (int i = 0; i < 300; ++i) {
        EXPECT_EQ(decode64(encode64(bytes)), bytes);
        bytes += static_cast<char>(i);
    }
    EXPECT_EQ(encode64(""), "");
    EXPECT_EQ(encode64("a"), "YQ==");
    EXPECT_EQ(encode64("ab\xff"), "YWL/");
}

TEST(Base64, RefusesTextsOfAnotherForm) {
    for (const std::string text :
         {"Y", "YQ", "YQ=", "Y===", "====", "=", "YQ==YQ==", "Y=Q=", " YQ==", "YQ==\n",
          "YQ\n=", "YWL_", "YW-L", "YQ= ", "YWJj ", "\xff\xff\xff\xff"}) {
        EXPECT_EQ(decode64(text), std::nullopt) << text;
    }
    EXPECT_EQ(decode64(std::string("YW\0j", 4)), std::nullopt);
}

}  // namespace
}  // namespace orvx::registry
