// Pages against the simulated board, in virtual time: a board of a profile, its controller, and
// the document a page fills.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>

#include "link/CTavroUsbManualVision.h"
#include "link/CTavroUsbServo.h"
#include "pages/CTabDlg.h"
#include "sim/Simulator.h"
#include "tests/support/Recorders.h"

namespace testing_support {

class PageFixture : public LinkFixture {
 protected:
  void Start(const std::string& profile) {
    board_ = std::make_unique<sim::Simulator>(sim::SimulatorOptions{
        .profile = profile, .deviceDir = dir.Path(), .diagPeriod = platform::Duration::zero()});
    std::string error;
    ASSERT_TRUE(board_->Start(&error)) << error;
    ASSERT_EQ(link_.Open(true, false), 0);
    ASSERT_TRUE(link_.ReadBoardVersion(version_));
    link_.SetReportErrors(false);
  }
  CTavroUsbServo& Servo() {
    if (!servo_) servo_ = std::make_unique<CTavroUsbServo>(link_);
    return *servo_;
  }
  CTavroUsbManualVision& Manual() {
    if (!manual_) manual_ = std::make_unique<CTavroUsbManualVision>(link_);
    return *manual_;
  }
  std::string Control(const std::string& line) {
    const std::string answer = board_->Command(line);
    EXPECT_EQ(answer.rfind("ok", 0), 0u) << line << " -> " << answer;
    return answer;
  }

  std::unique_ptr<sim::Simulator> board_;
  CTavroUsb link_;
  BoardVersionInfo version_;
  std::unique_ptr<CTavroUsbServo> servo_;
  std::unique_ptr<CTavroUsbManualVision> manual_;
};

// One page of the board in front: what the page tests look at and do.
class OnePageFixture : public PageFixture {
 protected:
  // The controller a page of `Page` works through.
  template <class Page>
  auto* ControllerOf() {
    if constexpr (std::is_base_of_v<CTabManualVisionDlg, Page>) {
      return &Manual();
    } else {
      return &Servo();
    }
  }
  // `Page` on its controller, shown, after its first reset with `record`.
  template <class Page>
  void Show(const BoardVersionInfo& record) {
    page = std::make_unique<Page>(ControllerOf<Page>(), record);
    page->PageReady = true;
    page->ResetPage(record);
  }
  std::string Text(const std::string& id) { return page->Doc().Text(id); }
  bool Has(const std::string& id) { return page->Doc().Snapshot().elements.count(id) != 0; }
  void Click(const std::string& id) { page->Events().Dispatch(ui::Event{.id = id}); }
  std::uint32_t Sent(std::uint8_t code) { return board_->TrafficSeen().commands[code]; }
  // Opens the link again, as after a change of the board's firmware.
  void Reconnect() {
    link_.Close();
    ASSERT_EQ(link_.Open(true, false), 0);
    ASSERT_TRUE(link_.ReadBoardVersion(version_));
    link_.SetReportErrors(false);
  }
  // Ends the page and the board of one case, so that the next can start its own.
  void StopBoard() {
    page.reset();
    servo_.reset();
    manual_.reset();
    link_.Close();
    board_->Stop();
  }

  ServoStatus status_{};
  std::unique_ptr<CTabPage> page;  // goes before the controllers it uses
};

}  // namespace testing_support
