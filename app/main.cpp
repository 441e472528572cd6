// The process: the UI thread's loop, the window and its web server, then the application's one
// call. Signals are taken first, before any other thread exists, so that SIGINT and SIGTERM end
// the run the way the window's Close does.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include "app/CTavroTestApp.h"
#include "app/CTavroTestDlg.h"
#include "config/FileAccessWarnings.h"
#include "platform/PowerEvents.h"
#include "platform/TaskLoop.h"
#include "ui/MessageBox.h"
#include "ui/StopSignals.h"
#include "ui/WebServer.h"
#include "ui/Window.h"
#include "util/MessageWindow.h"

namespace {

// In a desktop session the window opens in the user's browser by itself; anywhere else the
// printed address is the way in. The opener runs detached; the run never waits on it.
void OpenBrowser(const std::string& url) {
  const char* x = std::getenv("DISPLAY");
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  if ((!x || !*x) && (!wayland || !*wayland)) return;
  posix_spawn_file_actions_t quiet;
  posix_spawn_file_actions_init(&quiet);
  posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&quiet, 2, "/dev/null", O_WRONLY, 0);
  // The opener must not inherit the blocked SIGINT/SIGTERM of this process.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  char opener[] = "xdg-open";
  std::string target = url;
  char* argv[] = {opener, target.data(), nullptr};
  pid_t pid = 0;
  if (posix_spawnp(&pid, opener, &quiet, &attributes, argv, environ) == 0) {
    // xdg-open hands the page to the browser and ends; reap it so no zombie stays.
    std::thread([pid] { ::waitpid(pid, nullptr, 0); }).detach();
  }
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&quiet);
}

}  // namespace

int main() {
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
  OpenBrowser(server.Url());
  ui::SetMessageBoxPresenter(&window);
  Utility::SetMessageWindowHost(&loop, &window);
  // Files of the shared folders that cannot be opened are told in one message window.
  auto fileAccessWarnings = std::make_unique<FileAccessWarnings>();

  AppFrame frame{loop, window};
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
  server.Stop();
  // Every way of ending gives the same result: the user has already seen why.
  return 0;
}
