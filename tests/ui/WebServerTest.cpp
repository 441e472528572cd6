// The server over real loopback sockets: who gets in, what is served, and what a hostile
// browser's frames cost.
#include "ui/WebServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/ui/UiFixture.h"
#include "tests/ui/WsClient.h"

namespace ui {
const ResourceTable& DemoResources();
}

namespace testing_support {
namespace {

class WebServerTest : public WindowFixture {
 protected:
  WebServerTest() { started = server.Start(0); }
  ~WebServerTest() override { server.Stop(); }

  std::string Get(const std::string& target, const std::string& extra = "") {
    return HttpExchange(server.Port(), "GET " + target + " HTTP/1.1\r\nHost: " + Host() + "\r\n" +
                                           extra + "Connection: close\r\n\r\n");
  }
  std::string Host() const { return "127.0.0.1:" + std::to_string(server.Port()); }
  std::string Origin() const { return "http://" + Host(); }
  std::string Token() const { return "token=" + server.Token(); }

  ui::WebServer server{window, {&ui::ShellResources(), &ui::DemoResources()}};
  bool started = false;
};

TEST_F(WebServerTest, EveryRequestNeedsTheTokenOfThisRun) {
  ASSERT_TRUE(started);
  EXPECT_EQ(server.Url(),
            "http://127.0.0.1:" + std::to_string(server.Port()) + "/?token=" + server.Token());
  EXPECT_EQ(server.Token().size(), 64u);

  EXPECT_EQ(StatusOf(Get("/")), 403);
  EXPECT_EQ(StatusOf(Get("/shell.js")), 403);
  EXPECT_EQ(StatusOf(Get("/?token=" + std::string(64, '0'))), 403);
  EXPECT_EQ(StatusOf(Get("/?token=")), 403);

  const std::string shell = Get("/?" + Token());
  EXPECT_EQ(StatusOf(shell), 200);
  EXPECT_NE(shell.find("id=\"tabs\""), std::string::npos);
  const std::string cookie = "tavro_" + std::to_string(server.Port()) + "=" + server.Token();
  EXPECT_NE(shell.find("Set-Cookie: " + cookie + "; Path=/; HttpOnly; SameSite=Strict"),
            std::string::npos);
  // What the shell loads by relative URL carries the token as its cookie.
  EXPECT_EQ(StatusOf(Get("/pages/demo_a.html", "Cookie: other=1; " + cookie + "\r\n")), 200);
  EXPECT_EQ(StatusOf(Get("/shell.js", "Cookie: tavro_1=" + server.Token() + "\r\n")), 403);
}

TEST_F(WebServerTest, AForeignHostHeaderIsRefused) {
  const std::string response =
      HttpExchange(server.Port(), "GET /?" + Token() +
                                      " HTTP/1.1\r\nHost: tavro.example:80\r\nConnection: "
                                      "close\r\n\r\n");
  EXPECT_EQ(StatusOf(response), 403);
}

TEST_F(WebServerTest, PathsThatLeaveTheServedFilesAreRefused) {
  for (const std::string path :
       {"/../CMakeLists.txt", "/%2e%2e/%2e%2e/etc/passwd", "/pages/..%2fshell.html",
        "/pages/../shell.html", "//shell.html", "/./shell.html", "/shell.html%00.js",
        "/pages\\..\\shell.html", "/%zz", "/pages/", "/no-such-file.html"}) {
    const std::string response = Get(path + "?" + Token());
    EXPECT_EQ(StatusOf(response), 404) << path;
    EXPECT_EQ(response.find("<!DOCTYPE"), std::string::npos) << path;
  }
  EXPECT_EQ(StatusOf(Get("/shell.css?" + Token())), 200);
}

TEST_F(WebServerTest, AWebSocketNeedsTheTokenAndOurOwnOrigin) {
  {
    WsClient foreign;
    EXPECT_EQ(foreign.Open(server.Port(), "/ws?" + Token(), "http://evil.example"), 403);
  }
  {
    WsClient otherPort;
    EXPECT_EQ(otherPort.Open(server.Port(), "/ws?" + Token(), "http://127.0.0.1:1"), 403);
  }
  {
    WsClient noToken;
    EXPECT_EQ(noToken.Open(server.Port(), "/ws", Origin()), 403);
  }
  {
    WsClient wrongPath;
    EXPECT_EQ(wrongPath.Open(server.Port(), "/other?" + Token(), Origin()), 403);
  }
  WsClient local;
  ASSERT_EQ(local.Open(server.Port(), "/ws?" + Token(),
                       "http://localhost:" + std::to_string(server.Port())),
            101);
  const auto tabs = local.Receive();
  ASSERT_TRUE(tabs);
  EXPECT_EQ(json::parse(*tabs)["t"], "tabs");
}

TEST_F(WebServerTest, EventsTravelTheSocketAndBadFramesCostALogLineNotTheServer) {
  int clicks = 0;
  first.Events().OnClick("Go", [&](const ui::Event&) {
    ++clicks;
    first.Doc().SetText("Clicks", std::to_string(clicks));
  });
  WsClient browser;
  ASSERT_EQ(browser.Open(server.Port(), "/ws?" + Token(), Origin()), 101);
  browser.SendText("{not json");
  browser.SendText(R"({"t":"event","page":0,"id":"Go","kind":"click"})");
  const auto reply = browser.ReceiveContaining("Clicks");
  ASSERT_TRUE(reply);
  EXPECT_EQ(json::parse(*reply)["el"]["Clicks"]["v"], "1");
  EXPECT_EQ(log.Messages().size(), 1u);

  // Above the limit the server hangs up on that browser; others go on.
  browser.SendText(std::string(ui::Window::kMaxMessage + 1, 'x'));
  EXPECT_FALSE(browser.ReceiveContaining("never sent"));
  Await([&] { return log.Messages().size() == 2; });
  WsClient again;
  ASSERT_EQ(again.Open(server.Port(), "/ws?" + Token(), Origin()), 101);
  again.SendText(R"({"t":"event","page":0,"id":"Go","kind":"click"})");
  EXPECT_TRUE(again.ReceiveContaining(R"("v":"2")"));
  EXPECT_EQ(log.Messages().size(), 2u);
}

TEST_F(WebServerTest, ATakenPortIsPassedOverForTheNextFreeOne) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(::listen(fd, 1), 0);
  socklen_t len = sizeof addr;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  const std::uint16_t taken = ntohs(addr.sin_port);

  ui::WebServer other(window, {&ui::ShellResources()});
  ASSERT_TRUE(other.Start(taken));
  EXPECT_GT(other.Port(), taken);
  EXPECT_LE(other.Port(), taken + 100);
  other.Stop();
  ::close(fd);
}

TEST(DefaultPortTest, ComesFromTheEnvironmentWhenItHoldsAPort) {
  ::unsetenv("TAVROTEST_PORT");
  EXPECT_EQ(ui::DefaultPort(), 7570);
  ::setenv("TAVROTEST_PORT", "8123", 1);
  EXPECT_EQ(ui::DefaultPort(), 8123);
  ::setenv("TAVROTEST_PORT", "80x", 1);
  EXPECT_EQ(ui::DefaultPort(), 7570);
  ::setenv("TAVROTEST_PORT", "70000", 1);
  EXPECT_EQ(ui::DefaultPort(), 7570);
  ::unsetenv("TAVROTEST_PORT");
}

}  // namespace
}  // namespace testing_support
