// A controller built on a hand-scripted board whose version record a test chooses. The board
// answers every command with the reply a test put in `replies` for its code, or with as many
// zero bytes as were asked for; every request is recorded, so a test checks what went out and how
// the reply was read.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "link/CTavroUsbManualVision.h"
#include "link/CTavroUsbServo.h"
#include "link/WireFormat.h"
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

inline Bytes EncodeVersion(const BoardVersionInfo& v) {
  Bytes r(69, 0);
  wire::PutWideText(r, 1, text::ToUtf16(v.firmwareName));
  wire::PutReal(r, 33, v.firmwareVersion);
  r[39] = v.isServo;
  r[40] = v.hasLightChannels;
  r[41] = static_cast<std::uint8_t>(v.lightChannelCount);
  r[43] = v.isManualVision;
  r[55] = v.hasCommand72;
  r[57] = v.hasWAxis;
  r[58] = v.platenFitted;
  r[60] = v.hasTouchProbe;
  wire::PutWord(r, 61, v.protocolVersion);
  r[63] = v.laserType;
  r[65] = v.laserNotReady;
  r[66] = v.eepromInfoLong;
  return r;
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

  // Opens a link to a board of `version` and builds the controller on it; the requests of the
  // start-up are forgotten, so Sent() holds what the test's operations sent.
  CTavroUsbServo& Servo() {
    servo_ = std::make_unique<CTavroUsbServo>(Link());
    built_ = true;
    EXPECT_TRUE(servo_->IsOpen());
    board_->ClearRequests();
    return *servo_;
  }
  CTavroUsbManualVision& ManualVision() {
    manual_ = std::make_unique<CTavroUsbManualVision>(Link());
    built_ = true;
    EXPECT_TRUE(manual_->IsOpen());
    board_->ClearRequests();
    return *manual_;
  }

  std::vector<BoardRequest> Sent() { return board_->Commands(); }
  void Forget() { board_->ClearRequests(); }
  BoardRequest Only() {
    const auto sent = Sent();
    EXPECT_EQ(sent.size(), 1u);
    return sent.empty() ? BoardRequest{} : sent.front();
  }

 private:
  // A new board replaces the last one, and the controllers built on that one go with it.
  CTavroUsb Link() {
    servo_.reset();
    manual_.reset();
    board_.reset();
    built_ = false;
    board_ = std::make_unique<ScriptedBoard>(dir.Class1(0), driverWord);
    board_->SetHandler([this](const BoardRequest& r) { return Answer(r); });
    CTavroUsb link;
    EXPECT_EQ(link.Open(true, false), 0);
    link.SetReportErrors(false);
    return link;
  }

  BoardAnswer Answer(const BoardRequest& r) {
    if (r.bytes.at(0) == 0x2B) return {.bytes = EncodeVersion(version)};
    if (answer && built_) return answer(r);
    const auto it = replies.find(r.bytes.at(0));
    if (it != replies.end()) return {.bytes = it->second};
    Bytes out(r.replyLength, 0);
    if (!out.empty()) out[0] = r.bytes.at(0);
    return {.bytes = out};
  }

  std::unique_ptr<ScriptedBoard> board_;
  std::atomic<bool> built_{false};

 protected:
  // The controllers last built; destroyed before the board, so their channel closes while the
  // board still serves.
  std::unique_ptr<CTavroUsbServo> servo_;
  std::unique_ptr<CTavroUsbManualVision> manual_;
};

}  // namespace testing_support
