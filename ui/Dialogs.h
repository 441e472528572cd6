// What the shell draws besides the pages: the contents of the start dialogs (a radio group with
// OK and Cancel) and of the non-modal message window. The window (ui/Window.h) opens them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ui {

// A modal dialog with some text, one radio group and OK / Cancel.
struct ChoiceDialog {
  std::string title;               // caption
  std::vector<std::string> texts;  // paragraphs above the group; line ends are kept
  std::string group;               // the group box's label
  std::vector<std::string> options;
  int initial = 0;  // the option ticked when the dialog opens
};

struct ChoiceResult {
  int result;  // kIdOk or kIdCancel
  int choice;  // the option ticked at OK; `initial` after Cancel
};

// The non-modal message window: its look as the caller lays it out. The window's size is worked
// out on the C++ side (from the text and the font metrics of the layout rules), so the shell
// takes width and height as given.
struct MessageWindowContent {
  std::string title;
  std::string text;  // empty: no text block
  std::vector<std::string> buttons;
  bool selectableText = false;  // the text can take the focus and be selected
  bool fixedFont = false;
  bool wrap = false;         // wrap long lines; otherwise they scroll sideways
  bool progressBar = false;  // a bar of range 0 to kProgressMax
  bool closeBox = true;      // a close box in the caption, which reports kWindowClosed
  int width = 0;             // CSS pixels of the whole window; 0: as the content needs
  int height = 0;
};

inline constexpr int kProgressMax = 200;
// The result a message window's button callback gets for the close box.
inline constexpr int kWindowClosed = -2;

}  // namespace ui
