#include "OAuthSupport.hpp"

#include <gtest/gtest.h>

#include <boost/json/serialize.hpp>

namespace vantor::account::detail {
namespace {

TEST(OAuthSupportTest, Base64UrlRoundTripsEveryLengthAndRejectsForeignCharacters) {
  std::string bytes;
  for (int i = 0; i < 40; ++i) {
    auto encoded = base64UrlEncode(bytes);
    EXPECT_EQ(encoded.find_first_of("+/="), std::string::npos);
    EXPECT_EQ(base64UrlDecode(encoded), bytes);
    bytes += static_cast<char>(i * 37 + 250);
  }
  EXPECT_EQ(base64Encode("\xfb\xff"), "+/8=");
  EXPECT_EQ(base64UrlEncode("\xfb\xff"), "-_8");
  EXPECT_EQ(base64UrlDecode("-_8="), "\xfb\xff");
  EXPECT_EQ(base64UrlDecode("+/8"), std::nullopt);
  EXPECT_EQ(base64UrlDecode("abcde"), std::nullopt);
}

TEST(OAuthSupportTest, FormEncodingEscapesEverythingButUnreservedCharacters) {
  EXPECT_EQ(formEncode({{"grant_type", "authorization_code"}, {"code", "a b+c&d=e/é"}}),
            "grant_type=authorization_code&code=a+b%2Bc%26d%3De%2F%C3%A9");
  EXPECT_EQ(formEncodeComponent("id:with~colon"), "id%3Awith%7Ecolon");
}

TEST(OAuthSupportTest, OnlyLoopbackHostsCountAsLoopback) {
  EXPECT_TRUE(isLoopbackURL("http://127.3.2.1/token"));
  EXPECT_TRUE(isLoopbackURL("http://[::1]:9000/"));
  EXPECT_TRUE(isLoopbackURL("http://LocalHost/"));
  EXPECT_FALSE(isLoopbackURL("http://128.0.0.1/"));
  EXPECT_FALSE(isLoopbackURL("http://localhost.example.test/"));
  EXPECT_FALSE(isLoopbackURL("http://127.0.0.1.example.test/"));
}

TEST(OAuthSupportTest, JwtClaimsNeedThreePartsAndAnObject) {
  EXPECT_EQ(jwtClaims("only.two"), std::nullopt);
  EXPECT_EQ(jwtClaims("a." + base64UrlEncode("[1]") + ".b"), std::nullopt);
}

}  // namespace
}  // namespace vantor::account::detail
