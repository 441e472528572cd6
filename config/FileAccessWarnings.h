// The process's collector of failed file opens. It tells the user, in one non-blocking message
// window, which files could not be opened and why: each failure once, the text growing while the
// window is up. Dismissing the window forgets what was shown, so a failure may be told again.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <tuple>

#include "config/FileAccess.h"
#include "util/WinX.h"

namespace Utility {
class MessageInteractionIFace;
}

class FileAccessWarnings : public config::FileAccessSink {
 public:
  // Becomes the process's sink of failures (config::SetFileAccessSink) until its end.
  FileAccessWarnings();
  // Closes a window that is still up.
  ~FileAccessWarnings() override;
  FileAccessWarnings(const FileAccessWarnings&) = delete;
  FileAccessWarnings& operator=(const FileAccessWarnings&) = delete;

  // Any thread. Adds a failure that isn't shown yet: opens the window with it, or adds it to the
  // window's text.
  void Report(std::shared_ptr<config::FileAccessInfo> info) override;
  // When the window is done: forgets everything shown.
  void Clear();

  // The window's text as it stands.
  std::string MessageText();

  // One failure's paragraph: the lead-in of its access kind, the path in single quotes, the
  // system's explanation.
  static std::string Describe(const config::FileAccessInfo& info);

 private:
  // Two failures are the same when path and error text are.
  struct SameFailure {
    bool operator()(const std::shared_ptr<config::FileAccessInfo>& a,
                    const std::shared_ptr<config::FileAccessInfo>& b) const {
      return std::tie(a->path, a->errorText) < std::tie(b->path, b->errorText);
    }
  };

  std::map<std::shared_ptr<config::FileAccessInfo>, bool, SameFailure> reported;
  std::string messageText;
  bool windowShown = false;
  WinX::CriticalSection lock;
  std::shared_ptr<Utility::MessageInteractionIFace> interaction;
};
