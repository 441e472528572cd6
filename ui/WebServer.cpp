// Boost 1.74's Asio needs <utility> first under C++20 with g++ 12.
#include <utility>

#include "ui/WebServer.h"

#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <system_error>
#include <thread>

#include "config/ErrorLog.h"
#include "platform/Clock.h"
#include "ui/Window.h"
#include "util/Text.h"

namespace ui {

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace net = boost::asio;
using tcp = net::ip::tcp;
using boost::system::error_code;

#define WEB_LOG(...) ErrorLog("WebServer.cpp", __LINE__)(__VA_ARGS__)

namespace {

constexpr std::uint16_t kStandardPort = 7570;
constexpr int kPortsToTry = 100;
constexpr std::size_t kRequestLimit = 8 * 1024;
// A browser that falls this far behind (messages queued, not yet written) is dropped; it comes
// back with a fresh full state when it reconnects.
constexpr std::size_t kMaxQueued = 4096;

std::string RandomToken() {
  std::random_device random;
  static const char kHex[] = "0123456789abcdef";
  std::string token;
  for (int i = 0; i < 8; ++i) {
    const unsigned v = random();
    for (int b = 0; b < 4; ++b) {
      const unsigned byte = (v >> (8 * b)) & 0xFF;
      token += kHex[byte >> 4];
      token += kHex[byte & 0xF];
    }
  }
  return token;
}

bool SameSecret(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  unsigned char diff = 0;
  for (std::size_t i = 0; i < a.size(); ++i)
    diff |= static_cast<unsigned char>(a[i] ^ b[i]);
  return diff == 0;
}

// The decoded path of a request target, or nullopt when it tries to leave the served tree or
// is not a plain path: no "." or ".." segments, no empty segments, no backslashes or NULs.
std::optional<std::string> SafePath(std::string_view target) {
  const std::string_view raw = target.substr(0, target.find('?'));
  std::string path;
  if (!text::PercentDecode(raw, path) || path.empty() || path[0] != '/') return std::nullopt;
  if (path == "/") return std::string("/shell.html");
  if (path.find('\\') != std::string::npos || path.find('\0') != std::string::npos) {
    return std::nullopt;
  }
  std::size_t start = 1;
  while (start <= path.size()) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    const std::string_view segment(path.data() + start, end - start);
    if (segment.empty() || segment == "." || segment == "..") return std::nullopt;
    start = end + 1;
  }
  return path;
}

// The value of query parameter `name` (undecoded: tokens are plain hex).
std::string_view QueryParam(std::string_view target, std::string_view name) {
  const std::size_t q = target.find('?');
  if (q == std::string_view::npos) return {};
  std::string_view query = target.substr(q + 1);
  while (!query.empty()) {
    const std::size_t amp = query.find('&');
    const std::string_view pair = query.substr(0, amp);
    const std::size_t eq = pair.find('=');
    if (eq != std::string_view::npos && pair.substr(0, eq) == name) return pair.substr(eq + 1);
    if (amp == std::string_view::npos) break;
    query = query.substr(amp + 1);
  }
  return {};
}

// `html` with `token=<token>` added to the query of every relative href="..." and src="...", so
// that what a served page loads carries the token as the page's own URL does. Only the
// program's own files come here; an attribute is a name after a space or a line break.
std::string WithToken(std::string_view html, const std::string& token) {
  constexpr auto npos = std::string_view::npos;
  std::string out;
  out.reserve(html.size() + 256);
  std::size_t at = 0;
  while (true) {
    std::size_t name = npos;
    std::size_t valueStart = 0;
    for (const std::string_view attribute :
         {std::string_view(" href=\""), std::string_view(" src=\""), std::string_view("\nhref=\""),
          std::string_view("\nsrc=\"")}) {
      const std::size_t found = html.find(attribute, at);
      if (found < name) {
        name = found;
        valueStart = found + attribute.size();
      }
    }
    const std::size_t valueEnd = name == npos ? npos : html.find('"', valueStart);
    if (valueEnd == npos) break;
    const std::string_view value = html.substr(valueStart, valueEnd - valueStart);
    const bool relative =
        !value.empty() && value[0] != '#' && value.find(':') == npos && value.substr(0, 2) != "//";
    // Before a fragment, if there is one.
    const std::size_t insertAt =
        relative ? valueStart + std::min(value.find('#'), value.size()) : valueEnd;
    out.append(html.substr(at, insertAt - at));
    if (relative) {
      const bool hasQuery = value.substr(0, insertAt - valueStart).find('?') != npos;
      out += hasQuery ? '&' : '?';
      out += "token=";
      out += token;
    }
    at = insertAt;
  }
  out.append(html.substr(at));
  return out;
}

// Blocks of the server shared with the window's connections, which outlive it: sending after
// Stop finds the gate shut instead of a destroyed io_context.
struct Gate {
  std::mutex mutex;
  bool open = true;
  net::io_context* io;
};

class Session;

// A long answer between the worker that writes it and the connection that sends it.
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
  std::function<void()> pump;  // posts the connection's Pump to the I/O thread
};

