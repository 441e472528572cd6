// Opens the window in the user's browser without showing its address to other users. The
// address carries the run's token, and a command line is readable by every user (ps, /proc), so
// the opener is not given the address: it is given the path of a small page that sends the
// browser on to it, in a folder of its own (mode 0700) as a file only this user can read (0600).
#pragma once

#include <string>
#include <vector>

class BrowserOpener {
 public:
  // Writes the page for `url` into a new folder under `base` (empty: $XDG_RUNTIME_DIR when set,
  // else /tmp). Path() is empty when it could not be written.
  explicit BrowserOpener(const std::string& url, const std::string& base = "");
  // Removes the page and its folder.
  ~BrowserOpener();
  BrowserOpener(const BrowserOpener&) = delete;
  BrowserOpener& operator=(const BrowserOpener&) = delete;

  const std::string& Path() const { return path_; }
  // The opener's command line: xdg-open and the page's path; empty without a page.
  std::vector<std::string> Command() const;
  // Runs Command() detached when a desktop session is present (DISPLAY or WAYLAND_DISPLAY);
  // never waits for it.
  void Open() const;

 private:
  std::string folder_;
  std::string path_;
};
