#include "ui/Replies.h"

#include <algorithm>
#include <system_error>

namespace ui {

namespace {

// The worker's side of a long answer.
class WorkerReply final : public HttpReply {
 public:
  explicit WorkerReply(LongAnswer& answer) : a_(answer) {}
  void Head(int status, std::string_view type, std::string_view attachment) override {
    std::lock_guard lock(a_.mutex);
    if (a_.headed) return;
    a_.headed = true;
    a_.status = status;
    a_.type = type;
    a_.attachment = attachment;
  }
  bool Write(std::string_view chunk) override {
    std::unique_lock lock(a_.mutex);
    a_.headed = true;
    if (!a_.chunks.empty() && a_.chunks.back().size() + chunk.size() <= kChunkBytes) {
      a_.chunks.back().append(chunk);
    } else {
      // No deadline of its own: a connection that takes nothing for its write limit is closed,
      // and that ends this wait.
      a_.clock.WaitUntil(lock, platform::kNever,
                         [&] { return a_.closed || a_.chunks.size() < kQueuedChunks; });
      if (a_.closed) return false;
      a_.chunks.emplace_back(chunk);
    }
    a_.Kick();
    return !a_.closed;
  }

 private:
  LongAnswer& a_;
};

}  // namespace

void BufferReply::Head(int s, std::string_view t, std::string_view a) {
  if (headed) return;
  headed = true;
  status = s;
  type = t;
  attachment = a;
}

bool BufferReply::Write(std::string_view chunk) {
  headed = true;
  if (body.size() + chunk.size() > kQuickAnswerLimit) return false;
  body.append(chunk);
  return true;
}

void LongAnswer::Kick() {
  if (pumpPosted || !pump) return;
  pumpPosted = true;
  pump();
}

void LongAnswer::Close() {
  {
    std::lock_guard lock(mutex);
    closed = true;
    pump = nullptr;
  }
  clock.NotifyAll();
}

std::shared_ptr<LongAnswer> Workers::Start(std::shared_ptr<HttpApi> api, std::string path,
                                           std::string query, std::function<void()> pump) {
  std::lock_guard lock(mutex_);
  ReapLocked();
  // An answer counts until its route has returned: the browser may ask again as soon as it has
  // the end, before its worker has quite gone.
  const std::size_t busy = std::count_if(running_.begin(), running_.end(), [](Worker& w) {
    std::lock_guard answerLock(w.answer->mutex);
    return !w.answer->finished;
  });
  if (stopped_ || busy >= cap_) return nullptr;
  auto answer = std::make_shared<LongAnswer>(platform::Clock::Current());
  answer->pump = std::move(pump);
  running_.push_back({{}, answer, false});
  Worker& worker = running_.back();
  bool* done = &worker.done;
  try {
    worker.thread = std::thread([this, done, answer, api = std::move(api), path = std::move(path),
                                 query = std::move(query)]() mutable {
      {
        WorkerReply reply(*answer);
        api->Answer(path, query, reply);
        api.reset();
      }
      {
        std::lock_guard answerLock(answer->mutex);
        answer->finished = true;
        answer->Kick();
        answer->pump = nullptr;
      }
      std::lock_guard doneLock(mutex_);
      *done = true;
    });
  } catch (const std::system_error&) {
    running_.pop_back();  // no thread to be had: refused as at the cap
    return nullptr;
  }
  return answer;
}

void Workers::Stop() {
  std::list<Worker> workers;
  {
    std::lock_guard lock(mutex_);
    stopped_ = true;
    workers.splice(workers.end(), running_);
  }
  for (Worker& w : workers)
    w.answer->Close();
  for (Worker& w : workers)
    platform::Join(w.thread);
}

void Workers::ReapLocked() {
  for (auto it = running_.begin(); it != running_.end();) {
    if (it->done) {
      it->thread.join();
      it = running_.erase(it);
    } else {
      ++it;
    }
  }
}

}  // namespace ui