// Chunks the worker may have queued before its Write waits, and the size up to which small
// writes are gathered into one chunk: a few hundred KB per answer at most.
constexpr std::size_t kQueuedChunks = 8;
constexpr std::size_t kChunkBytes = 32 * 1024;
// A quick answer is held whole; the routes' quick answers are a few KB.
constexpr std::size_t kQuickAnswerLimit = 4 * 1024 * 1024;

// Asks the connection to take what is new (with the answer's lock held).
void Kick(LongAnswer& a) {
  if (a.pumpPosted || !a.pump) return;
  a.pumpPosted = true;
  a.pump();
}

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
    Kick(a_);
    return !a_.closed;
  }

 private:
  LongAnswer& a_;
};

// A quick answer, held whole until the route returns.
class BufferReply final : public HttpReply {
 public:
  void Head(int s, std::string_view t, std::string_view a) override {
    if (headed) return;
    headed = true;
    status = s;
    type = t;
    attachment = a;
  }
  bool Write(std::string_view chunk) override {
    headed = true;
    if (body.size() + chunk.size() > kQuickAnswerLimit) return false;
    body.append(chunk);
    return true;
  }
  bool headed = false;
  int status = 200;
  std::string type = "application/json";
  std::string attachment;
  std::string body;
};

// The long answers' workers: counted for the cap, joined when they end and at Stop.
class Workers {
 public:
  explicit Workers(std::size_t cap) : cap_(cap) {}

  // Starts `api->Answer` on a thread of its own, or returns null at the cap (or after Stop).
  std::shared_ptr<LongAnswer> Start(std::shared_ptr<HttpApi> api, std::string path,
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
          Kick(*answer);
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

  // Every answer's writes fail from now on; returns when every worker has ended.
  void Stop() {
    std::list<Worker> workers;
    {
      std::lock_guard lock(mutex_);
      stopped_ = true;
      workers.splice(workers.end(), running_);
    }
    for (Worker& w : workers)
      Close(*w.answer);
    for (Worker& w : workers)
      platform::Join(w.thread);
  }

  static void Close(LongAnswer& answer) {
    {
      std::lock_guard lock(answer.mutex);
      answer.closed = true;
      answer.pump = nullptr;
    }
    answer.clock.NotifyAll();
  }

 private:
  struct Worker {
    std::thread thread;
    std::shared_ptr<LongAnswer> answer;
    bool done;
  };

  // A worker marked done has returned from all it does; its join is immediate.
  void ReapLocked() {
    for (auto it = running_.begin(); it != running_.end();) {
      if (it->done) {
        it->thread.join();
        it = running_.erase(it);
      } else {
        ++it;
      }
    }
  }

  const std::size_t cap_;
  std::mutex mutex_;
  std::list<Worker> running_;
  bool stopped_ = false;
};

// Only letters, digits, '.', '_' and '-' in a download's file name: it goes into a header.
std::string SafeFileName(std::string_view name) {
  std::string out;
  for (const char c : name.substr(0, 128)) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '.' || c == '_' || c == '-';
    out += plain ? c : '_';
  }
  return out;
}

