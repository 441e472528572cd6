// A small program on the window framework for the browser tests and for trying the shell by
// hand: a page with a question from a worker thread, a choice dialog, a message window with a
// progress bar, the file access warning (the real message window, fed from a worker thread), and
// a slider with its raw text box. Usage: ui_demo [--port N]   (N 0: any free port). Ends on
// SIGINT/SIGTERM or the menu's Close.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "config/FileAccess.h"
#include "config/FileAccessWarnings.h"
#include "platform/Clock.h"
#include "platform/TaskLoop.h"
#include "ui/MessageBox.h"
#include "ui/MessageWindow.h"
#include "ui/StopSignals.h"
#include "ui/WebServer.h"
#include "ui/Window.h"

namespace ui {
const ResourceTable& DemoResources();
}

namespace {

constexpr int kLevelMax = 1000;

// Worker threads of the demo, joined at the end (after the window released any that wait).
class Workers {
 public:
  template <typename Fn>
  void Start(Fn fn) {
    std::lock_guard lock(mutex_);
    threads_.push_back(platform::ParticipantThread(std::move(fn)));
  }
  ~Workers() {
    for (auto& t : threads_)
      platform::Join(t);
  }

 private:
  std::mutex mutex_;
  std::vector<std::thread> threads_;
};

class ControlsPage : public ui::HtmlPage {
 public:
  ControlsPage(ui::Window& window, platform::TaskLoop& loop, Workers& workers)
      : HtmlPage("/pages/demo_a.html"), window_(window), loop_(loop), workers_(workers) {
    Events().OnClick("CountButton", [this](const ui::Event&) {
      Doc().SetText("ClickCount", std::to_string(++clicks_));
    });
    Events().OnClick("AskButton", [this](const ui::Event&) { Ask(); });
    Events().OnClick("ChooseButton", [this](const ui::Event&) { Choose(); });
    Events().OnClick("WindowButton", [this](const ui::Event&) { OpenWindow(); });
    Events().OnClick("FileWarningButton", [this](const ui::Event&) {
      // Two files that cannot be opened, told from another thread as a store would.
      workers_.Start([] {
        config::ReportFileAccessError(
            "/var/lib/Halvern Corporation/Mirava for Windows/Configuration/Mirava.ini",
            "Permission denied", config::kModeWrite);
        config::ReportFileAccessError("/var/lib/Halvern Corporation/Mirava for Windows/users.dat",
                                      "No such file or directory", 0);
      });
    });
    Events().OnClick("EnableBox", [this](const ui::Event&) {
      Doc().Enable("CountButton", Doc().Checked("EnableBox"));
    });
    Events().OnChange("Level", [this](const ui::Event&) {
      Doc().SetText("RawLevel", std::to_string(Doc().SliderPosition("Level")));
    });
    Events().OnChange("RawLevel", [this](const ui::Event&) { RawLevelChanged(); });
    // A pretend test run: the title bar's STOP shows while it runs and ends it.
    Events().OnClick("RunButton", [this](const ui::Event&) {
      window_.SetStopControl("Demo Axis Test");
      Doc().SetText("RunState", "Running");
    });
    window_.SetStopHandler([this] {
      window_.SetStopControl("");
      Doc().SetText("RunState", "Stopped");
    });
    Doc().SetText("Greeting", "Hello from the program");
    Doc().SetChecked("EnableBox", true);
    Doc().SetSliderRange("Level", 0, kLevelMax);
    Doc().SetSliderSteps("Level", 1, 16);
    Doc().SetSliderTicks("Level", kLevelMax / 16);
    Doc().SetSliderPosition("Level", 250);
    Doc().SetText("RawLevel", "250");
  }

  void Tick() {
    if (progressWindow_ && progressWindow_->IsOpen()) {
      progress_ = (progress_ + 10) % (ui::kProgressMax + 10);
      progressWindow_->SetProgress(progress_);
    }
  }

  void OnShowWindow(bool shown) override { Doc().SetText("State", shown ? "Shown" : "Hidden"); }
  void OnCancel() override { Doc().SetText("CancelCount", std::to_string(++cancels_)); }

 private:
  void Ask() {
    Doc().SetText("Answer", "waiting...");
    workers_.Start([this] {
      const int answer =
          ui::MessageBox("Did the machine move correctly?", "TavroTest", ui::kMbYesNo);
      loop_.Post([this, answer] { Doc().SetText("Answer", answer == ui::kIdYes ? "Yes" : "No"); });
    });
  }

  void Choose() {
    workers_.Start([this] {
      const ui::ChoiceDialog dialog{"Dialog",
                                    {"Position will begin moving. Click OK to begin the test."},
                                    "Voltage Limit",
                                    {"Standard", "High", "No Limit"},
                                    0};
      const ui::ChoiceResult r = window_.ShowChoice(dialog);
      const std::string text =
          r.result == ui::kIdOk ? "OK " + std::to_string(r.choice) : std::string("Cancel");
      loop_.Post([this, text] { Doc().SetText("Choice", text); });
    });
  }

  void OpenWindow() {
    if (progressWindow_ && progressWindow_->IsOpen()) return;
    ui::MessageWindowContent content;
    content.title = "Copying data";
    content.text = "Moving the configuration files.\nThis can take a minute.";
    content.buttons = {"Pause", "Close"};
    content.progressBar = true;
    progress_ = 0;
    progressWindow_ = window_.OpenMessageWindow(content, [this](int button) {
      if (button == 1 || button == ui::kWindowClosed) progressWindow_->Close();
      if (button == 0) progressWindow_->SetText("Paused.");
    });
  }

  // A number in the slider's range moves it; anything else puts the slider's value back.
  void RawLevelChanged() {
    const std::string text = Doc().Text("RawLevel");
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (!text.empty() && *end == '\0' && value >= 0 && value <= kLevelMax)
      Doc().SetSliderPosition("Level", static_cast<int>(value));
    Doc().SetText("RawLevel", std::to_string(Doc().SliderPosition("Level")));
  }

  ui::Window& window_;
  platform::TaskLoop& loop_;
  Workers& workers_;
  int clicks_ = 0;
  int cancels_ = 0;
  int progress_ = 0;
  std::shared_ptr<ui::MessageWindowView> progressWindow_;
};

}  // namespace

int main(int argc, char** argv) {
  std::uint16_t port = ui::DefaultPort();
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], "--port") == 0)
      port = static_cast<std::uint16_t>(std::atoi(argv[++i]));
  }

  platform::TaskLoop loop;
  ui::StopSignals signals(loop, 0);
  ui::Window window(loop);
  Workers workers;
  ControlsPage controls(window, loop, workers);
  window.AddPage("Demo Controls", controls);
  window.SetTitle("TavroTest : Connected");
  ui::SetMessageBoxPresenter(&window);
  Utility::SetMessageWindowHost(&loop, &window);
  auto fileWarnings = std::make_unique<FileAccessWarnings>();

  ui::WebServer server(window, {&ui::ShellResources(), &ui::DemoResources()});
  if (!server.Start(port)) return 1;
  std::printf("TavroTest UI: %s\n", server.Url().c_str());
  std::fflush(stdout);

  loop.SetTimer(1, platform::Milliseconds(200), [&](unsigned) { controls.Tick(); });
  const int code = loop.Run();

  fileWarnings.reset();
  Utility::SetMessageWindowHost(nullptr, nullptr);
  ui::SetMessageBoxPresenter(nullptr);
  window.Shutdown();
  server.Stop();
  return code;
}
