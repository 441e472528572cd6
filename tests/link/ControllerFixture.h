// Controllers built on a hand-scripted board whose version record a test chooses. The board
// answers every command with the reply a test put in `replies` for its code, or with as many zero
// bytes as were asked for; every request is recorded, so a test checks what went out and how the
// reply was read.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "link/CTavroUsbManualVision.h"
#include "link/CTavroUsbServo.h"
#include "wire/WireFormat.h"
#include "tests/support/Recorders.h"
#include "tests/support/ScriptedBoard.h"
#include "util/Text.h"

namespace testing_support {

using Bytes = std::vector<std::uint8_t>;

// A reply whose every byte differs from its neighbours, so a field read from a wrong offset
// shows.
inline Bytes Distinct(std::size_t length, std::uint8_t start = 0x10) {
  Bytes b(length);
  for (std::size_t i = 0; i < length; ++i)
    b[i] = static_cast<std::uint8_t>(start + 7 * i);
  return b;
}

// The version reply (0x2B) carrying `v`, written over `r`.
inline Bytes EncodeVersion(const BoardVersionInfo& v, Bytes r = Bytes(69, 0)) {
  wire::PutWideText(r, 1, text::ToUtf16(v.firmwareName));
  wire::PutReal(r, 33, v.firmwareVersion);
  r[37] = static_cast<std::uint8_t>(v.byte37);
  r[39] = v.isServo;
  r[40] = v.hasLightChannels;
  r[41] = static_cast<std::uint8_t>(v.lightChannelCount);
  r[42] = v.flag42;
  r[43] = v.isManualVision;
  r[44] = static_cast<std::uint8_t>(v.word44);
  r[48] = v.flag48;
  for (int i = 0; i < 4; ++i)
    r[50 + i] = v.flags50[i];
  r[55] = v.hasCommand72;
  r[56] = static_cast<std::uint8_t>(v.boardRevision);
  r[57] = v.hasWAxis;
  r[58] = v.platenFitted;
  r[59] = v.flag59;
  r[60] = v.hasTouchProbe;
  wire::PutWord(r, 61, v.protocolVersion);
  r[63] = v.laserType;
  r[64] = v.flag64;
  r[65] = v.laserNotReady;
  r[66] = v.eepromInfoLong;
  return r;
}

// The EEPROM description (0x28) in its long form.
inline Bytes LongEepromInfo(std::uint32_t machineSize, std::uint32_t pageSize,
                            std::uint32_t maxReadWrite) {
  Bytes r(32, 0);
  r[1] = 1;
  r[2] = 9;
  wire::PutLong(r, 3, 1000);
  wire::PutLong(r, 7, machineSize);
  wire::PutLong(r, 11, 3000);
  wire::PutLong(r, 15, pageSize);
  wire::PutLong(r, 19, maxReadWrite);
  r[23] = 1;
  return r;
}

// Answers an EEPROM block read (0x29), short or long form, from `memory`.
inline BoardAnswer EepromBlockRead(const BoardRequest& r, const std::uint8_t* memory) {
  const bool isShort = r.replyLength == 96;
  const std::uint32_t address = isShort ? wire::GetWord(r.bytes, 3) : wire::GetLong(r.bytes, 7);
  const std::uint32_t length = isShort ? wire::GetWord(r.bytes, 5) : wire::GetLong(r.bytes, 11);
  Bytes out(r.replyLength, 0);
  std::memcpy(&out[32], memory + address, length);
  return {.bytes = out};
}

inline BoardVersionInfo AutoVisionBoard() {
  BoardVersionInfo v;
  v.firmwareName = "Auto Vision";
  v.firmwareVersion = 2.30f;
  v.isServo = true;
  v.hasLightChannels = true;
  v.lightChannelCount = 24;
  v.hasCommand72 = true;
  v.hasWAxis = true;
  v.platenFitted = true;
  v.hasTouchProbe = true;
  v.protocolVersion = 5;
  v.laserType = 1;
  v.eepromInfoLong = true;
  return v;
}

inline BoardVersionInfo FirstServoBoard(float firmware, std::uint16_t protocol) {
  BoardVersionInfo v = AutoVisionBoard();
  v.firmwareName = "Servo";
  v.firmwareVersion = firmware;
  v.protocolVersion = protocol;
  v.eepromInfoLong = false;
  return v;
}

inline BoardVersionInfo ManualVisionBoard(std::uint16_t protocol) {
  BoardVersionInfo v = AutoVisionBoard();
  v.firmwareName = "Manual Vision";
  v.firmwareVersion = 2.10f;
  v.isServo = false;
  v.isManualVision = true;
  v.protocolVersion = protocol;
  return v;
}

class ControllerTest : public LinkFixture {
 protected:
  BoardVersionInfo version = AutoVisionBoard();
  std::uint32_t driverWord = 0x02040000;
  std::map<std::uint8_t, Bytes> replies;
  // When set, answers the commands of the test's operations in place of `replies`.
  std::function<BoardAnswer(const BoardRequest&)> answer;

  // Each opens a link to a new board of `version` and builds the controller on it. The
  // controllers forget the requests of their start-up, so Sent() holds what the test's
  // operations sent; the bare channel keeps them.
  CTavroUsbServo& Servo() {
    servo_ = std::make_unique<CTavroUsbServo>(Link());
    return Built(*servo_);
  }
  CTavroUsbManualVision& ManualVision() {
    manual_ = std::make_unique<CTavroUsbManualVision>(Link());
    return Built(*manual_);
  }
  CTavroUsb& Base() {
    base_ = std::make_unique<CTavroUsb>(Link());
    built_ = true;
    return *base_;
  }
  // A new board, not yet opened; the controllers built on the last one go with it.
  void Plug() {
    servo_.reset();
    manual_.reset();
    base_.reset();
    board_.reset();
    built_ = false;
    board_ = std::make_unique<ScriptedBoard>(dir.Class1(0), driverWord);
    board_->SetHandler([this](const BoardRequest& r) { return Answer(r); });
  }

  std::vector<BoardRequest> Sent() { return board_->Commands(); }
  void Forget() { board_->ClearRequests(); }
  BoardRequest Only() {
    const auto sent = Sent();
    EXPECT_EQ(sent.size(), 1u);
    return sent.empty() ? BoardRequest{} : sent.front();
  }

 private:
  CTavroUsb Link() {
    Plug();
    CTavroUsb link;
    EXPECT_EQ(link.Open(true, false), 0);
    link.SetReportErrors(false);
    return link;
  }
  template <class Controller>
  Controller& Built(Controller& c) {
    built_ = true;
    EXPECT_TRUE(c.IsOpen());
    Forget();
    return c;
  }

  BoardAnswer Answer(const BoardRequest& r) {
    const std::uint8_t code = r.bytes.at(0);
    const auto it = replies.find(code);
    if (code == 0x2B && it == replies.end()) return {.bytes = EncodeVersion(version)};
    if (answer && built_) return answer(r);
    if (it != replies.end()) return {.bytes = it->second};
    Bytes out(r.replyLength, 0);
    if (!out.empty()) out[0] = code;
    return {.bytes = out};
  }

  std::unique_ptr<ScriptedBoard> board_;
  std::atomic<bool> built_{false};

 protected:
  // Destroyed before the board, so their channel closes while the board still serves.
  std::unique_ptr<CTavroUsb> base_;
  std::unique_ptr<CTavroUsbServo> servo_;
  std::unique_ptr<CTavroUsbManualVision> manual_;
};

}  // namespace testing_support
