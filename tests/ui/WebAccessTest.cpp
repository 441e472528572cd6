// The server's checks without a server: the token put into what a page loads, and a download's
// name in its header. The socket tests cover the rest through real requests.
#include "ui/WebAccess.h"

#include <gtest/gtest.h>

namespace ui {
namespace {

TEST(WebAccess, TheTokenGoesIntoEveryRelativeAddressAndNoOther) {
  const struct {
    const char* html;
    const char* served;
  } cases[] = {
      {R"(<link href="a.css">)", R"(<link href="a.css?token=T">)"},
      {R"(<a href="p.html?x=1#top">)", R"(<a href="p.html?x=1&token=T#top">)"},
      {"<img\nsrc=\"/i.png\">", "<img\nsrc=\"/i.png?token=T\">"},
      {R"(<a href="#top"> <a href="http://x/"> <a href="//x/y"> <a href="">)",
       R"(<a href="#top"> <a href="http://x/"> <a href="//x/y"> <a href="">)"},
      {R"(<a data-href="x.html"> <a href="x.html)", R"(<a data-href="x.html"> <a href="x.html)"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(WithToken(c.html, "T"), c.served) << c.html;
}

TEST(WebAccess, ADownloadNameHoldsOnlyPlainCharacters) {
  EXPECT_EQ(SafeFileName("AxisTest_X_0.csv"), "AxisTest_X_0.csv");
  EXPECT_EQ(SafeFileName("a\"\r\nSet-Cookie: b/../c"), "a___Set-Cookie__b_.._c");
  EXPECT_EQ(SafeFileName(std::string(200, 'x')).size(), 128u);
}

TEST(WebAccess, HostsAndOriginsAreThisServersOnly) {
  EXPECT_TRUE(HostAllowed("127.0.0.1:7570", 7570));
  EXPECT_TRUE(HostAllowed("localhost:7570", 7570));
  EXPECT_FALSE(HostAllowed("localhost:7571", 7570));
  EXPECT_FALSE(HostAllowed("127.0.0.1.evil:7570", 7570));
  EXPECT_TRUE(OriginAllowed("http://localhost:7570", 7570));
  EXPECT_FALSE(OriginAllowed("https://localhost:7570", 7570));
  EXPECT_FALSE(OriginAllowed("localhost:7570", 7570));
}

}  // namespace
}  // namespace ui
