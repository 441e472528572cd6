// Feeds arbitrary reply bytes to every decoder of the controllers. The input is a stream the
// in-process board reads its answers from: the link-opened call takes a driver word from it, and
// each command takes a selector byte and then the reply's bytes. Most selectors give the reply
// of the length asked for, so a run gets deep into the operations; the rest give a reply of any
// shorter length or a failed transfer, so the length checks and the error paths are fed too.
// When the stream runs dry every reply is zeros. Finally the raw input is read as a machine image.
//
// Build: see fuzz/README.md. A short run is part of the test suite.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "config/ErrorLog.h"
#include "link/CTavroUsbManualVision.h"
#include "link/CTavroUsbServo.h"
#include "link/MachineImage.h"
#include "platform/Clock.h"
#include "platform/DeviceIo.h"
#include "tests/support/EveryOperation.h"
#include "ui/MessageBox.h"

namespace {

class InputStream {
 public:
  void Reset(const std::uint8_t* data, std::size_t size) {
    data_ = data;
    size_ = size;
    at_ = 0;
  }
  std::uint8_t Byte() { return at_ < size_ ? data_[at_++] : 0; }
  std::uint32_t Word32() {
    std::uint32_t v = 0;
    for (int i = 0; i < 4; ++i)
      v |= static_cast<std::uint32_t>(Byte()) << (8 * i);
    return v;
  }

 private:
  const std::uint8_t* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t at_ = 0;
};

InputStream input;

// Failed transfers the channel tells apart.
constexpr std::uint32_t kStatuses[] = {
    platform::kErrCrc,           platform::kErrSemTimeout,       platform::kErrFileNotFound,
    platform::kErrInvalidHandle, platform::kErrOperationAborted, platform::kErrGenFailure};

std::uint32_t Answer(std::uint32_t code, const std::uint8_t*, std::uint32_t, std::uint8_t* reply,
                     std::uint32_t replyLength, std::uint32_t& bytes) {
  if (code == platform::kLinkOpenedCode) {
    bytes = input.Word32();
    return platform::kErrSuccess;
  }
  const std::uint8_t selector = input.Byte();
  if (selector >= 0xF8) {
    bytes = 0;
    return kStatuses[input.Byte() % std::size(kStatuses)];
  }
  bytes = selector < 0xE0 ? replyLength : input.Byte() % (replyLength + 1);
  for (std::uint32_t i = 0; i < bytes; ++i)
    reply[i] = input.Byte();
  return platform::kErrSuccess;
}

class SilentBoxes : public ui::MessageBoxPresenter {
 public:
  int Show(const std::string&, const std::string&, unsigned) override { return ui::kIdOk; }
};

struct Harness {
  platform::VirtualClock clock;
  platform::ScopedClock scoped{clock};
  platform::ClockParticipant self{clock};
  SilentBoxes boxes;
  std::string entry;

  Harness() {
    platform::SetDeviceDirectory("/nonexistent-tavro-fuzz");
    entry = std::string("/nonexistent-tavro-fuzz/") + platform::kInterfaceClass1 + "/0";
    platform::RegisterEndpoint(entry, Answer);
    ui::SetMessageBoxPresenter(&boxes);
    errorlog::SetErrorLogSink([](const std::string&) {});
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Never destroyed: at exit the clock's per-thread records may already be gone.
  static Harness* harness = new Harness;
  (void)harness;
  input.Reset(data, size);

  // Each controller on a link of its own: a failure closes the link for everything built on it.
  testing_support::OperationLog log;
  if (CTavroUsb link; link.Open(false, false) == 0) {
    CTavroUsbServo servo(link);
    testing_support::RunEveryServoOperation(servo, log);
  }
  if (CTavroUsb link; link.Open(false, false) == 0) {
    CTavroUsbManualVision manual(link);
    testing_support::RunEveryManualVisionOperation(manual, log);
  }

  EepromImage image;
  std::memcpy(image.bytes.data(), data, std::min(size, image.bytes.size()));
  image::ToHostForm(image);
  image::Upgrade(image);
  volatile std::int64_t sink = image.CountsPerMm(0) + image.MotorMaximum(3);
  (void)sink;
  return 0;
}