http::status StatusOrError(int status) {
  const http::status s = http::int_to_status(static_cast<unsigned>(status));
  return s == http::status::unknown ? http::status::internal_server_error : s;
}

}  // namespace

std::size_t ConnectionCapFor(std::size_t configured, std::uint64_t descriptors) {
  // Kept for the rest of the program: the standard streams, the board and the simulator's
  // sockets, configuration and report files, the log, the long answers' files, the listener.
  constexpr std::uint64_t kReserved = 64;
  constexpr std::size_t kLeast = 8;  // a browser or two with their page loads, whatever the limit
  const std::uint64_t room = descriptors > kReserved ? descriptors - kReserved : 0;
  const std::size_t cap = room < configured ? static_cast<std::size_t>(room) : configured;
  return std::max(cap, std::min(configured, kLeast));
}

std::uint16_t DefaultPort() {
  const char* env = std::getenv("TAVROTEST_PORT");
  if (!env || !*env) return kStandardPort;
  char* end = nullptr;
  const long v = std::strtol(env, &end, 10);
  if (*end != '\0' || v < 1 || v > 65535) return kStandardPort;
  return static_cast<std::uint16_t>(v);
}

struct WebServer::Impl {
  Window& window;
  std::vector<const ResourceTable*> tables;
  WebServerLimits limits;
  // Every open connection, oldest first (I/O thread). Before `io`: sessions that the io_context
  // still holds leave it when the context goes.
  std::list<Session*> sessions;
  net::io_context io{1};
  tcp::acceptor acceptor{io};
  net::steady_timer acceptRetry{io};
  bool acceptFailing = false;  // since the last accept that worked (one log line each time)
  bool refusing = false;       // every connection busy: new ones closed (one log line)
  std::map<std::string, std::string> htmlWithToken;  // served HTML files, made once
  std::thread thread;
  std::string token = RandomToken();
  std::uint16_t port = 0;
  std::shared_ptr<Gate> gate = std::make_shared<Gate>();
  std::set<Window::ClientId> clients;  // I/O thread; read after the thread ended
  bool started = false;
  mutable std::mutex apiMutex;
  std::shared_ptr<HttpApi> api;
  Workers workers;

  Impl(Window& w, std::vector<const ResourceTable*> t, const WebServerLimits& l)
      : window(w), tables(std::move(t)), limits(l), workers(l.maxLongAnswers) {
    gate->io = &io;
    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur != RLIM_INFINITY) {
      limits.maxConnections = ConnectionCapFor(limits.maxConnections, files.rlim_cur);
    }
  }

  std::shared_ptr<HttpApi> Api() const {
    std::lock_guard lock(apiMutex);
    return api;
  }

  bool Listen(std::uint16_t firstPort);
  void Accept();
  void OnAccept(error_code ec, tcp::socket socket);
  void Admit(tcp::socket socket);
  bool HostAllowed(std::string_view host) const {
    const std::string p = ":" + std::to_string(port);
    return host == "127.0.0.1" + p || host == "localhost" + p;
  }
  bool OriginAllowed(std::string_view origin) const {
    const std::string p = ":" + std::to_string(port);
    return origin == "http://127.0.0.1" + p || origin == "http://localhost" + p;
  }
  template <typename Request>
  bool Authorized(const Request& req) const {
    const std::string_view target(req.target().data(), req.target().size());
    return SameSecret(QueryParam(target, "token"), token);
  }
  const Resource* Find(const std::string& path) const {
    for (const ResourceTable* table : tables) {
      if (const Resource* r = table->Find(path)) return r;
    }
    return nullptr;
  }
};

