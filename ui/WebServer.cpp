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
#include <set>
#include <thread>

#include "config/ErrorLog.h"
#include "platform/Clock.h"
#include "ui/Replies.h"
#include "ui/WebAccess.h"
#include "ui/Window.h"

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
// What a refused request may still send before its connection closes.
constexpr std::size_t kDrainLimit = 64 * 1024;
// A browser that falls this far behind (messages queued, not yet written) is dropped; it comes
// back with a fresh full state when it reconnects.
constexpr std::size_t kMaxQueued = 4096;

// Blocks of the server shared with the window's connections, which outlive it: sending after
// Stop finds the gate shut instead of a destroyed io_context.
struct Gate {
  std::mutex mutex;
  bool open = true;
  net::io_context* io;
};

class Session;

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
  // The goodbye once the run ends (I/O thread): every browser gets it, then a closing handshake;
  // a browser that comes later gets it instead of the window.
  std::shared_ptr<const std::string> goodbye;
  // Browsers whose goodbye is not yet out and closed, and whether the I/O thread has sent them
  // all (guarded by farewellMutex; the waiting thread wakes through the clock).
  std::mutex farewellMutex;
  int farewellsPending = 0;
  bool farewellsStarted = false;
  void FarewellDone() {
    {
      std::lock_guard lock(farewellMutex);
      --farewellsPending;
    }
    platform::Clock::Current().NotifyAll();
  }

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
  bool HostAllowed(std::string_view host) const { return ui::HostAllowed(host, port); }
  bool OriginAllowed(std::string_view origin) const { return ui::OriginAllowed(origin, port); }
  template <typename Request>
  bool Authorized(const Request& req) const {
    return TokenMatches({req.target().data(), req.target().size()}, token);
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
  // The run ends: a browser's connection sends `message` and closes; true when it will report
  // its end through FarewellDone.
  virtual bool Goodbye(const std::shared_ptr<const std::string>& /*message*/) { return false; }
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
  bool Goodbye(const std::shared_ptr<const std::string>& message) override {
    if (closed_ || farewell_) return false;
    farewell_ = true;
    Enqueue(message);
    if (closed_) return false;
    counted_ = true;
    if (!writing_) CloseAfterGoodbye();
    return true;
  }

  // On the I/O thread. Once the goodbye is queued it is the last message: what the window
  // still flushes after it would tell an ended run's browser of values as if live.
  void Enqueue(std::shared_ptr<const std::string> message) {
    if (closed_ || (farewell_ && message != server_.goodbye)) return;
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
    if (server_.goodbye) {
      // The window has ended: a browser that reconnects now learns that, and nothing else.
      farewell_ = true;
      Enqueue(server_.goodbye);
      return;
    }
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
    if (!queue_.empty()) {
      Write();
    } else if (farewell_) {
      CloseAfterGoodbye();
    }
  }

  // A normal close once the goodbye is out; the browser's answer (or none, when Stop ends the
  // I/O thread first) ends the session.
  void CloseAfterGoodbye() {
    if (closing_) return;
    closing_ = true;
    ws_.async_close(websocket::close_code::normal,
                    [self = shared_from_this()](error_code) { self->Fail(); });
  }

  // Ends the session once: the window forgets the browser, the socket closes, and the pending
  // read or write ends with an error that finds the session closed.
  void Fail() {
    if (closed_) return;
    closed_ = true;
    if (counted_) server_.FarewellDone();
    counted_ = false;
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
  bool farewell_ = false;  // the goodbye is queued: the close follows it
  bool closing_ = false;   // the closing handshake is under way
  bool counted_ = false;   // the server waits for this session's farewell
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
    if (answer_) answer_->Close();
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
    if (ec == http::error::header_limit) {
      RefuseLargeHeader();
      return;
    }
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
    if (!answer_ || phase_ == Phase::kWriting || phase_ == Phase::kEnding) return;
    std::unique_lock lock(answer_->mutex);
    answer_->pumpPosted = false;
    if (answer_->closed) return;
    if (phase_ == Phase::kHead) {
      if (!answer_->headed && answer_->chunks.empty() && !answer_->finished) return;
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
    phase_ = Phase::kEnding;
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
    if (phase_ != Phase::kEnding) phase_ = Phase::kWriting;
    stream_.expires_after(server_.limits.idleTime);
    start([self = shared_from_this(), keep](error_code ec, std::size_t) {
      if (ec || self->phase_ == Phase::kEnding) {
        self->Close();
        return;
      }
      self->phase_ = Phase::kBody;
      self->Pump();
    });
  }

  // Ends the long answer's connection; the worker's next write fails.
  void Close() {
    if (answer_) answer_->Close();
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

  // A header above the limit gets its status before the close. What the browser still sends is
  // read and dropped (a bounded amount, within the request time), as a close with unread bytes
  // would reset the connection and take the answer with it.
  void RefuseLargeHeader() {
    auto res = std::make_shared<http::response<http::string_body>>(
        http::status::request_header_fields_too_large, 11);
    Decorate(*res, "text/plain", {});
    res->body() = "Request header fields too large\n";
    res->prepare_payload();
    res->keep_alive(false);
    stream_.expires_after(server_.limits.requestTime);
    http::async_write(stream_, *res, [self = shared_from_this(), res](error_code ec, std::size_t) {
      if (ec) return;
      error_code ignored;
      self->stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
      self->Drain(0);
    });
  }

  void Drain(std::size_t drained) {
    if (drained > kDrainLimit) return;
    buffer_.consume(buffer_.size());
    stream_.async_read_some(buffer_.prepare(4096),
                            [self = shared_from_this(), drained](error_code ec, std::size_t n) {
                              if (!ec) self->Drain(drained + n);
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
  // Where the long answer's sending stands. A write is under way in kWriting and kEnding; Pump
  // starts the next only in kHead and kBody.
  enum class Phase {
    kHead,     // the head waits for the route to set it or to write
    kWriting,  // the head or a chunk is being written
    kBody,     // between chunks: the next is written as the route queues it
    kEnding,   // the route returned and everything is out: the last write, then the close
  };
  Phase phase_ = Phase::kHead;
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

bool WebServer::SayGoodbye(const std::string& message, std::chrono::milliseconds limit) {
  if (!impl_->started) return false;
  auto shared = std::make_shared<const std::string>(message);
  net::post(impl_->io, [impl = impl_.get(), shared] {
    impl->goodbye = shared;
    int counted = 0;
    const std::vector<Session*> sessions(impl->sessions.begin(), impl->sessions.end());
    for (Session* session : sessions) {
      if (session->Goodbye(shared)) ++counted;
    }
    {
      std::lock_guard lock(impl->farewellMutex);
      impl->farewellsPending += counted;
      impl->farewellsStarted = true;
    }
    platform::Clock::Current().NotifyAll();
  });
  platform::Clock& clock = platform::Clock::Current();
  std::unique_lock lock(impl_->farewellMutex);
  return clock.WaitUntil(lock, clock.Deadline(limit), [this] {
    return impl_->farewellsStarted && impl_->farewellsPending <= 0;
  });
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
