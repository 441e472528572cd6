// The local web server that shows the window: HTTP for the shell and the page documents, one
// WebSocket per browser for the window's state and the browsers' events. It listens on
// 127.0.0.1 only and runs one I/O thread of its own.
//
// Access: a random token made per run must come with every request, as the query parameter
// `token` (the URL the program prints carries it). It is never a cookie: cookies ignore the port,
// so every other web service on 127.0.0.1 that the browser visits would receive it. Instead the
// HTML the server hands out carries it: each relative `href="..."` and `src="..."` of a served
// HTML file gets `token=<token>` added to its query, and the shell adds it to the page documents
// it loads. A WebSocket upgrade needs the token and, when it has an Origin, one of
// http://127.0.0.1:<port> or http://localhost:<port>; the Host header must name the same two.
// Everything else gets 403.
//
// Limits, since any local user can connect: a request must arrive whole within
// `requestTime` of the connection or of the previous response; at most `maxConnections` are
// open at once, and one more closes the oldest that waits for a request (or is closed itself
// when none does); a failing accept (out of file descriptors) is tried again after
// `acceptRetry`, with one log line. A browser whose queue of unsent messages passes
// `maxQueuedBytes` (it does not read) is disconnected with one log line, and one that sends
// nothing for `idleTime` (pings go out at half of it) is closed. Browser messages larger than
// Window::kMaxMessage close that browser's connection, with a log line; the window copes with
// what remains (malformed JSON and the like).
//
// Routes (HttpApi): a path the program's HttpApi claims is answered by it instead of a file, with
// the same token and Host checks, GET only. A quick route is answered whole on the I/O thread; a
// long one (files, exports) runs on a worker thread of its own and its answer is written as it
// comes, chunked: the worker hands over chunks through a queue of a few (it waits while the
// queue is full), and each chunk written gives the connection a fresh `idleTime` to take it. A
// browser that closes the download, or does not read for `idleTime`, ends the connection, and the
// worker's next write fails, which stops it. At most `maxLongAnswers` run at once; one more is
// refused with 503, so that no local user can pile up threads or memory.
//
// Beast and Asio stay inside WebServer.cpp: they cost seconds per translation unit.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ui/HttpApi.h"
#include "ui/Resources.h"

namespace ui {

class Window;

// $TAVROTEST_PORT when it holds a port number, else 7570.
std::uint16_t DefaultPort();

struct WebServerLimits {
  std::size_t maxConnections = 256;  // HTTP and WebSocket together
  std::chrono::milliseconds requestTime{10'000};
  std::chrono::milliseconds idleTime{30'000};
  std::size_t maxQueuedBytes = 8 * 1024 * 1024;
  std::chrono::milliseconds acceptRetry{200};
  std::size_t maxLongAnswers = 4;
};

// The connections a server may hold when the process may have `descriptors` open: the configured
// number, but never so many that the connections alone use up the descriptors the rest of the
// program needs (the board, files, the log, answers' files) and leave accept failing until the
// request time frees one.
std::size_t ConnectionCapFor(std::size_t configured, std::uint64_t descriptors);

class WebServer {
 public:
  // Serves the files of `tables` (the first that has a path wins); "/" is "/shell.html".
  WebServer(Window& window, std::vector<const ResourceTable*> tables,
            const WebServerLimits& limits = {});
  ~WebServer();
  WebServer(const WebServer&) = delete;
  WebServer& operator=(const WebServer&) = delete;

  // Listens on `firstPort`, or the next free one of the 100 after it (0: a port the system
  // picks), and starts the I/O thread. False when no port could be had (logged).
  bool Start(std::uint16_t firstPort);
  // The run ends: every browser's WebSocket is sent `message` and closed normally, and one that
  // connects from now on gets only `message`. Waits until each has closed, at most `limit`
  // (a browser that does not answer the close keeps nobody); true when all did in time. Stop
  // then ends what is left.
  bool SayGoodbye(const std::string& message, std::chrono::milliseconds limit);
  // Closes every connection, ends the I/O thread and waits for the long answers' workers, which
  // their failing writes stop. Idempotent.
  void Stop();

  // The routes served beside the files; null serves none. Any thread. A request keeps the api
  // it started with until its answer ends.
  void SetApi(std::shared_ptr<HttpApi> api);

  std::uint16_t Port() const;
  const std::string& Token() const;
  // "http://127.0.0.1:<port>/?token=<token>"
  std::string Url() const;

  struct Impl;  // the Beast side, in WebServer.cpp

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace ui
