// Start-up against a hand-scripted board: every way of ending, and the machine selection table.
#include <gtest/gtest.h>

#include <optional>

#include "app/CTavroTestApp.h"
#include "link/CTavroUsbManualVision.h"
#include "link/CTavroUsbServo.h"
#include "link/LinkMessages.h"
#include "platform/Clock.h"
#include "tests/support/Recorders.h"
#include "tests/support/ScriptedBoard.h"
#include "util/Text.h"
#include "wire/WireFormat.h"

namespace {

using namespace testing_support;

struct Board {
  std::u16string name = u"Auto Vision";
  bool isServo = true;
  bool isManualVision = false;
  std::uint16_t protocol = 5;
};

// What InitInstance handed to the main dialog, if it got that far.
class RecordingApp : public CTavroTestApp {
 public:
  std::string dialog;
  std::optional<MachineKind> machineKind;  // set by the servo dialog only
  bool controllerOpen = false;

 protected:
  void RunServoDialog(CTavroUsbServo& servo, const BoardVersionInfo&) override {
    dialog = "CTavroTestDlg";
    machineKind = servo.GetMachineKind();
    controllerOpen = servo.IsOpen();
  }
  void RunManualVisionDialog(CTavroUsbManualVision& manual, const BoardVersionInfo&) override {
    dialog = "CTavroTestManualVisionDlg";
    controllerOpen = manual.IsOpen();
  }
};

class StartupTest : public LinkFixture {
 protected:
  Board fake;
  int versionQueries = 0;
  int failVersionQueryFrom = 1000;

  std::unique_ptr<ScriptedBoard> Plug() {
    auto board = std::make_unique<ScriptedBoard>(dir.Class1(0));
    board->SetHandler([this](const BoardRequest& r) {
      std::vector<std::uint8_t> out(r.replyLength, 0);
      if (r.bytes.at(0) == 0x2B) {
        if (++versionQueries >= failVersionQueryFrom) return BoardAnswer{.status = 121};
        wire::PutWideText(out, 1, fake.name);
        wire::PutReal(out, 33, 2.3f);
        out[39] = fake.isServo;
        out[43] = fake.isManualVision;
        wire::PutWord(out, 61, fake.protocol);
        out[66] = 1;
      }
      return BoardAnswer{.bytes = out};
    });
    return board;
  }

  RecordingApp Run() {
    RecordingApp app;
    EXPECT_FALSE(app.InitInstance()) << "InitInstance always returns false";
    return app;
  }
};

TEST_F(StartupTest, TheSelectionTablePicksControllerDialogAndKind) {
  struct Case {
    std::u16string name;
    bool isServo, isManualVision;
    std::string dialog;
    std::optional<MachineKind> kind;
  };
  for (const Case& c :
       {Case{u"Auto Vision", true, false, "CTavroTestDlg", MachineKind::AutoVision},
        Case{u"SERVO", true, false, "CTavroTestDlg", MachineKind::Servo},
        Case{u"Servo", true, true, "CTavroTestDlg", MachineKind::Servo},
        Case{u"Prototype", true, false, "CTavroTestDlg", MachineKind::Unknown},
        Case{u"Manual Vision", false, true, "CTavroTestManualVisionDlg", std::nullopt},
        Case{u"Auto Vision", false, false, "", std::nullopt}}) {
    fake = {c.name, c.isServo, c.isManualVision};
    auto board = Plug();
    const RecordingApp app = Run();
    EXPECT_EQ(app.dialog, c.dialog) << text::ToUtf8(c.name);
    EXPECT_EQ(app.machineKind, c.kind) << text::ToUtf8(c.name);
    EXPECT_EQ(app.controllerOpen, !c.dialog.empty());
  }
  EXPECT_TRUE(boxes.Boxes().empty()) << "no way of ending here says a word";
}

TEST_F(StartupTest, NoBoardEndsWithTheOpenMessage) {
  const RecordingApp app = Run();
  EXPECT_EQ(app.dialog, "");
  ASSERT_EQ(boxes.Boxes().size(), 1u);
  EXPECT_NE(boxes.Boxes()[0].text.find("Error: Couldn't open \\\\.\\HnUsb, (2)"),
            std::string::npos);
}

TEST_F(StartupTest, ANewerProtocolEndsWithTheIncompatibleMessage) {
  fake.protocol = 6;
  auto board = Plug();
  const RecordingApp app = Run();
  EXPECT_EQ(app.dialog, "");
  ASSERT_EQ(boxes.Boxes().size(), 1u);
  EXPECT_EQ(boxes.Boxes()[0].text, usb::FirmwareIncompatibleText());
}

// Open's own version query has its tests with the link; start-up asks once more.
TEST_F(StartupTest, AFailedSecondVersionQueryShowsItsTransferDialogAndEnds) {
  failVersionQueryFrom = 2;
  auto board = Plug();
  const RecordingApp app = Run();
  EXPECT_EQ(app.dialog, "");
  ASSERT_EQ(boxes.Boxes().size(), 1u);
  EXPECT_NE(boxes.Boxes()[0].text.find("IOCTL_TAVROUSB_SEND_NORMAL_COMMAND failed: +, The "
                                       "semaphore timeout period has expired."),
            std::string::npos);
}

// Once the dialog runs, a failed transfer is the poll's business: it is only logged.
TEST_F(StartupTest, AfterStartUpALostLinkShowsNoDialog) {
  auto board = Plug();
  struct LosingApp : RecordingApp {
    std::function<void()> unplug;
    bool lost = false;
    void RunServoDialog(CTavroUsbServo& servo, const BoardVersionInfo&) override {
      BoardVersionInfo again;
      unplug();
      lost = !servo.ReadBoardVersion(again) && !servo.IsOpen();
    }
  } app;
  app.unplug = [&] { board.reset(); };
  EXPECT_FALSE(app.InitInstance());
  EXPECT_TRUE(app.lost);
  EXPECT_TRUE(boxes.Boxes().empty());
  EXPECT_EQ(log.Messages().size(), 1u);
}

}  // namespace
