// The panel's server at its limits, over plain sockets in real time: the state it shows, a command
// it runs, and what it does with connections that hold a place or send too much. The page itself
// is tried in a browser (tests/browser/panel.test.mjs).
#include "sim/Panel.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

#include "sim/Simulator.h"
#include "tests/support/TempDirs.h"

namespace sim {
namespace {

// A connection to the panel; reads wait at most 10 s, so that a server that never answers fails
// the test instead of holding it.
class Client {
 public:
  explicit Client(std::uint16_t port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    timeval wait{.tv_sec = 10, .tv_usec = 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = ::connect(fd_, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
  }
  ~Client() { ::close(fd_); }
  bool Connected() const { return connected_; }
  void Send(const std::string& bytes) {
    ASSERT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  // Everything until the server closes (or 10 s pass): an answer of Connection: close, or none.
  std::string ReadToEnd() {
    std::string all;
    char chunk[4096];
    for (ssize_t n; (n = ::recv(fd_, chunk, sizeof chunk, 0)) > 0;)
      all.append(chunk, static_cast<std::size_t>(n));
    return all;
  }

 private:
  int fd_;
  bool connected_ = false;
};

class PanelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(sim_.Start());
    ASSERT_TRUE(panel_.Start(0));
  }
  std::string Host() const { return "127.0.0.1:" + std::to_string(panel_.Port()); }
  std::string Ask(const std::string& method, const std::string& path,
                  const std::string& body = "") {
    Client c(panel_.Port());
    c.Send(method + " " + path + "?token=" + panel_.Token() + " HTTP/1.1\r\nHost: " + Host() +
           "\r\nOrigin: http://" + Host() + "\r\nConnection: close\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body);
    return c.ReadToEnd();
  }
  static std::string Body(const std::string& response) {
    const auto at = response.find("\r\n\r\n");
    return at == std::string::npos ? std::string() : response.substr(at + 4);
  }

  testing_support::ScratchDir dir_;
  Simulator sim_{{.profile = "servo", .deviceDir = dir_.Path()}};
  Panel panel_{sim_, {.maxConnections = 3, .requestTime = std::chrono::milliseconds(300)}};
};

TEST_F(PanelTest, TheStateIsWhatTheBoardSeesAndACommandChangesIt) {
  const std::string answer = Ask("POST", "/command", "place x 20");
  EXPECT_EQ(answer.rfind("HTTP/1.1 200", 0), 0u) << answer;
  EXPECT_EQ(nlohmann::json::parse(Body(answer))["answer"].get<std::string>().rfind("ok axis=x", 0),
            0u);
  const nlohmann::json state = nlohmann::json::parse(Body(Ask("GET", "/state")));
  EXPECT_EQ(state["profile"]["name"], "servo");
  ASSERT_EQ(state["machine"]["axes"].size(), 4u);
  EXPECT_DOUBLE_EQ(state["machine"]["axes"][0]["pos"].get<double>(), 20.0);
  EXPECT_EQ(state["machine"]["axes"][0]["counts"], 40000);
  EXPECT_EQ(state["buttons"][0], 3) << "b1 of the first pendant is input 3";
  EXPECT_EQ(state["link"]["plugged"], true);
  const std::string page = Ask("GET", "/");
  EXPECT_NE(page.find("panel.js?token=" + panel_.Token()), std::string::npos) << "handed on";
  EXPECT_NE(page.find("Content-Security-Policy: default-src 'self'"), std::string::npos);
}

// One place more than the cap is closed at once; an idle connection gives its place up after the
// request time; a command longer than the limit is not run.
TEST_F(PanelTest, ConnectionsAreCappedIdleOnesEndAndOversizedCommandsAreNotRun) {
  std::vector<std::unique_ptr<Client>> idle;
  for (int i = 0; i < 3; ++i) {
    idle.push_back(std::make_unique<Client>(panel_.Port()));
    ASSERT_TRUE(idle.back()->Connected());
  }
  Client extra(panel_.Port());
  extra.Send("GET /state?token=" + panel_.Token() + " HTTP/1.1\r\nHost: " + Host() + "\r\n\r\n");
  EXPECT_EQ(extra.ReadToEnd(), "") << "closed without an answer";
  EXPECT_EQ(idle[0]->ReadToEnd(), "") << "the request time ran out";
  idle.clear();

  const std::string longLine = "diag \"" + std::string(5000, 'a') + "\"";
  const std::string answer = Ask("POST", "/command", longLine);
  EXPECT_EQ(answer.find("200 OK"), std::string::npos) << answer.substr(0, 40);
  EXPECT_EQ(sim_.Status().pendingDiagBytes, 0u);
  EXPECT_EQ(Ask("GET", "/state").rfind("HTTP/1.1 200", 0), 0u) << "and the panel serves on";
}

}  // namespace
}  // namespace sim
