// The process: the UI thread's loop, the window and its web server, then the application's one
// call. Signals are taken first, before any other thread exists, so that SIGINT and SIGTERM end
// the run the way the window's Close does.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>

#include "app/BrowserOpener.h"
#include "app/CTavroTestApp.h"
#include "app/CTavroTestDlg.h"
#include "config/FileAccessWarnings.h"
#include "platform/DeviceIo.h"
#include "platform/PowerEvents.h"
#include "platform/TaskLoop.h"
#include "ui/MessageBox.h"
#include "ui/MessageWindow.h"
#include "ui/Protocol.h"
#include "ui/StopSignals.h"
#include "ui/WebServer.h"
#include "ui/Window.h"

namespace {

// How long the end of the run waits for the browsers to take the goodbye and close.
constexpr std::chrono::milliseconds kGoodbyeTime{1000};

constexpr const char* kUsage = "usage: tavrotest [--version | --help]\n";

// TavroTest takes no arguments; only these two questions are answered, each on its own, and the
// program ends. Anything else ends it with status 2 before a port is taken or a file touched.
// Returns the exit status, or -1 to run.
int AnswerCommandLine(int argc, char** argv) {
  if (argc <= 1) return -1;
  const bool version = std::strcmp(argv[1], "--version") == 0;
  const bool help = std::strcmp(argv[1], "--help") == 0;
  if (argc > 2 || (!version && !help)) {
    std::fprintf(stderr, "tavrotest: unexpected argument '%s'\n%s", argv[version || help ? 2 : 1],
                 kUsage);
    return 2;
  }
  if (version) {
    std::printf("tavrotest %s\n", TAVRO_PRODUCT_VERSION);
    return 0;
  }
  std::printf(
      "%s\n"
      "The service and diagnostic tool of the video measuring machines. Run as root; it prints\n"
      "the address of its window (a local web page on 127.0.0.1) and opens it in the browser\n"
      "of a desktop session. Motion test reports go to the folder of the program file.\n"
      "\n"
      "  --version  print the version and end\n"
      "  --help     print this text and end\n"
      "\n"
      "Environment: TAVRO_DEVICE_DIR (the device folder, else /run/hnusb), TAVROTEST_PORT (the\n"
      "window's port, else 7570). See tavrotest(1).\n",
      kUsage);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (const int status = AnswerCommandLine(argc, argv); status >= 0) return status;
  platform::TaskLoop loop;
  ui::StopSignals signals(loop, ui::kIdCancel);
  ui::Window window(loop);
  ui::WebServer server(window, {&ui::ShellResources()});
  if (!server.Start(ui::DefaultPort())) {
    std::fprintf(stderr, "TavroTest: no port for the window on 127.0.0.1\n");
    return 1;
  }
  std::printf("TavroTest UI: %s\n", server.Url().c_str());
  std::fflush(stdout);
  // In a desktop session the window opens in the user's browser by itself; anywhere else the
  // printed address is the way in.
  const BrowserOpener opener(server.Url());
  opener.Open();
  ui::SetMessageBoxPresenter(&window);
  Utility::SetMessageWindowHost(&loop, &window);
  // Files of the shared folders that cannot be opened are told in one message window.
  auto fileAccessWarnings = std::make_unique<FileAccessWarnings>();

  AppFrame frame{loop, window};
  frame.serveRoutes = [&server](std::shared_ptr<ui::HttpApi> api) {
    server.SetApi(std::move(api));
  };
  // The computer's sleep and wake go to the main dialog that runs at the time, on the UI thread.
  // Without a system bus there are no such notices, and nothing else changes.
  platform::SleepWatcher sleepWatcher([&loop, &frame](unsigned event) {
    loop.Post([&frame, event] {
      if (frame.mainWindow) frame.mainWindow->OnPowerBroadcast(event);
    });
  });
  sleepWatcher.Start();
  CTavroTestApp app(&frame);
  app.InitInstance();

  sleepWatcher.Stop();
  fileAccessWarnings.reset();
  Utility::SetMessageWindowHost(nullptr, nullptr);
  ui::SetMessageBoxPresenter(nullptr);
  window.Shutdown();
  // The browsers learn why the window ends before their connections close; a browser whose
  // connection closes without this goodbye takes it for a crash.
  const std::string ending = signals.Received()        ? "interrupted"
                             : window.Ending().empty() ? "ended"
                                                       : window.Ending();
  server.SayGoodbye(
      ui::protocol::EncodeGoodbye(ending, ending == "no-board" ? platform::DeviceDirectory() : ""),
      kGoodbyeTime);
  server.Stop();
  // Every way of ending gives the same result: the user has already seen why.
  return 0;
}
