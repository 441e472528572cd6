// The status poll, the call every page's timer makes, measured three ways in one run so the
// figures can be set side by side:
//   - PollStatusDecode: the long form (221 bytes) taken apart, with the channel's own work
//     (slot lock, length check) but no I/O: an in-process endpoint hands back a recorded reply.
//   - PollRoundTrip: the whole poll to the simulated board over its socket, as the program does
//     it: the caller's thread, the device's reader thread and the board's connection thread.
//   - SocketFloor: the same datagram sizes bounced off a thread over a bare SOCK_SEQPACKET
//     pair, the least any poll over a socket can cost on this machine.
// Run: ninja -C build poll_bench && build/bench/poll_bench
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "link/CTavroUsbServo.h"
#include "platform/DeviceIo.h"
#include "sim/Board.h"
#include "sim/Profiles.h"
#include "sim/Simulator.h"
#include "tests/support/TempDirs.h"

namespace {

constexpr std::uint32_t kPollRequestBytes = 3;
constexpr std::uint32_t kLongFormBytes = 221;

void PollStatusDecode(benchmark::State& state) {
  const testing_support::TempDeviceDir devices;
  const std::string entry = devices.Class1(0);
  const sim::Profile& profile = *sim::FindProfile("autovision");
  sim::Board board(profile, platform::Duration::zero(), platform::Clock::Current().Now());
  // The board answers the open; the first poll's reply is kept and handed back from then on.
  std::vector<std::uint8_t> recorded;
  std::uint8_t pollCode = 0;
  platform::RegisterEndpoint(
      entry, [&](std::uint32_t code, const std::uint8_t* request, std::uint32_t requestLength,
                 std::uint8_t* reply, std::uint32_t replyLength, std::uint32_t& bytes) {
        if (code == platform::kLinkOpenedCode) {
          bytes = profile.driverWord;
          return platform::kErrSuccess;
        }
        if (pollCode != 0 && request[0] == pollCode && recorded.size() == replyLength) {
          std::memcpy(reply, recorded.data(), replyLength);
          bytes = replyLength;
          return platform::kErrSuccess;
        }
        const sim::BoardReply answer = board.Execute({request, requestLength});
        bytes = static_cast<std::uint32_t>(std::min<std::size_t>(answer.bytes.size(), replyLength));
        std::memcpy(reply, answer.bytes.data(), bytes);
        if (replyLength == kLongFormBytes) {
          pollCode = request[0];
          recorded = answer.bytes;
        }
        return platform::kErrSuccess;
      });
  CTavroUsb link;
  if (link.Open(false, false) != 0) {
    state.SkipWithError("the in-process board did not open");
    return;
  }
  CTavroUsbServo servo(link);
  ServoStatus status;
  if (!servo.PollStatus(status, 0, 0) || recorded.size() != kLongFormBytes) {
    state.SkipWithError("no long-form poll");
    return;
  }
  for (auto _ : state) {
    servo.PollStatus(status, 0, 0);
    benchmark::DoNotOptimize(status);
  }
  platform::UnregisterEndpoint(entry);
}
BENCHMARK(PollStatusDecode);

void PollRoundTrip(benchmark::State& state) {
  const testing_support::TempDeviceDir devices;
  sim::Simulator simulator(
      {.profile = "autovision", .deviceDir = devices.Path(), .diagPeriod = {}});
  std::string error;
  if (!simulator.Start(&error)) {
    state.SkipWithError(error.c_str());
    return;
  }
  CTavroUsb link;
  if (link.Open(false, false) != 0) {
    state.SkipWithError("the simulated board did not open");
    return;
  }
  CTavroUsbServo servo(link);
  ServoStatus status;
  for (auto _ : state) {
    if (!servo.PollStatus(status, 0, 0)) {
      state.SkipWithError("a poll failed");
      break;
    }
    benchmark::DoNotOptimize(status);
  }
}
BENCHMARK(PollRoundTrip)->UseRealTime();

void SocketFloor(benchmark::State& state) {
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds) != 0) {
    state.SkipWithError("socketpair failed");
    return;
  }
  std::thread echo([fd = fds[1]] {
    std::array<std::uint8_t, 512> buffer{};
    std::array<std::uint8_t, platform::kHeaderBytes + kLongFormBytes> reply{};
    while (::recv(fd, buffer.data(), buffer.size(), 0) > 0) {
      if (::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL) < 0) break;
    }
  });
  std::array<std::uint8_t, platform::kHeaderBytes + kPollRequestBytes> request{};
  std::array<std::uint8_t, 512> reply{};
  for (auto _ : state) {
    ::send(fds[0], request.data(), request.size(), MSG_NOSIGNAL);
    benchmark::DoNotOptimize(::recv(fds[0], reply.data(), reply.size(), 0));
  }
  ::shutdown(fds[0], SHUT_RDWR);
  echo.join();
  ::close(fds[0]);
  ::close(fds[1]);
}
BENCHMARK(SocketFloor)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
