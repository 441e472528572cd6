// Plain GET routes that the program adds to its web server beside the window's files (the
// recorder's /channels and /export, the report viewer's answers). The server owns the sockets,
// the token check and the limits; a route only writes its answer to an HttpReply.
//
// Why an interface rather than the server calling the recorder: the web server is the one place
// Beast lives and is built into the window's library; the recorder and the report readers belong
// to the application. With this seam the server depends on neither, the application decides what
// is served (and nothing is while no main dialog runs), and the server's tests drive the routes
// with a fake.
#pragma once

#include <string_view>

namespace ui {

// How a route is answered.
enum class HttpRoute {
  kNone,   // not a route: the server looks for a file
  kQuick,  // a short answer from memory: answered on the I/O thread, whole
  kLong,   // files or a streamed answer: answered on a worker thread of its own, chunked, and
           // at most WebServerLimits::maxLongAnswers at once (503 beyond)
};

// The answer being written. Head once, then Write as many chunks as there are; an answer that
// writes no head is "200 application/json". A route refuses bad input with Head(400,
// "text/plain") and one line of reason.
class HttpReply {
 public:
  virtual ~HttpReply() = default;
  // `attachment`, when not empty, is the file name a browser saves the answer under.
  virtual void Head(int status, std::string_view contentType, std::string_view attachment = {}) = 0;
  // False once the browser has gone (closed the download) or the server stops: the route stops.
  // A long answer's Write waits while the browser is slower than the route (a few chunks are
  // queued); it never waits longer than the server's write limit.
  virtual bool Write(std::string_view chunk) = 0;
};

class HttpApi {
 public:
  virtual ~HttpApi() = default;
  // `path` is the decoded path of the request ("/export").
  virtual HttpRoute Route(std::string_view path) const = 0;
  // `query` is the undecoded query without '?' (the token included). kQuick routes run on the
  // server's I/O thread and must not wait for anything; kLong ones on a worker thread. Any
  // thread may call it at any time, several at once.
  virtual void Answer(std::string_view path, std::string_view query, HttpReply& reply) = 0;
};

}  // namespace ui
