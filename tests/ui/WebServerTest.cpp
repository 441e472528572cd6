// The server over real loopback sockets: who gets in, what is served, and what a hostile
// browser's frames cost.
#include "ui/WebServer.h"

#include <cstdlib>

#include <gtest/gtest.h>

#include "tests/ui/UiFixture.h"
#include "tests/ui/WsClient.h"
#include "ui/Protocol.h"

namespace ui {
const ResourceTable& DemoResources();
}

namespace testing_support {
namespace {

class WebServerTest : public WindowFixture {
 protected:
  WebServerTest() { started = server.Start(0); }
  ~WebServerTest() override { server.Stop(); }

  int Get(const std::string& target, const std::string& extra = "", const std::string& host = "") {
    return StatusOf(Fetch(target, extra, host));
  }
  std::string Fetch(const std::string& target, const std::string& extra, std::string host = "") {
    if (host.empty()) host = Host();
    return HttpExchange(server.Port(), "GET " + target + " HTTP/1.1\r\nHost: " + host + "\r\n" +
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
  EXPECT_EQ(server.Token().size(), 64u);
  EXPECT_EQ(Get("/"), 403);
  EXPECT_EQ(Get("/shell.js"), 403);
  EXPECT_EQ(Get("/?token=" + std::string(64, '0')), 403);
  EXPECT_EQ(Get("/?token="), 403);

  const std::string shell = Fetch("/?" + Token(), "");
  EXPECT_EQ(StatusOf(shell), 200);
  EXPECT_NE(shell.find("id=\"tabs\""), std::string::npos);
  // Never a cookie: cookies ignore the port, so other local web services would receive it.
  EXPECT_EQ(shell.find("Set-Cookie"), std::string::npos);
  const std::string cookie = "tavro_" + std::to_string(server.Port()) + "=" + server.Token();
  EXPECT_EQ(Get("/pages/demo_a.html", "Cookie: " + cookie + "\r\n"), 403);
  // What the shell and the documents load by their own URLs carries the token instead.
  EXPECT_NE(shell.find("href=\"shell.css?" + Token() + "\""), std::string::npos);
  EXPECT_NE(shell.find("src=\"shell.js?" + Token() + "\""), std::string::npos);
  const std::string page = Fetch("/pages/demo_a.html?" + Token(), "");
  EXPECT_NE(page.find("href=\"/page.css?" + Token() + "\""), std::string::npos);
  EXPECT_EQ(Get("/page.css?" + Token()), 200);
  // The token does not help a page that reached us under another name.
  EXPECT_EQ(Get("/?" + Token(), "", "tavro.example:80"), 403);
}

TEST_F(WebServerTest, PathsThatLeaveTheServedFilesAreRefused) {
  for (const std::string path :
       {"/../CMakeLists.txt", "/%2e%2e/%2e%2e/etc/passwd", "/pages/..%2fshell.html",
        "/pages/../shell.html", "//shell.html", "/./shell.html", "/shell.html%00.js",
        "/pages\\..\\shell.html", "/%zz", "/pages/", "/no-such-file.html"}) {
    const std::string response = Fetch(path + "?" + Token(), "");
    EXPECT_EQ(StatusOf(response), 404) << path;
    EXPECT_EQ(response.find("<!DOCTYPE"), std::string::npos) << path;
  }
  EXPECT_EQ(Get("/shell.css?" + Token()), 200);
}

TEST_F(WebServerTest, AWebSocketNeedsTheTokenAndOurOwnOriginAndHost) {
  struct Case {
    std::string target, origin, host;
  };
  for (const Case& c : {Case{"/ws?" + Token(), "http://evil.example", ""},
                        Case{"/ws?" + Token(), "http://127.0.0.1:1", ""},
                        Case{"/ws?" + Token(), Origin(), "tavro.example:80"},
                        Case{"/ws", Origin(), ""}, Case{"/other?" + Token(), Origin(), ""}}) {
    WsClient refused;
    EXPECT_EQ(refused.Open(server.Port(), c.target, c.origin, c.host), 403)
        << c.target << " " << c.origin << " " << c.host;
  }
  WsClient local;
  ASSERT_EQ(local.Open(server.Port(), "/ws?" + Token(),
                       "http://localhost:" + std::to_string(server.Port())),
            101);
  EXPECT_TRUE(local.ReceiveContaining(R"("t":"tabs")"));
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
  std::mutex m;
  std::unique_lock lock(m);
  clock.WaitUntil(lock, platform::kNever, [&] { return log.Messages().size() == 2; });
  WsClient again;
  ASSERT_EQ(again.Open(server.Port(), "/ws?" + Token(), Origin()), 101);
  again.SendText(R"({"t":"event","page":0,"id":"Go","kind":"click"})");
  EXPECT_TRUE(again.ReceiveContaining(R"("v":"2")"));
  EXPECT_EQ(log.Messages().size(), 2u);
}

TEST_F(WebServerTest, AHeaderAboveTheLimitIsAnsweredWith431BeforeTheClose) {
  struct Case {
    std::size_t bytes;
    int status;
  };
  for (const Case c : {Case{6 * 1024, 200}, Case{9 * 1024, 431}, Case{60 * 1024, 431}}) {
    const std::string response =
        Fetch("/?" + Token(), "X-Padding: " + std::string(c.bytes, 'a') + "\r\n");
    EXPECT_EQ(StatusOf(response), c.status) << c.bytes;
  }
  EXPECT_EQ(Get("/?" + Token()), 200) << "the server goes on";
}

// The first text message a client receives.
std::optional<std::string> FirstMessage(WsClient& client) {
  return client.ReceiveContaining("\"t\"");
}

TEST_F(WebServerTest, TheGoodbyeReachesEveryBrowserAndOneThatComesLaterGetsNothingElse) {
  WsClient a;
  WsClient b;
  ASSERT_EQ(a.Open(server.Port(), "/ws?" + Token(), Origin()), 101);
  ASSERT_EQ(b.Open(server.Port(), "/ws?" + Token(), Origin()), 101);
  ASSERT_TRUE(a.ReceiveContaining(R"("t":"tabs")"));
  ASSERT_TRUE(b.ReceiveContaining(R"("t":"tabs")"));
  // No wait here: the goodbye goes out on the server's own thread whatever the caller does.
  server.SayGoodbye(ui::protocol::EncodeGoodbye("no-board", "/run/hnusb"),
                    std::chrono::milliseconds(0));
  for (WsClient* client : {&a, &b}) {
    const auto bye = client->ReceiveContaining(R"("t":"bye")");
    ASSERT_TRUE(bye);
    const json m = json::parse(*bye);
    EXPECT_EQ(m["reason"], "no-board");
    EXPECT_EQ(m["folder"], "/run/hnusb");
    EXPECT_FALSE(client->ReceiveContaining("\"t\"")) << "the connection closes after it";
  }
  WsClient late;
  ASSERT_EQ(late.Open(server.Port(), "/ws?" + Token(), Origin()), 101);
  const auto opening = FirstMessage(late);
  ASSERT_TRUE(opening);
  EXPECT_NE(opening->find(R"("t":"bye")"), std::string::npos) << *opening;
  EXPECT_FALSE(FirstMessage(late));
}

TEST_F(WebServerTest, ATakenPortIsPassedOverForTheNextFreeOne) {
  ui::WebServer other(window, {&ui::ShellResources()});
  ASSERT_TRUE(other.Start(server.Port()));
  EXPECT_GT(other.Port(), server.Port());
  EXPECT_LE(other.Port(), server.Port() + 100);
  other.Stop();
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
