// What the simulator's tests share: a device client written with raw sockets (independent of the
// host's transport, so that both ends are checked against each other only in integration tests),
// and a fixture that runs a simulator in virtual time with the test thread taking part in it.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "sim/Simulator.h"
#include "tests/support/TempDirs.h"

namespace sim::testing {

using Packet = std::vector<std::uint8_t>;

struct RawReply {
  std::uint32_t tag = 0;
  std::uint32_t status = 0;
  std::uint32_t count = 0;  // bytesReturned as the header claims it
  Packet bytes;
};

class RawClient {
 public:
  explicit RawClient(const std::string& path);
  ~RawClient();
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool Connected() const { return fd_ >= 0; }
  void SendDatagram(const Packet& datagram);
  void Send(std::uint32_t tag, std::uint32_t code, std::uint32_t replyLength, const Packet& packet);
  // The next reply, or nothing when none comes within `wait` (virtual time) or the board left.
  std::optional<RawReply> Receive(platform::Duration wait = std::chrono::seconds(10));
  // True when the board hangs up within `wait`.
  bool WaitHungUp(platform::Duration wait = std::chrono::seconds(10));

  // One normal command with a fresh tag; a missing reply fails the test and gives status ~0.
  RawReply Command(const Packet& packet, std::uint32_t replyLength);
  RawReply LinkOpened();

 private:
  int fd_ = -1;
  std::uint32_t nextTag_ = 100;
};

// A packet of `length` bytes: the code, then `fill` (zero-filled behind it).
Packet Request(std::uint8_t code, std::size_t length, const Packet& fill = {});

class SimTest : public ::testing::Test {
 protected:
  SimTest();
  ~SimTest() override;

  // Starts a simulator of `profile` at the default entry (class 1, index 0).
  void StartBoard(const std::string& profile, SimulatorOptions options = {});
  std::unique_ptr<RawClient> Connect() { return std::make_unique<RawClient>(sim_->EntryPath()); }
  // Starts `profile` without diagnostic chatter and connects `client_` to it.
  void StartConnected(const std::string& profile);
  // Runs a control line and expects it to succeed.
  std::string Control(const std::string& line);
  // Expects every one of `lines` to be refused with an error.
  void ExpectRefused(std::initializer_list<const char*> lines);
  // What the control language says of `axis` (x, y, z, w, platen): its place, and whether the
  // answer holds `part`.
  double Position(const std::string& axis);
  bool AxisShows(const std::string& axis, const std::string& part);

  platform::VirtualClock clock_;
  platform::ScopedClock scoped_{clock_};
  platform::ClockParticipant participant_{clock_};
  testing_support::ScratchDir scratch_;
  const std::string dir_ = scratch_.Path();
  std::unique_ptr<Simulator> sim_;
  std::unique_ptr<RawClient> client_;
};

}  // namespace sim::testing
