// The JSON messages between the window and the shell's script, one WebSocket text frame each.
//
// To the browser ("t" names the kind):
//   tabs      {"t":"tabs","tabs":[{"title","src","events":[[id,kind]...],"scroll":[id...]}]}
//   doc       {"t":"doc","page":p,"full":bool,"el":{id:{"v","c","d","s","b","min","max",
//              "line","pageStep","tick"}},"scroll":[[id,"pageDown"|"end"]...]}   (p -1: shell)
//   dialog    {"t":"dialog","id":n,"kind":"box"|"choice"|"window",...}
//   closeDialog {"t":"closeDialog","id":n}
//   control   {"t":"control","state":"free"|"yours"|"other","test":s}   to each browser its own
//   refused   {"t":"refused","text":s,"test":s,"dialog"?:n}   to the browser whose input it was
// From the browser:
//   event     {"t":"event","page":p,"id":s,"kind":"click"|"change","value"?:s,"checked"?:b}
//   shown     {"t":"shown","page":p}           the tab this browser shows (-1: none)
//   loaded    {"t":"loaded","page":p}          the page's HTML has loaded in this browser
//   scroll    {"t":"scroll","page":p,"id":s,"height":n,"top":n,"client":n}
//   answer    {"t":"answer","dialog":n,"result":r,"choice"?:k}
//   resize    {"t":"resize","dialog":n,"width":w,"height":h}   a message window's new client size
//   viewport  {"t":"viewport","width":w,"height":h}           the browser's viewport
//   cancel    {"t":"cancel","page":p}          Escape on page p while no dialog had the focus
//   beat      {"t":"beat"}                     a sign of life from the page's script
//   hello     {"t":"hello","tab":s}            the tab's own id, first on each connection
//   take      {"t":"take","test":s}            take control of the test named
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ui/Control.h"
#include "ui/Dialogs.h"
#include "ui/Document.h"
#include "ui/Events.h"

namespace ui::protocol {

struct Incoming {
  enum class Kind {
    kEvent,
    kShown,
    kLoaded,
    kScroll,
    kAnswer,
    kResize,
    kViewport,
    kCancel,
    kBeat,
    kHello,
    kTake,
  };
  Kind kind;
  int page = 0;
  std::string id;  // kEvent, kScroll: the element; kHello: the tab; kTake: the test
  EventKind eventKind = EventKind::kClick;
  std::optional<std::string> value;
  std::optional<bool> checked;
  ScrollInfo scroll;
  int dialog = 0;
  int result = 0;
  int choice = 0;
  int width = 0;  // kResize, kViewport
  int height = 0;
};

// Parses one message from a browser. On failure returns nullopt and says why in `error`.
std::optional<Incoming> Decode(const std::string& text, std::string& error);

struct TabInfo {
  std::string title;
  std::string src;
  std::vector<std::pair<std::string, EventKind>> events;
  std::vector<std::string> scrollWatched;
};

std::string EncodeTabs(const std::vector<TabInfo>& tabs);
std::string EncodeDoc(int page, const DocumentDelta& delta, bool full);
// `asDialog`: the box is the window's own question, drawn with the role of a dialog rather than
// of a message box.
std::string EncodeBox(int id, const std::string& text, const std::string& title, unsigned style,
                      bool asDialog = false);
std::string EncodeChoice(int id, const ChoiceDialog& dialog);
// `scrollLine` -1: no scroll order.
std::string EncodeMessageWindow(int id, const MessageWindowState& state, int scrollLine);
std::string EncodeCloseDialog(int id);
std::string EncodeControl(ControlState state, const std::string& test);
// `dialog` 0: the refused input was no answer.
std::string EncodeRefused(const std::string& test, int dialog);
// The last message of a run: why the window ends ("closed", "interrupted", "no-board", or
// "ended" when it is not known), with the device folder searched for "no-board".
std::string EncodeGoodbye(const std::string& reason, const std::string& folder);

}  // namespace ui::protocol
