// The simulator's panel: a page served by tavrosim from which a person works the simulated machine
// (the pendant, e-stop, probe, laser, lights, temperatures and supply rails, friction and blocks,
// unplugging, the fault scripts) and watches what the board sees. It speaks the simulator's one
// control language: every button posts a control line, the same a control socket takes.
//
// Access, since any local user can connect to a port on the loopback: it listens on 127.0.0.1
// only; a random token made per start must come with every request as the query parameter
// `token` (the URL printed at start carries it, the page hands it on); the Host header must name
// 127.0.0.1 or localhost at the panel's port, against pages of other names that resolve here;
// and a request that changes anything (POST /command) must carry an Origin of the panel itself,
// so that no other page the browser shows can post to it. Everything else gets 403.
//
// Limits: a request (headers 8 KB, a command 4 KB) must arrive whole within `requestTime` of the
// connection or of the last answer; at most `maxConnections` are open at once and one more is
// closed at once; one I/O thread serves them all and waits on nothing without a time limit.
//
//   GET  /?token=T              the page
//   GET  /panel.js, /panel.css  its script and style (token required too)
//   GET  /state?token=T         the state as JSON (PanelState.h)
//   POST /command?token=T       one control line as the body; answers {"answer": "..."}
//
// Beast and Asio stay inside Panel.cpp: they cost seconds per translation unit.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace sim {

class Simulator;

struct PanelLimits {
  std::size_t maxConnections = 16;
  std::chrono::milliseconds requestTime{10'000};
};

class Panel {
 public:
  Panel(Simulator& sim, PanelLimits limits = {});
  ~Panel();  // Stop()
  Panel(const Panel&) = delete;
  Panel& operator=(const Panel&) = delete;

  // Listens on 127.0.0.1:`port` (0: a port the system picks) and starts the I/O thread. False,
  // with a reason, when the port cannot be had.
  bool Start(std::uint16_t port, std::string* error = nullptr);
  // Closes every connection and ends the I/O thread. Harmless when not started.
  void Stop();

  std::uint16_t Port() const;
  const std::string& Token() const;
  // "http://127.0.0.1:<port>/?token=<token>"
  std::string Url() const;

  struct Impl;  // the Asio side, in Panel.cpp

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace sim
