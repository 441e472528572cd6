// A board whose answers a test writes by hand: it serves one device entry (one connection at a
// time: a second waits until the first closes), records every request and answers each through a
// handler. Its thread is a participant of the current clock, so it runs in virtual time.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/TempDirs.h"

namespace testing_support {

struct BoardRequest {
  std::uint32_t code = 0;
  std::uint32_t replyLength = 0;
  std::vector<std::uint8_t> bytes;
};

struct BoardAnswer {
  std::uint32_t status = 0;
  std::vector<std::uint8_t> bytes;
  bool noReply = false;       // swallow the request
  bool hangUp = false;        // close the connection instead of answering
  std::uint32_t count = ~0u;  // bytesReturned to claim (the driver word for link-opened)
};

class ScriptedBoard {
 public:
  using Handler = std::function<BoardAnswer(const BoardRequest&)>;

  // Serves at `path` (its folder is made). Link-opened is always answered with `driverWord`;
  // commands go to the handler, and without one get `replyLength` zero bytes.
  explicit ScriptedBoard(std::string path, std::uint32_t driverWord = 0x02040000);
  ~ScriptedBoard();

  void SetHandler(Handler handler);
  std::vector<BoardRequest> Requests();
  // Requests other than link-opened.
  std::vector<BoardRequest> Commands();
  void ClearRequests();

 private:
  void Serve();
  bool ServeConnection(int fd);

  std::string path_;
  std::uint32_t driverWord_;
  int listener_ = -1;
  int stopFds_[2] = {-1, -1};
  int connection_ = -1;
  std::mutex mutex_;
  Handler handler_;
  std::vector<BoardRequest> requests_;
  std::thread thread_;
};

}  // namespace testing_support
