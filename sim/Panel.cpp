// Boost 1.74's Asio needs <utility> first under C++20 with g++ 12.
#include <utility>

#include "sim/Panel.h"

#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <nlohmann/json.hpp>

#include <optional>
#include <random>
#include <string_view>
#include <thread>

#include "sim/PanelFiles.h"
#include "sim/PanelState.h"
#include "sim/Simulator.h"

namespace sim {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
using tcp = net::ip::tcp;
using boost::system::error_code;

namespace {

constexpr std::size_t kHeaderLimit = 8 * 1024;
constexpr std::size_t kCommandLimit = 4 * 1024;
// A failing accept (out of descriptors) is tried again after this long, not at once in a loop.
constexpr std::chrono::milliseconds kAcceptRetry{200};

std::string RandomToken() {
  std::random_device random;
  static const char kHex[] = "0123456789abcdef";
  std::string token;
  for (int i = 0; i < 32; ++i)
    token += kHex[random() & 0xF];
  return token;
}

bool SameSecret(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  unsigned char diff = 0;
  for (std::size_t i = 0; i < a.size(); ++i)
    diff |= static_cast<unsigned char>(a[i] ^ b[i]);
  return diff == 0;
}

// The value of query parameter `name` (tokens are plain hex: no decoding).
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

std::string_view View(beast::string_view v) {
  return {v.data(), v.size()};
}

}  // namespace

struct Panel::Impl {
  Impl(Simulator& s, PanelLimits l) : sim(s), limits(l), token(RandomToken()) {}

  // The page with the token in what it loads.
  std::string Page() const {
    const PanelFile* file = FindPanelFile("/index.html");
    std::string html(reinterpret_cast<const char*>(file->data), file->size);
    for (std::size_t at = html.find("__TOKEN__"); at != std::string::npos;
         at = html.find("__TOKEN__", at)) {
      html.replace(at, 9, token);
    }
    return html;
  }
  bool HostAllowed(std::string_view host) const {
    const std::string p = std::to_string(port);
    return host == "127.0.0.1:" + p || host == "localhost:" + p;
  }
  bool OriginAllowed(std::string_view origin) const {
    const std::string p = std::to_string(port);
    return origin == "http://127.0.0.1:" + p || origin == "http://localhost:" + p;
  }
  void Accept();

  Simulator& sim;
  const PanelLimits limits;
  const std::string token;
  std::uint16_t port = 0;
  std::size_t open = 0;  // connections, counted on the I/O thread
  net::io_context io{1};
  tcp::acceptor acceptor{io};
  net::steady_timer retry{io};
  std::thread thread;
};

namespace {

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(tcp::socket&& socket, Panel::Impl& panel) : stream_(std::move(socket)), panel_(panel) {
    ++panel_.open;
  }
  ~Connection() { --panel_.open; }

  // A request must come whole within the request time, so that an idle connection does not hold
  // one of the few places for long.
  void Read() {
    parser_.emplace();
    parser_->header_limit(kHeaderLimit);
    parser_->body_limit(kCommandLimit);
    stream_.expires_after(panel_.limits.requestTime);
    http::async_read(stream_, buffer_, *parser_,
                     [self = shared_from_this()](error_code ec, std::size_t) {
                       if (!ec) self->Answer(self->parser_->release());
                     });
  }

 private:
  using Request = http::request<http::string_body>;

  void Answer(const Request& req) {
    const std::string_view target = View(req.target());
    const std::string_view path = target.substr(0, target.find('?'));
    if (!panel_.HostAllowed(View(req[http::field::host])) ||
        !SameSecret(QueryParam(target, "token"), panel_.token)) {
      return Respond(req, http::status::forbidden, "text/plain", "Forbidden\n");
    }
    if (path == "/command") return Command(req);
    if (req.method() != http::verb::get) {
      return Respond(req, http::status::method_not_allowed, "text/plain", "Method not allowed\n");
    }
    if (path == "/")
      return Respond(req, http::status::ok, "text/html; charset=utf-8", panel_.Page());
    if (path == "/state") {
      return Respond(req, http::status::ok, "application/json", PanelState(panel_.sim));
    }
    const PanelFile* file = path == "/index.html" ? nullptr : FindPanelFile(path);
    if (!file) return Respond(req, http::status::not_found, "text/plain", "Not found\n");
    Respond(req, http::status::ok, file->mime,
            std::string(reinterpret_cast<const char*>(file->data), file->size));
  }

