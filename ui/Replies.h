// How a route's answer is held between the route and the connection that sends it: a quick
// answer whole (BufferReply), a long one a chunk at a time from a worker thread of its own
// (LongAnswer, written through WorkerReply), and the workers themselves, counted for the cap and
// joined when they end. Nothing here knows sockets: the connection says how it is woken (`pump`)
// and takes the chunks from the LongAnswer on its own thread.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "platform/Clock.h"
#include "ui/HttpApi.h"

namespace ui {

// Chunks the worker may have queued before its Write waits, and the size up to which small
// writes are gathered into one chunk: a few hundred KB per answer at most.
inline constexpr std::size_t kQueuedChunks = 8;
inline constexpr std::size_t kChunkBytes = 32 * 1024;
// A quick answer is held whole; the routes' quick answers are a few KB.
inline constexpr std::size_t kQuickAnswerLimit = 4 * 1024 * 1024;

// A quick answer, held whole until the route returns; writes past kQuickAnswerLimit fail.
struct BufferReply final : public HttpReply {
  void Head(int status, std::string_view type, std::string_view attachment) override;
  bool Write(std::string_view chunk) override;

  bool headed = false;
  int status = 200;
  std::string type = "application/json";
  std::string attachment;
  std::string body;
};

// A long answer between the worker that writes it and the connection that sends it. Every field
// is guarded by `mutex`.
struct LongAnswer {
  explicit LongAnswer(platform::Clock& c) : clock(c) {}
  platform::Clock& clock;  // the worker waits on it for room in the queue
  std::mutex mutex;
  // The head, as the route set it (or the default when it wrote without one).
  int status = 200;
  std::string type = "application/json";
  std::string attachment;
  bool headed = false;
  std::deque<std::string> chunks;  // written by the route, not yet taken by the connection
  bool finished = false;           // the route returned
  bool closed = false;             // the connection went or the server stops: writes fail
  bool pumpPosted = false;
  std::function<void()> pump;  // wakes the connection on its own thread

  // Asks the connection to take what is new, once until it has looked (with `mutex` held).
  void Kick();
  // Every write fails from now on, and a worker waiting for room wakes.
  void Close();
};

// The long answers' workers: counted for the cap, joined when they end and at Stop.
class Workers {
 public:
  explicit Workers(std::size_t cap) : cap_(cap) {}
  ~Workers() { Stop(); }
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;

  // Starts `api->Answer` on a thread of its own, or returns null at the cap (or after Stop).
  // `pump` wakes the connection whenever the answer has something new for it.
  std::shared_ptr<LongAnswer> Start(std::shared_ptr<HttpApi> api, std::string path,
                                    std::string query, std::function<void()> pump);

  // Every answer's writes fail from now on; returns when every worker has ended.
  void Stop();

 private:
  struct Worker {
    std::thread thread;
    std::shared_ptr<LongAnswer> answer;
    bool done;
  };

  // A worker marked done has returned from all it does; its join is immediate.
  void ReapLocked();

  const std::size_t cap_;
  std::mutex mutex_;
  std::list<Worker> running_;
  bool stopped_ = false;
};

}  // namespace ui
