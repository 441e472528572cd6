// The program's window as the web server shows it: the shell (title, tab strip, menu, dialogs)
// and one HTML page per tab. It owns nothing that the browsers hold; it is the C++ side that
// every connected browser mirrors.
//
// Threads. Pages, documents, event dispatch and the opening of dialogs belong to the UI thread
// (the thread that runs the TaskLoop; the window must be made on that thread). The web server's
// I/O thread hands in browsers and their messages through Attach / Receive / Detach, which only
// parse and post to the loop. Message boxes and choice dialogs may be asked from any thread: a
// worker blocks until a browser answers; the UI thread never blocks (see Show).
//
// The window must outlive the loop's Run and the server.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Clock.h"
#include "platform/TaskLoop.h"
#include "ui/Control.h"
#include "ui/Dialogs.h"
#include "ui/Document.h"
#include "ui/Events.h"
#include "ui/MessageBox.h"

namespace ui {

namespace protocol {
struct Incoming;
}

// One browser as the server hands it over: a way to send it text. Thread-safe; sending to a
// browser that has gone does nothing.
class Connection {
 public:
  virtual ~Connection() = default;
  virtual void Send(std::shared_ptr<const std::string> message) = 0;
};

// What the window needs of a tab page: its document model, its event table, its HTML document's
// path on the server, and two notices. Page classes derive from it.
class HtmlPage {
 public:
  explicit HtmlPage(std::string documentPath) : path_(std::move(documentPath)) {}
  virtual ~HtmlPage() = default;
  HtmlPage(const HtmlPage&) = delete;
  HtmlPage& operator=(const HtmlPage&) = delete;

  Document& Doc() { return doc_; }
  EventTable& Events() { return events_; }
  const std::string& DocumentPath() const { return path_; }

  // A browser has loaded the page's HTML (each browser, once per connection): the moment to
  // bring the document up to date, with what changed while no browser showed the page.
  virtual void OnDocumentComplete() {}
  // Some browser shows the page now (true), or none does any more (false).
  virtual void OnShowWindow(bool /*shown*/) {}
  // The Escape key while the page is shown; a page with nothing to cancel ignores it.
  virtual void OnCancel() {}

 private:
  std::string path_;
  Document doc_;
  EventTable events_;
};

class Window;

// The UI thread's handle on an open message window. Every setter sends only what changed; the
// changes go out with the next batch of document changes. Calls after Close do nothing.
class MessageWindowView {
 public:
  void SetTitle(const std::string& title);
  void SetText(const std::string& text);
  void SetIcon(const std::string& kind);  // "" for none
  void SetProgress(int position);         // 0 to kProgressMax
  void EnableButton(int index, bool enabled);
  void ShowButton(int index, bool shown);
  // A pressed look for button `index`.
  void SetCheck(int index, bool checked);
  void SetSize(int width, int height);
  // Places the window and its controls (see MessageWindowGeometry).
  void SetGeometry(const MessageWindowGeometry& geometry);
  // Runs on the UI thread with the client area's new size when a browser's user resizes a
  // resizable window.
  void SetResizeHandler(std::function<void(int width, int height)> handler) {
    onResize_ = std::move(handler);
  }
  // Scrolls the text so that `line` (from 0) can be seen; sent once, not kept as state.
  void ScrollToLine(int line);
  // Takes the window off every browser. The button callback is not called.
  void Close();
  bool IsOpen() const { return window_ != nullptr; }
  bool ButtonEnabled(int index) const {
    return index >= 0 && index < static_cast<int>(state_.enabled.size()) && state_.enabled[index];
  }
  int Id() const { return id_; }

 private:
  friend class Window;
  MessageWindowView(Window* window, int id, MessageWindowContent content);
  void Changed();

  Window* window_;
  int id_;
  MessageWindowState state_;
  int scrollLine_ = -1;  // pending ScrollToLine, -1: none
  std::function<void(int, int)> onResize_;
};

// The about box's text: the program's name and the major and minor parts of the version
// compiled in, "TavroTest, Version 1.0" for 1.0.x.
std::string AboutText();

class Window : public MessageBoxPresenter {
 public:
  using ClientId = std::uint64_t;
  // Larger messages from a browser are refused (the server closes such a connection).
  static constexpr std::size_t kMaxMessage = 64 * 1024;
  // Message boxes and choice dialogs open at once. One more (a browser clicking a menu item that
  // opens one, thousands of times) is not opened: it gets the cautious answer (one log line
  // until a box opens again). It bounds the full state that a browser is sent when it connects.
  // A box that a worker thread waits in (a motion test's question) always opens: an answer
  // nobody gave must never stand in a report, and each such thread holds at most one box.
  static constexpr std::size_t kMaxOpenBoxes = 32;

  explicit Window(platform::TaskLoop& loop);
  ~Window() override;
  Window(const Window&) = delete;
  Window& operator=(const Window&) = delete;