  // One control line, from the panel's own page only.
  void Command(const Request& req) {
    if (req.method() != http::verb::post) {
      return Respond(req, http::status::method_not_allowed, "text/plain", "Method not allowed\n");
    }
    if (!panel_.OriginAllowed(View(req[http::field::origin]))) {
      return Respond(req, http::status::forbidden, "text/plain", "Forbidden\n");
    }
    const std::string& line = req.body();
    if (line.empty() || line.find_first_of("\r\n") != std::string::npos) {
      return Respond(req, http::status::bad_request, "text/plain", "One control line\n");
    }
    const nlohmann::json answer = {{"answer", panel_.sim.Command(line)}};
    Respond(req, http::status::ok, "application/json",
            answer.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  }

  void Respond(const Request& req, http::status status, std::string_view type, std::string body) {
    auto res = std::make_shared<http::response<http::string_body>>(status, req.version());
    res->set(http::field::content_type, beast::string_view(type.data(), type.size()));
    res->set(http::field::cache_control, "no-store");
    res->set("X-Content-Type-Options", "nosniff");
    // The token rides in the page's address: no referrer to take it elsewhere, no frame of the
    // panel inside another page, nothing loaded from anywhere else.
    res->set("Referrer-Policy", "no-referrer");
    res->set("Content-Security-Policy",
             "default-src 'self'; connect-src 'self'; frame-ancestors 'none'");
    res->keep_alive(req.keep_alive());
    res->body() = std::move(body);
    res->prepare_payload();
    http::async_write(stream_, *res, [self = shared_from_this(), res](error_code ec, std::size_t) {
      if (!ec && res->keep_alive()) return self->Read();
      error_code ignored;
      self->stream_.socket().shutdown(tcp::socket::shutdown_both, ignored);
    });
  }

  beast::tcp_stream stream_;
  beast::flat_buffer buffer_{kHeaderLimit + kCommandLimit};
  std::optional<http::request_parser<http::string_body>> parser_;
  Panel::Impl& panel_;
};

}  // namespace

void Panel::Impl::Accept() {
  acceptor.async_accept([this](error_code ec, tcp::socket socket) {
    if (ec == net::error::operation_aborted) return;
    if (ec) {
      // Out of descriptors, say: look again in a while.
      retry.expires_after(kAcceptRetry);
      retry.async_wait([this](error_code e) {
        if (!e) Accept();
      });
      return;
    }
    if (open < limits.maxConnections)
      std::make_shared<Connection>(std::move(socket), *this)->Read();
    Accept();  // one over the cap is closed as `socket` goes
  });
}

Panel::Panel(Simulator& sim, PanelLimits limits) : impl_(std::make_unique<Impl>(sim, limits)) {}

Panel::~Panel() {
  Stop();
}

bool Panel::Start(std::uint16_t port, std::string* error) {
  Impl& p = *impl_;
  error_code ec;
  const tcp::endpoint endpoint(net::ip::address_v4::loopback(), port);
  p.acceptor.open(endpoint.protocol(), ec);
  if (!ec) p.acceptor.set_option(net::socket_base::reuse_address(true), ec);
  if (!ec) p.acceptor.bind(endpoint, ec);
  if (!ec) p.acceptor.listen(net::socket_base::max_listen_connections, ec);
  if (ec) {
    if (error) *error = "panel on 127.0.0.1:" + std::to_string(port) + ": " + ec.message();
    p.acceptor.close(ec);
    return false;
  }
  p.port = p.acceptor.local_endpoint().port();
  p.Accept();
  p.thread = std::thread([&p] { p.io.run(); });
  return true;
}

void Panel::Stop() {
  Impl& p = *impl_;
  if (!p.thread.joinable()) return;
  net::post(p.io, [&p] {
    error_code ignored;
    p.acceptor.close(ignored);
    p.retry.cancel();
    p.io.stop();
  });
  p.thread.join();
}

std::uint16_t Panel::Port() const {
  return impl_->port;
}

const std::string& Panel::Token() const {
  return impl_->token;
}

std::string Panel::Url() const {
  return "http://127.0.0.1:" + std::to_string(impl_->port) + "/?token=" + impl_->token;
}

}  // namespace sim
