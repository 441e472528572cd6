// Message boxes: the plain system boxes of the program (OK, OK/Cancel, Yes/No). Each text also
// goes to stderr, so that a failure at start-up is seen without a browser. Until a window is up
// to show them, a box is answered at once: OK for a notice, the cautious answer (Cancel, No) for
// a question.
#pragma once

#include <string>

namespace ui {

inline constexpr unsigned kMbOk = 0x0;
inline constexpr unsigned kMbOkCancel = 0x1;
inline constexpr unsigned kMbYesNo = 0x4;
inline constexpr unsigned kMbIconStop = 0x10;

inline constexpr int kIdOk = 1;
inline constexpr int kIdCancel = 2;
inline constexpr int kIdYes = 6;
inline constexpr int kIdNo = 7;

// What shows the boxes: the window's shell, or a test's recorder.
class MessageBoxPresenter {
 public:
  virtual ~MessageBoxPresenter() = default;
  // Shows the box and returns the button's result (kIdOk ...); may block the calling thread.
  virtual int Show(const std::string& text, const std::string& title, unsigned style) = 0;
};

// Installs the presenter (null: none). The caller keeps it alive while installed.
void SetMessageBoxPresenter(MessageBoxPresenter* presenter);

// The answer of a box that nobody can answer: OK for a notice, Cancel or No for a question.
int CautiousAnswer(unsigned style);

// Writes a box's title and text to stderr, as every box does.
void EchoToStderr(const std::string& text, const std::string& title);

// Shows a box with no owner window. Callable from any thread.
int MessageBox(const std::string& text, const std::string& title, unsigned style);

}  // namespace ui