  // --- UI thread ---
  // Adds a tab; returns its index. Pages are added before the browsers matter (in the dialog's
  // creation); a browser that is already there is told the new tab list.
  int AddPage(const std::string& tabTitle, HtmlPage& page);
  int PageCount() const { return static_cast<int>(pages_.size()); }
  // The shell's document: element "title" is the window title; "menu-about" and "menu-close"
  // are the menu items (hide one with Shell().Show(id, false)).
  Document& Shell() { return shell_; }
  EventTable& ShellEvents() { return shellEvents_; }
  void SetTitle(const std::string& title) { shell_.SetText("title", title); }
  // Runs when a browser picks Close in the menu. Without one, the loop quits with kIdCancel.
  void SetCloseHandler(std::function<void()> handler) { onClose_ = std::move(handler); }
  // The about box's text (the menu item shows it in an OK box titled "About TavroTest"), until
  // the main dialog takes the menu item over: AboutText() unless set.
  void SetAboutText(const std::string& text) { aboutText_ = text; }
  // The STOP control in the title bar: shown with `testName` ("STOP — X Axis Test") while a test
  // runs, hidden for "". Kept in the shell's document, so a browser that comes later sees it.
  // Control (below) follows it: with no test running, nobody holds control.
  void SetStopControl(const std::string& testName);
  // One operator at a time (ui/Control.h has the rule and its reasons). `query` names the test
  // that runs now, "" for none. The window asks it around each event, so that the tab whose
  // click started a test holds control, and before it refuses anything, so that a test that has
  // just ended holds nothing.
  void SetRunningTestQuery(std::function<std::string()> query) { runningTest_ = std::move(query); }
  // Whether the tab that holds control has gone: no connection of it for `absent`, or none of
  // its connections has shown a sign of life for `silent`. If so, nobody holds control from now
  // on (every tab is told) and the answer is true, once: the caller stops the test.
  bool DropLostHolder(platform::Duration absent, platform::Duration silent);
  // The tab that holds control ("" nobody), as its hello named it.
  const std::string& ControlHolder() const { return control_.Holder(); }
  // Runs on the UI thread when a browser clicks the STOP control (no confirmation is asked).
  void SetStopHandler(std::function<void()> handler) { onStop_ = std::move(handler); }
  // How long no browser has been attached: zero while one is, else the time since the last went
  // away (or since the window was made, before the first came).
  platform::Duration NoBrowserFor() const;
  // How long no browser has shown a sign of life: any message (the shell's script sends one
  // every half second), or a new connection. A browser whose page hangs stays attached but falls
  // silent.
  platform::Duration NoSignOfLifeFor() const;
  // Whether some browser shows page `index` now.
  bool PageShown(int index) const;
  // The size of the browser viewport the window is shown in: the last that a browser reported,
  // or 1280 x 800 before any did. It is the work area that message windows are placed in.
  std::pair<int, int> Viewport() const { return viewport_; }

  // Opens a message box without waiting; `done` (may be empty) runs on the UI thread with the
  // answer. Writes the text to stderr, as every box does.
  void ShowBoxAsync(const std::string& text, const std::string& title, unsigned style,
                    std::function<void(int)> done);
  void ShowChoiceAsync(const ChoiceDialog& dialog, std::function<void(ChoiceResult)> done);
  // The window's own Yes/No question (drawn as a dialog, not as a message box); `done` runs on
  // the UI thread with kIdYes or kIdNo. It opens past the cap of open boxes, so that clicks that
  // filled the window with boxes cannot answer No for the operator; its caller asks one at a time.
  void AskAsync(const std::string& text, const std::string& title, std::function<void(int)> done);
  // Why the run ends, for the goodbye the browsers get: "closed", "no-board", ... The last one
  // noted stands; "" while none was.
  void NoteEnding(const std::string& reason) { ending_ = reason; }
  const std::string& Ending() const { return ending_; }
  // Opens a message window; `onButton` runs on the UI thread with a button's index for each
  // click (the window stays open: the caller decides whether a click ends it) or kWindowClosed
  // for the close box.
  std::shared_ptr<MessageWindowView> OpenMessageWindow(const MessageWindowContent& content,
                                                       std::function<void(int)> onButton);

  // --- Any thread ---
  // The message box presenter. On a worker thread it blocks until a browser answers (a browser
  // that goes away leaves the box for the next one). On the UI thread before the loop runs
  // (start-up), it waits modally: it serves the loop until a browser answers, or returns the
  // cautious answer when the loop is told to quit (SIGINT, SIGTERM). Inside the running loop it
  // cannot wait without stopping every timer: the box is opened as with ShowBoxAsync and the call
  // returns at once with the cautious answer (OK for a notice, Cancel or No for a question). UI
  // code that needs the answer there uses ShowBoxAsync.
  int Show(const std::string& text, const std::string& title, unsigned style) override;
  // A choice dialog, with the same rules: a worker blocks, start-up waits modally, and inside the
  // running loop it returns Cancel at once and leaves the dialog open.
  ChoiceResult ShowChoice(const ChoiceDialog& dialog);
  // Ends every wait: each blocked caller gets the cautious answer, and later calls return it at
  // once. For the end of the run (after the loop's Run returned).
  void Shutdown();

