// The routes a program adds beside the window's files, over real loopback sockets: who may ask,
// how quick and long answers travel, that a closed download stops the work, and the cap on long
// answers.
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <atomic>

#include "tests/ui/UiFixture.h"
#include "tests/ui/WsClient.h"
#include "ui/WebServer.h"

namespace testing_support {
namespace {

// Routes that show what the server does with them. Waits go through the test's clock.
class FakeApi : public ui::HttpApi {
 public:
  explicit FakeApi(platform::Clock& clock) : clock_(clock) {}

  ui::HttpRoute Route(std::string_view path) const override {
    if (path == "/echo" || path == "/bad") return ui::HttpRoute::kQuick;
    if (path == "/long" || path == "/endless" || path == "/held" || path == "/file") {
      return ui::HttpRoute::kLong;
    }
    return ui::HttpRoute::kNone;
  }

  void Answer(std::string_view path, std::string_view query, ui::HttpReply& reply) override {
    if (path == "/echo") {
      reply.Write("[\"");
      reply.Write(query);
      reply.Write("\"]");
    } else if (path == "/bad") {
      reply.Head(400, "text/plain");
      reply.Write("bad time\n");
    } else if (path == "/long") {
      for (int i = 0; i < kLongLines; ++i) {
        if (!reply.Write(Line(i))) return;
      }
    } else if (path == "/file") {
      reply.Head(200, "text/csv", "A\"x\r\nSet-Cookie: y.csv");
      reply.Write("time,bias\n");
    } else if (path == "/endless") {
      const std::string chunk(64 * 1024, 'e');
      while (reply.Write(chunk))
        ++endlessChunks;
      Bump(stopped);
    } else if (path == "/held") {
      Bump(entered);
      std::unique_lock lock(mutex_);
      clock_.WaitUntil(lock, platform::kNever, [&] { return released; });
      lock.unlock();
      reply.Write("held\n");
    }
  }

  static std::string Line(int i) {
    return "line " + std::to_string(i) + std::string(500, '.') + "\n";
  }
  static constexpr int kLongLines = 2000;  // 1 MB: many chunks

  void Bump(int& counter) {
    {
      std::lock_guard lock(mutex_);
      ++counter;
    }
    clock_.NotifyAll();
  }
  void WaitFor(const int& counter, int value) {
    std::unique_lock lock(mutex_);
    clock_.WaitUntil(lock, platform::kNever, [&] { return counter >= value; });
  }
  void Release() {
    {
      std::lock_guard lock(mutex_);
      released = true;
    }
    clock_.NotifyAll();
  }

  std::mutex mutex_;
  int entered = 0;
  int stopped = 0;
  bool released = false;
  std::atomic<int> endlessChunks = 0;

 private:
  platform::Clock& clock_;
};

// The body of a chunked response; `ok` false when the chunks are malformed or the last is missing.
std::string Dechunk(const std::string& response, bool& ok) {
  ok = false;
  std::size_t at = response.find("\r\n\r\n");
  if (at == std::string::npos) return {};
  at += 4;
  std::string body;
  while (true) {
    const std::size_t eol = response.find("\r\n", at);
    if (eol == std::string::npos) return body;
    const std::size_t size = std::stoul(response.substr(at, eol - at), nullptr, 16);
    if (size == 0) {
      ok = true;
      return body;
    }
    if (eol + 2 + size + 2 > response.size()) return body;
    body += response.substr(eol + 2, size);
    at = eol + 2 + size + 2;
  }
}

std::string HeadOf(const std::string& response) {
  return response.substr(0, response.find("\r\n\r\n"));
}

class WebServerRoutesTest : public WindowFixture {
 protected:
  WebServerRoutesTest() {
    server.SetApi(api);
    started = server.Start(0);
  }
  ~WebServerRoutesTest() override { server.Stop(); }

  std::string Request(const std::string& target, const std::string& method = "GET",
                      const std::string& version = "1.1") {
    return method + " " + target + " HTTP/" + version +
           "\r\nHost: 127.0.0.1:" + std::to_string(server.Port()) + "\r\nConnection: close\r\n\r\n";
  }
  std::string Fetch(const std::string& target, const std::string& method = "GET",
                    const std::string& version = "1.1") {
    return HttpExchange(server.Port(), Request(target, method, version));
  }
  std::string T() const { return "token=" + server.Token(); }

