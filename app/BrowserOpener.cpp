#include "app/BrowserOpener.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

namespace {

std::string HtmlEscaped(const std::string& text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

bool WriteAll(int fd, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

BrowserOpener::BrowserOpener(const std::string& url, const std::string& base) {
  std::string root = base;
  if (root.empty()) {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    root = runtime && *runtime ? runtime : "/tmp";
  }
  std::string pattern = root + "/tavrotest-XXXXXX";
  if (!::mkdtemp(pattern.data())) return;  // mode 0700
  folder_ = pattern;
  const std::string path = folder_ + "/open.html";
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return;
  const std::string href = HtmlEscaped(url);
  const std::string page =
      "<!DOCTYPE html>\n<meta charset=\"utf-8\">\n<meta name=\"referrer\" "
      "content=\"no-referrer\">\n"
      "<meta http-equiv=\"refresh\" content=\"0;url=" +
      href + "\">\n<title>TavroTest</title>\n<a href=\"" + href + "\">TavroTest</a>\n";
  const bool written = ::fchmod(fd, 0600) == 0 && WriteAll(fd, page);
  if (::close(fd) == 0 && written) {
    path_ = path;
  } else {
    ::unlink(path.c_str());
  }
}

BrowserOpener::~BrowserOpener() {
  if (!path_.empty()) ::unlink(path_.c_str());
  if (!folder_.empty()) ::rmdir(folder_.c_str());
}

std::vector<std::string> BrowserOpener::Command() const {
  if (path_.empty()) return {};
  return {"xdg-open", path_};
}

void BrowserOpener::Open() const {
  const char* x = std::getenv("DISPLAY");
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  if ((!x || !*x) && (!wayland || !*wayland)) return;
  std::vector<std::string> command = Command();
  if (command.empty()) return;
  std::vector<char*> argv;
  for (std::string& arg : command)
    argv.push_back(arg.data());
  argv.push_back(nullptr);
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
  pid_t pid = 0;
  if (posix_spawnp(&pid, argv[0], &quiet, &attributes, argv.data(), environ) == 0) {
    // xdg-open hands the page to the browser and ends; reap it so no zombie stays.
    std::thread([pid] { ::waitpid(pid, nullptr, 0); }).detach();
  }
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&quiet);
}