  // --- Transport (the server's I/O thread, or a test) ---
  ClientId Attach(std::shared_ptr<Connection> connection);
  void Receive(ClientId client, std::string text);
  void Detach(ClientId client);

 private:
  friend class MessageWindowView;
  struct Page {
    std::string title;
    HtmlPage* page;
    int shownBy = 0;  // browsers that show it
  };
  struct Client {
    std::shared_ptr<Connection> connection;
    int shownPage = -1;
    std::set<int> loaded;  // pages whose HTML this browser has loaded
    // The tab it belongs to: the id of its hello, else "#<client id>", a tab of its own.
    std::string who;
    bool spoken = false;  // it has sent a message: a hello after that changes nothing
    platform::TimePoint lastSign;
    std::string controlSent;  // the last control message it was sent
  };
  enum class DialogKind { kBox, kChoice, kWindow };
  struct OpenDialog {
    DialogKind kind;
    unsigned style = 0;   // kBox
    int options = 0;      // kChoice
    int initial = 0;      // kChoice
    std::string message;  // what a browser that connects is sent (boxes and choices)
    std::function<void(int result, int choice)> done;
    std::shared_ptr<MessageWindowView> view;  // kWindow
    bool ofTest = false;  // a thread waits for its answer: the running test's own question
  };
  struct Waiter {
    bool done = false;
    ChoiceResult answer;
    ChoiceResult cautious;  // what Shutdown answers
  };
  using Answer = std::function<void(ChoiceResult)>;

  bool OnUiThread();
  // `waited`: a worker thread waits for the answer, and the box opens whatever the cap.
  // `asDialog`: the window's own question, which opens whatever the cap too.
  int OpenBox(const std::string& text, const std::string& title, unsigned style,
              std::function<void(int)> done, bool waited = false, bool asDialog = false);
  int OpenChoice(const ChoiceDialog& dialog, std::function<void(ChoiceResult)> done,
                 bool waited = false);
  // Blocks a worker until the dialog that `open` opens (on the UI thread, handing it the
  // completion) is answered, or until Shutdown.
  ChoiceResult WaitForAnswer(ChoiceResult cautious, std::function<void(Answer)> open);
  void Resolve(const std::shared_ptr<Waiter>& waiter, ChoiceResult answer);
  void Handle(ClientId client, const protocol::Incoming& in);
  void HandleEvent(Client& client, const protocol::Incoming& in);
  void HandleCancel(ClientId client, int page);
  void HandleAnswer(Client& client, const protocol::Incoming& in);
  void HandleHello(Client& client, const std::string& tab);
  void HandleTake(Client& client, const std::string& test);
  // The running test as the query names it, "" without one.
  std::string RunningTest() const;
  // Brings the rule up to date with what runs; tells every tab when that changed control.
  void FollowRunningTest();
  void FollowTest(const std::string& running);
  // True when the rule refuses `client`'s input now: the client is told so, and a page's
  // document (`page`, kNoPage for none) is sent again, as the browser shows its own input.
  static constexpr int kNoPage = -2;
  bool Refuses(Client& client, int page, int dialog);
  void SendControl(Client& client);
  void SendControlToAll();
  void HandleShown(ClientId client, int page);
  void HandleLoaded(ClientId client, int page);
  // Whether one more box or choice dialog may open; logs when not.
  bool RoomForBox(const std::string& title);
  void SendFullState(Client& client);
  void SendTabs(Client& client);
  static void SendTo(Client& client, std::string message);
  void Broadcast(const std::string& message);
  void ScheduleFlush();
  void Flush();
  void CloseDialog(int id);
  Document* DocOf(int page);
  // On the UI thread: opens the dialog through `open` and waits modally before the loop runs, or
  // answers `cautious` at once inside the running loop (the dialog stays up).
  ChoiceResult AnswerOnUi(ChoiceResult cautious, const std::function<void(Answer)>& open);

  platform::TaskLoop& loop_;
  const std::thread::id uiThread_;
  std::atomic<ClientId> nextClient_{1};

  // UI thread only.
  Document shell_;
  EventTable shellEvents_;
  std::vector<Page> pages_;
  std::map<ClientId, Client> clients_;
  std::map<int, OpenDialog> dialogs_;
  std::set<int> dirtyWindows_;
  int nextDialog_ = 1;
  bool boxesFull_ = false;  // boxes refused since the last one opened (logged once)
  bool flushPosted_ = false;
  std::function<void()> onClose_;
  std::function<void()> onStop_;
  platform::TimePoint noBrowserSince_;
  platform::TimePoint lastSignOfLife_;
  std::string aboutText_;
  std::string ending_;
  std::pair<int, int> viewport_{1280, 800};
  ControlRule control_;
  std::function<std::string()> runningTest_;
  platform::TimePoint holderLeft_;  // when the holder's last connection went

  // Blocked callers; guarded by waitMutex_.
  std::mutex waitMutex_;
  std::set<std::shared_ptr<Waiter>> waiters_;
  bool shutDown_ = false;
};

}  // namespace ui