  std::shared_ptr<FakeApi> api = std::make_shared<FakeApi>(clock);
  ui::WebServer server{window, {&ui::ShellResources()}};
  bool started = false;
};

TEST_F(WebServerRoutesTest, RoutesAreAskedAsFilesAre) {
  ASSERT_TRUE(started);
  struct Case {
    std::string method, target;
    int status;
    std::string body;  // a quick answer's whole body, when given
  };
  const std::string t = T();
  const Case cases[] = {
      {"GET", "/echo", 403, ""},
      {"GET", "/long", 403, ""},
      {"GET", "/echo?token=" + std::string(64, '0'), 403, ""},
      {"GET", "/echo?" + t + "&from=-60", 200, "[\"" + t + "&from=-60\"]"},
      {"GET", "/echo?from=1&" + t, 200, "[\"from=1&" + t + "\"]"},
      {"HEAD", "/echo?" + t, 405, ""},
      {"HEAD", "/long?" + t, 405, ""},
      {"POST", "/echo?" + t, 405, ""},
      {"GET", "/bad?" + t, 400, "bad time\n"},
      {"GET", "/%62ad?" + t, 400, "bad time\n"},  // the decoded path is the route
      {"GET", "/../echo?" + t, 404, ""},
      {"GET", "/shell.css?" + t, 200, ""},  // files are still served
  };
  for (const Case& c : cases) {
    const std::string response = Fetch(c.target, c.method);
    EXPECT_EQ(StatusOf(response), c.status) << c.method << " " << c.target;
    if (!c.body.empty()) {
      EXPECT_EQ(response.substr(response.find("\r\n\r\n") + 4), c.body) << c.target;
    }
  }
  // Without an api the paths are no one's.
  server.SetApi(nullptr);
  EXPECT_EQ(StatusOf(Fetch("/echo?" + t)), 404);
}

TEST_F(WebServerRoutesTest, ALongAnswerArrivesWholeInChunks) {
  ASSERT_TRUE(started);
  std::string expected;
  for (int i = 0; i < FakeApi::kLongLines; ++i)
    expected += FakeApi::Line(i);

  const std::string response = Fetch("/long?" + T());
  EXPECT_EQ(StatusOf(response), 200);
  EXPECT_NE(HeadOf(response).find("Transfer-Encoding: chunked"), std::string::npos);
  EXPECT_NE(HeadOf(response).find("Content-Type: application/json"), std::string::npos);
  bool ok = false;
  EXPECT_EQ(Dechunk(response, ok), expected);
  EXPECT_TRUE(ok);

  // HTTP/1.0 knows no chunks: the bytes as they are, ended by the close.
  const std::string old = Fetch("/long?" + T(), "GET", "1.0");
  EXPECT_EQ(old.substr(0, 15), "HTTP/1.0 200 OK");
  EXPECT_EQ(old.substr(old.find("\r\n\r\n") + 4), expected);

  // A download's name cannot break out of its header.
  const std::string file = Fetch("/file?" + T());
  EXPECT_NE(
      HeadOf(file).find("Content-Disposition: attachment; filename=\"A_x__Set-Cookie__y.csv\""),
      std::string::npos)
      << HeadOf(file);
  EXPECT_EQ(HeadOf(file).find("Set-Cookie:"), std::string::npos);
  EXPECT_NE(HeadOf(file).find("Content-Type: text/csv"), std::string::npos);
  EXPECT_EQ(Dechunk(file, ok), "time,bias\n");
}

TEST_F(WebServerRoutesTest, AClosedDownloadStopsTheRoute) {
  ASSERT_TRUE(started);
  const int fd = ConnectLoopback(server.Port(), 16 * 1024);
  ASSERT_GE(fd, 0);
  const std::string request = Request("/endless?" + T());
  ASSERT_EQ(::send(fd, request.data(), request.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(request.size()));
  char head[64];
  ASSERT_EQ(clock.WaitReadable(fd, platform::kNever), 1);
  ASSERT_GT(::recv(fd, head, sizeof head, 0), 0);
  ::close(fd);
  api->WaitFor(api->stopped, 1);
  // It stopped within what the queue and the sockets' buffers hold, not at some far end.
  EXPECT_LT(api->endlessChunks.load(), 200);
}

TEST_F(WebServerRoutesTest, StopEndsALongAnswerThatNoOneReads) {
  ASSERT_TRUE(started);
  const int fd = ConnectLoopback(server.Port(), 16 * 1024);
  ASSERT_GE(fd, 0);
  const std::string request = Request("/endless?" + T());
  ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
  ASSERT_EQ(clock.WaitReadable(fd, platform::kNever), 1);
  server.Stop();  // returns only once the worker has ended
  EXPECT_EQ(api->stopped, 1);
  ::close(fd);
}

TEST_F(WebServerRoutesTest, BeyondTheCapOfLongAnswersOneMoreIsRefusedUntilOneEnds) {
  ASSERT_TRUE(started);
  const std::string request = Request("/held?" + T());
  std::vector<int> held;
  for (int i = 0; i < 4; ++i) {
    held.push_back(ConnectLoopback(server.Port()));
    ASSERT_GE(held.back(), 0);
    ::send(held.back(), request.data(), request.size(), MSG_NOSIGNAL);
  }
  api->WaitFor(api->entered, 4);
  // Quick routes and files are not long answers.
  EXPECT_EQ(StatusOf(Fetch("/echo?" + T())), 200);
  const std::string refused = Fetch("/held?" + T());
  EXPECT_EQ(StatusOf(refused), 503);
  EXPECT_EQ(api->entered, 4);

  api->Release();
  for (const int fd : held) {
    bool ok = false;
    EXPECT_EQ(Dechunk(HttpExchangeOn(fd, ""), ok), "held\n");
  }
  // Ended answers make room again.
  EXPECT_EQ(StatusOf(Fetch("/held?" + T())), 200);
}

}  // namespace
}  // namespace testing_support
