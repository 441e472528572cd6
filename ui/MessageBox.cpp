#include "ui/MessageBox.h"

#include <atomic>
#include <cstdio>

namespace ui {

namespace {
std::atomic<MessageBoxPresenter*> g_presenter{nullptr};
}

void SetMessageBoxPresenter(MessageBoxPresenter* presenter) {
  g_presenter.store(presenter);
}

void EchoToStderr(const std::string& text, const std::string& title) {
  std::fprintf(stderr, "%s: %s", title.c_str(), text.c_str());
  if (text.empty() || text.back() != '\n') std::fputc('\n', stderr);
  std::fflush(stderr);
}

int MessageBox(const std::string& text, const std::string& title, unsigned style) {
  EchoToStderr(text, title);
  if (MessageBoxPresenter* presenter = g_presenter.load()) {
    return presenter->Show(text, title, style);
  }
  return CautiousAnswer(style);
}

int CautiousAnswer(unsigned style) {
  switch (style & 0xF) {
    case kMbOkCancel:
      return kIdCancel;
    case kMbYesNo:
      return kIdNo;
    default:
      return kIdOk;
  }
}

}  // namespace ui
