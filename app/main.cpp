// The process: the UI thread's loop, the window and its web server, then the application's one
// call. Signals are taken first, before any other thread exists, so that SIGINT and SIGTERM end
// the run the way the window's Close does.
#include <cstdio>
#include <memory>

#include "app/BrowserOpener.h"
#include "app/CTavroTestApp.h"
#include "app/CTavroTestDlg.h"
#include "config/FileAccessWarnings.h"
#include "platform/PowerEvents.h"
#include "platform/TaskLoop.h"
#include "ui/MessageBox.h"
#include "ui/MessageWindow.h"
#include "ui/StopSignals.h"
#include "ui/WebServer.h"
#include "ui/Window.h"

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
  server.Stop();
  // Every way of ending gives the same result: the user has already seen why.
  return 0;
}