namespace {

// One open connection as the server counts it.
class Session {
 public:
  explicit Session(WebServer::Impl& server) : server_(server) {
    slot_ = server_.sessions.insert(server_.sessions.end(), this);
  }
  virtual ~Session() { Unlist(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Waits for a request: the connection may go to make room for a new one.
  virtual bool Idle() const = 0;
  // Closes the connection now; it no longer counts.
  virtual void Drop() = 0;
  // After the I/O thread ended: lets go of what keeps the session alive besides the I/O
  // context's handlers.
  virtual void Abandon() {}

 protected:
  void Unlist() {
    if (!listed_) return;
    listed_ = false;
    server_.sessions.erase(slot_);
  }

  WebServer::Impl& server_;

 private:
  std::list<Session*>::iterator slot_;
  bool listed_ = true;
};

class WsSession;

class WsConnection final : public Connection {
 public:
  WsConnection(std::shared_ptr<Gate> gate, std::weak_ptr<WsSession> session)
      : gate_(std::move(gate)), session_(std::move(session)) {}
  void Send(std::shared_ptr<const std::string> message) override;

 private:
  std::shared_ptr<Gate> gate_;
  std::weak_ptr<WsSession> session_;
};

class WsSession : public Session, public std::enable_shared_from_this<WsSession> {
 public:
  WsSession(tcp::socket&& socket, WebServer::Impl& server)
      : Session(server), ws_(std::move(socket)) {}

  void Start(http::request<http::string_body> request) {
    ws_.read_message_max(Window::kMaxMessage);
    websocket::stream_base::timeout timeout{};
    timeout.handshake_timeout = server_.limits.requestTime;
    timeout.idle_timeout = server_.limits.idleTime;
    timeout.keep_alive_pings = true;
    ws_.set_option(timeout);
    ws_.async_accept(request, [self = shared_from_this()](error_code ec) { self->OnAccept(ec); });
  }

  bool Idle() const override { return false; }
  void Drop() override { Fail(); }

  // On the I/O thread.
  void Enqueue(std::shared_ptr<const std::string> message) {
    if (closed_) return;
    queuedBytes_ += message->size();
    queue_.push_back(std::move(message));
    if (queue_.size() > kMaxQueued || queuedBytes_ > server_.limits.maxQueuedBytes) {
      WEB_LOG("UI browser %llu too slow (%zu messages, %zu bytes unsent), disconnected\r\n",
              static_cast<unsigned long long>(id_), queue_.size(), queuedBytes_);
      Fail();
      return;
    }
    if (!writing_) Write();
  }

 private:
  void OnAccept(error_code ec) {
    if (ec) return;
    id_ = server_.window.Attach(std::make_shared<WsConnection>(server_.gate, weak_from_this()));
    server_.clients.insert(id_);
    Read();
  }

  void Read() {
    ws_.async_read(buffer_,
                   [self = shared_from_this()](error_code ec, std::size_t) { self->OnRead(ec); });
  }

  void OnRead(error_code ec) {
    if (ec) {
      if (ec == websocket::error::message_too_big) {
        WEB_LOG("UI message above %zu bytes; browser %llu disconnected\r\n", Window::kMaxMessage,
                static_cast<unsigned long long>(id_));
      }
      Fail();
      return;
    }
    if (ws_.got_text()) {
      server_.window.Receive(id_, beast::buffers_to_string(buffer_.data()));
    } else {
      WEB_LOG("UI binary message dropped\r\n");
    }
    buffer_.consume(buffer_.size());
    Read();
  }

  // The message being written stays with its completion: Fail may empty the queue meanwhile.
  void Write() {
    writing_ = true;
    ws_.text(true);
    std::shared_ptr<const std::string> message = queue_.front();
    ws_.async_write(
        net::buffer(*message),
        [self = shared_from_this(), message](error_code ec, std::size_t) { self->OnWritten(ec); });
  }

  void OnWritten(error_code ec) {
    writing_ = false;
    // A session that failed meanwhile has no queue left to take from, even when this write
    // itself went through.
    if (closed_) return;
    if (ec) {
      Fail();
      return;
    }
    queuedBytes_ -= queue_.front()->size();
    queue_.pop_front();
    if (!queue_.empty()) Write();
  }

  // Ends the session once: the window forgets the browser, the socket closes, and the pending
  // read or write ends with an error that finds the session closed.
  void Fail() {
    if (closed_) return;
    closed_ = true;
    Unlist();
    queue_.clear();
    queuedBytes_ = 0;
    if (id_ != 0) {
      server_.window.Detach(id_);
      server_.clients.erase(id_);
    }
    error_code ignored;
    beast::get_lowest_layer(ws_).socket().close(ignored);
  }

  websocket::stream<beast::tcp_stream> ws_;
  Window::ClientId id_ = 0;
  beast::flat_buffer buffer_;
  std::deque<std::shared_ptr<const std::string>> queue_;
  std::size_t queuedBytes_ = 0;
  bool writing_ = false;
  bool closed_ = false;
};

void WsConnection::Send(std::shared_ptr<const std::string> message) {
  std::lock_guard lock(gate_->mutex);
  if (!gate_->open) return;
  net::post(*gate_->io, [session = session_, message = std::move(message)]() mutable {
    if (auto s = session.lock()) s->Enqueue(std::move(message));
  });
}

class HttpSession : public Session, public std::enable_shared_from_this<HttpSession> {
 public:
  HttpSession(tcp::socket&& socket, WebServer::Impl& server)
      : Session(server), stream_(std::move(socket)) {}
  ~HttpSession() override {
    if (answer_) Workers::Close(*answer_);
  }

  // A request must come whole within the request time: a connection that holds a descriptor
  // without asking anything does not keep it for long.
  void Read() {
    parser_.emplace();
    parser_->header_limit(kRequestLimit);
    parser_->body_limit(kRequestLimit);
    stream_.expires_after(server_.limits.requestTime);
    reading_ = true;
    http::async_read(stream_, buffer_, *parser_,
                     [self = shared_from_this()](error_code ec, std::size_t) { self->OnRead(ec); });
  }

  bool Idle() const override { return reading_; }
  void Drop() override {
    Unlist();
    error_code ignored;
    stream_.socket().close(ignored);
  }
  void Abandon() override {
    if (self_) Close();
  }

 private:
  void OnRead(error_code ec) {
    reading_ = false;
    if (ec) {
      error_code ignored;
      stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
      return;
    }
    http::request<http::string_body> req = parser_->release();
    if (websocket::is_upgrade(req)) {
      if (UpgradeAllowed(req)) {
        stream_.expires_never();
        std::make_shared<WsSession>(stream_.release_socket(), server_)->Start(std::move(req));
        return;
      }
      WEB_LOG("UI WebSocket upgrade refused\r\n");
      Respond(req, http::status::forbidden, "text/plain", "Forbidden\n");
      return;
    }
    Serve(req);
  }

  bool UpgradeAllowed(const http::request<http::string_body>& req) const {
    const std::string_view target(req.target().data(), req.target().size());
    const auto origin = req[http::field::origin];
    const auto host = req[http::field::host];
    return target.substr(0, target.find('?')) == "/ws" && server_.Authorized(req) &&
           server_.HostAllowed({host.data(), host.size()}) &&
           (origin.empty() || server_.OriginAllowed({origin.data(), origin.size()}));
  }

  void Serve(const http::request<http::string_body>& req) {
    const auto host = req[http::field::host];
    if (!server_.HostAllowed({host.data(), host.size()}) || !server_.Authorized(req)) {
      Respond(req, http::status::forbidden, "text/plain", "Forbidden\n");
      return;
    }
    if (req.method() != http::verb::get && req.method() != http::verb::head) {
      Respond(req, http::status::method_not_allowed, "text/plain", "Method not allowed\n");
      return;
    }
    const std::string_view target(req.target().data(), req.target().size());
    const std::optional<std::string> path = SafePath(target);
    if (std::shared_ptr<HttpApi> api = path ? server_.Api() : nullptr) {
      const HttpRoute route = api->Route(*path);
      if (route != HttpRoute::kNone) {
        Route(req, route, std::move(api), *path);
        return;
      }
    }
    const Resource* resource = path ? server_.Find(*path) : nullptr;
    if (!resource) {
      Respond(req, http::status::not_found, "text/plain", "Not found\n");
      return;
    }
    Respond(req, http::status::ok, resource->mime, Body(*path, *resource));
  }

  // HTML files carry the token in what they load; the rest is served as it is.
  std::string Body(const std::string& path, const Resource& resource) {
    const std::string_view bytes(reinterpret_cast<const char*>(resource.data), resource.size);
    if (std::string_view(resource.mime).substr(0, 9) != "text/html") return std::string(bytes);
    auto [it, added] = server_.htmlWithToken.try_emplace(path);
    if (added) it->second = WithToken(bytes, server_.token);
    return it->second;
  }

  // A route's answer: a quick one whole, now; a long one from its worker, as it comes.
  void Route(const http::request<http::string_body>& req, HttpRoute route,
             std::shared_ptr<HttpApi> api, const std::string& path) {
    if (req.method() != http::verb::get) {
      Respond(req, http::status::method_not_allowed, "text/plain", "Method not allowed\n");
      return;
    }
    const std::string_view target(req.target().data(), req.target().size());
    const std::size_t q = target.find('?');
    const std::string query(q == std::string_view::npos ? std::string_view()
                                                        : target.substr(q + 1));
    if (route == HttpRoute::kQuick) {
      BufferReply reply;
      api->Answer(path, query, reply);
      Respond(req, StatusOrError(reply.status), reply.type, std::move(reply.body),
              reply.attachment);
      return;
    }
    auto answer = server_.workers.Start(std::move(api), path, query,
                                        [gate = server_.gate, session = weak_from_this()] {
                                          std::lock_guard lock(gate->mutex);
                                          if (!gate->open) return;
                                          net::post(*gate->io, [session] {
                                            if (auto s = session.lock()) s->Pump();
                                          });
                                        });
    if (!answer) {
      WEB_LOG("UI server: %zu long answers under way; one more refused\r\n",
              server_.limits.maxLongAnswers);
      Respond(req, http::status::service_unavailable, "text/plain",
              "Too many answers under way; try again later\n");
      return;
    }
    answer_ = std::move(answer);
    // The session keeps itself while it waits for the worker with no operation of its own under
    // way; Close lets go.
    self_ = shared_from_this();
    version_ = req.version();
    // The route has the write limit to begin its answer, as each chunk has to go out.
    stream_.expires_after(server_.limits.idleTime);
    Pump();
  }

  // On the I/O thread: sends the head once the route has set it (or written), then each chunk
  // the route has queued, one write at a time, then the end.
  void Pump() {
    if (!answer_ || writing_ || ended_) return;
    std::unique_lock lock(answer_->mutex);
    answer_->pumpPosted = false;
    if (answer_->closed) return;
    if (!headSent_) {
      if (!answer_->headed && answer_->chunks.empty() && !answer_->finished) return;
      headSent_ = true;
      auto res = std::make_shared<http::response<http::empty_body>>(StatusOrError(answer_->status),
                                                                    version_);
      Decorate(*res, answer_->type, answer_->attachment);
      lock.unlock();
      // HTTP/1.0 has no chunks: the answer ends with the connection.
      if (version_ >= 11) res->chunked(true);
      res->keep_alive(false);
      auto serializer = std::make_shared<http::response_serializer<http::empty_body>>(*res);
      WriteThen(
          [this, serializer](auto handler) {
            http::async_write_header(stream_, *serializer, std::move(handler));
          },
          std::make_shared<std::pair<decltype(res), decltype(serializer)>>(res, serializer));
      return;
    }
    if (!answer_->chunks.empty()) {
      auto chunk = std::make_shared<std::string>(std::move(answer_->chunks.front()));
      answer_->chunks.pop_front();
      lock.unlock();
      answer_->clock.NotifyAll();  // room for the worker
      WriteThen(
          [this, chunk](auto handler) {
            if (version_ >= 11) {
              net::async_write(stream_, http::make_chunk(net::buffer(*chunk)), std::move(handler));
            } else {
              net::async_write(stream_, net::buffer(*chunk), std::move(handler));
            }
          },
          chunk);
      return;
    }
    if (!answer_->finished) return;
    lock.unlock();
    ended_ = true;
    if (version_ < 11) {
      Close();
      return;
    }
    WriteThen([this](auto handler) {
      net::async_write(stream_, http::make_chunk_last(), std::move(handler));
    });
  }

  // Starts one write of the long answer; its end pumps again, or closes on an error or the end.
  // `keep` holds what the write reads until it completes.
  template <typename Start>
  void WriteThen(Start start, std::shared_ptr<const void> keep = nullptr) {
    writing_ = true;
    stream_.expires_after(server_.limits.idleTime);
    start([self = shared_from_this(), keep](error_code ec, std::size_t) {
      self->writing_ = false;
      if (ec || self->ended_) {
        self->Close();
        return;
      }
      self->Pump();
    });
  }

  // Ends the long answer's connection; the worker's next write fails.
  void Close() {
    if (answer_) Workers::Close(*answer_);
    Unlist();
    error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
    stream_.socket().close(ignored);
    const auto keep = std::move(self_);  // last: may end the session
  }

  template <typename Response>
  void Decorate(Response& res, const std::string& mime, const std::string& attachment) const {
    res.set(http::field::content_type, mime);
    if (!attachment.empty()) {
      res.set(http::field::content_disposition,
              "attachment; filename=\"" + SafeFileName(attachment) + "\"");
    }
    res.set(http::field::cache_control, "no-store");
    res.set("X-Content-Type-Options", "nosniff");
    res.set("Referrer-Policy", "no-referrer");
    const std::string p = std::to_string(server_.port);
    res.set("Content-Security-Policy",
            "default-src 'self'; style-src 'self' 'unsafe-inline'; connect-src 'self' "
            "ws://127.0.0.1:" +
                p + " ws://localhost:" + p + "; frame-ancestors 'self'");
  }

  void Respond(const http::request<http::string_body>& req, http::status status,
               const std::string& mime, std::string body, const std::string& attachment = {}) {
    auto res = std::make_shared<http::response<http::string_body>>(status, req.version());
    Decorate(*res, mime, attachment);
    const bool head = req.method() == http::verb::head;
    res->body() = head ? std::string() : std::move(body);
    res->prepare_payload();
    if (head) res->content_length(body.size());
    res->keep_alive(req.keep_alive() && status == http::status::ok);
    stream_.expires_after(server_.limits.idleTime);
    http::async_write(stream_, *res, [self = shared_from_this(), res](error_code ec, std::size_t) {
      if (ec || !res->keep_alive()) {
        error_code ignored;
        self->stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
        return;
      }
      self->Read();
    });
  }

  beast::tcp_stream stream_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  bool reading_ = false;
  // A long answer being sent.
  std::shared_ptr<LongAnswer> answer_;
  std::shared_ptr<HttpSession> self_;
  unsigned version_ = 11;
  bool writing_ = false;
  bool headSent_ = false;
  bool ended_ = false;
};

}  // namespace

bool WebServer::Impl::Listen(std::uint16_t firstPort) {
  const int tries = firstPort == 0 ? 1 : kPortsToTry;
  for (int i = 0; i < tries && firstPort + i <= 65535; ++i) {
    error_code ec;
    const tcp::endpoint endpoint(net::ip::make_address_v4("127.0.0.1"),
                                 static_cast<std::uint16_t>(firstPort + i));
    acceptor.open(endpoint.protocol(), ec);
    if (!ec) acceptor.set_option(net::socket_base::reuse_address(true), ec);
    if (!ec) acceptor.bind(endpoint, ec);
    if (!ec) acceptor.listen(net::socket_base::max_listen_connections, ec);
    if (!ec) {
      port = acceptor.local_endpoint().port();
      return true;
    }
    error_code ignored;
    acceptor.close(ignored);
  }
  WEB_LOG("UI server: no free port from %u\r\n", static_cast<unsigned>(firstPort));
  return false;
}

void WebServer::Impl::Accept() {
  acceptor.async_accept(
      [this](error_code ec, tcp::socket socket) { OnAccept(ec, std::move(socket)); });
}

// A failed accept (no file descriptor left, say) fails again at once while its cause lasts: it
// is tried again after a pause instead of spinning the I/O thread.
void WebServer::Impl::OnAccept(error_code ec, tcp::socket socket) {
  if (!acceptor.is_open() || ec == net::error::operation_aborted) return;
  if (ec) {
    if (!acceptFailing) {
      WEB_LOG("UI server: accept failed (%s); trying again every %lld ms\r\n", ec.message().c_str(),
              static_cast<long long>(limits.acceptRetry.count()));
    }
    acceptFailing = true;
    acceptRetry.expires_after(limits.acceptRetry);
    acceptRetry.async_wait([this](error_code waitEc) {
      if (!waitEc) Accept();
    });
    return;
  }
  acceptFailing = false;
  Admit(std::move(socket));
  Accept();
}

// At the limit a new connection takes the place of the oldest one that waits for a request;
// when every connection is busy (browsers' WebSockets, responses on their way) it is closed.
void WebServer::Impl::Admit(tcp::socket socket) {
  if (sessions.size() >= limits.maxConnections) {
    const auto idle =
        std::find_if(sessions.begin(), sessions.end(), [](const Session* s) { return s->Idle(); });
    if (idle == sessions.end()) {
      if (!refusing) {
        WEB_LOG("UI server: %zu connections, none idle; new ones refused\r\n", sessions.size());
      }
      refusing = true;
      error_code ignored;
      socket.close(ignored);
      return;
    }
    (*idle)->Drop();
  }
  refusing = false;
  std::make_shared<HttpSession>(std::move(socket), *this)->Read();
}

WebServer::WebServer(Window& window, std::vector<const ResourceTable*> tables,
                     const WebServerLimits& limits)
    : impl_(std::make_unique<Impl>(window, std::move(tables), limits)) {}

WebServer::~WebServer() {
  Stop();
}

bool WebServer::Start(std::uint16_t firstPort) {
  if (impl_->started || !impl_->Listen(firstPort)) return false;
  impl_->started = true;
  impl_->Accept();
  impl_->thread = std::thread([this] { impl_->io.run(); });
  return true;
}

void WebServer::Stop() {
  if (!impl_->started) return;
  impl_->started = false;
  {
    std::lock_guard lock(impl_->gate->mutex);
    impl_->gate->open = false;
  }
  impl_->io.stop();
  if (impl_->thread.joinable()) impl_->thread.join();
  impl_->workers.Stop();
  const std::vector<Session*> sessions(impl_->sessions.begin(), impl_->sessions.end());
  for (Session* session : sessions)
    session->Abandon();
  error_code ignored;
  impl_->acceptor.close(ignored);
  for (const Window::ClientId id : impl_->clients)
    impl_->window.Detach(id);
  impl_->clients.clear();
}

void WebServer::SetApi(std::shared_ptr<HttpApi> api) {
  std::lock_guard lock(impl_->apiMutex);
  impl_->api = std::move(api);
}

std::uint16_t WebServer::Port() const {
  return impl_->port;
}

const std::string& WebServer::Token() const {
  return impl_->token;
}

std::string WebServer::Url() const {
  return "http://127.0.0.1:" + std::to_string(impl_->port) + "/?token=" + impl_->token;
}

}  // namespace ui
