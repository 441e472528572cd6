// The process: the UI thread's loop, the window and its web server, then the application's one
// call. Signals are taken first, before any other thread exists, so that SIGINT and SIGTERM end
// the run the way the window's Close does.
#include <cstdio>

#include "app/CTavroTestApp.h"
#include "platform/TaskLoop.h"
#include "ui/MessageBox.h"
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
  ui::SetMessageBoxPresenter(&window);

  AppFrame frame{loop, window};
  CTavroTestApp app(&frame);
  app.InitInstance();

  ui::SetMessageBoxPresenter(nullptr);
  window.Shutdown();
  server.Stop();
  // Every way of ending gives the same result: the user has already seen why.
  return 0;
}
