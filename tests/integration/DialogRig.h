// The real main dialog of a profile on the simulated board, run modally on its own UI thread in
// virtual time, its boxes going to the browsers as in the program.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "app/CTavroTestDlg.h"
#include "motion/StageTest.h"
#include "platform/Files.h"
#include "platform/WindowProbe.h"
#include "tests/pages/PageFixture.h"
#include "tests/support/TempDirs.h"
#include "ui/MessageBox.h"

namespace testing_support {

class DialogRig : public PageFixture {
 protected:
  // `beforeDialog` runs once the board is up and before the dialog is made. Returns once the
  // modal run has made its pages and started its timers.
  void OpenDialog(const std::string& profile, bool manualVision,
                  const std::function<void()>& beforeDialog = {}) {
    platform::SetProgramFolder(reports_.Path());
    platform::SetWindowProbe([](const std::string&) { return false; });
    Start(profile);
    if (beforeDialog) beforeDialog();
    ui::SetMessageBoxPresenter(&window);
    if (manualVision) {
      dlg = std::make_unique<CTavroTestManualVisionDlg>(window, loop, &Manual(), version_);
    } else {
      dlg = std::make_unique<CTavroTestDlg>(window, loop, &Servo(), version_);
    }
    // The loop's first task runs once the modal run is under way.
    std::atomic<bool> created{false};
    loop.Post([&] { created = true; });
    ui = platform::ParticipantThread([this] { dlg->DoModal(); });
    for (int step = 0; step < 1500 && !created; ++step)
      clock.SleepFor(std::chrono::milliseconds(20));
    ASSERT_TRUE(created) << "the modal run never started";
  }
  // The modal run ends as the window's Close ends it; returns once the pages are gone.
  void CloseProgram() {
    loop.Quit(ui::kIdCancel);
    platform::Join(ui);
    dlg.reset();
  }
  void TearDown() override {
    if (ui.joinable()) CloseProgram();
    dlg.reset();
    ui::SetMessageBoxPresenter(nullptr);
    platform::SetProgramFolder("");
    platform::SetWindowProbe(nullptr);
    motion::AutoVisionTestState().Reset();
    motion::FirstGenerationTestState().Reset();
  }
  // Runs `look` on the UI thread, which owns the dialog, its pages and their documents, and
  // waits for it.
  void OnUi(const std::function<void()>& look) {
    std::atomic<bool> done{false};
    loop.Post([&] {
      look();
      done = true;
    });
    while (!done)
      clock.SleepFor(std::chrono::milliseconds(1));
  }

  ScratchDir reports_;
  platform::TaskLoop loop;
  ui::Window window{loop};
  std::unique_ptr<CTavroTestDlgBase> dlg;
  std::thread ui;
};

}  // namespace testing_support
