#include "ui/Window.h"

#include <algorithm>
#include <optional>

#include "config/ErrorLog.h"
#include "ui/Protocol.h"

namespace ui {

namespace {

#define UI_LOG(...) ErrorLog("Window.cpp", __LINE__)(__VA_ARGS__)

}  // namespace

std::string AboutText() {
  // The box names the release by its major and minor parts only; the patch level is not shown.
  const std::string version = TAVRO_PRODUCT_VERSION;
  const std::size_t minorEnd = version.find('.', version.find('.') + 1);
  return "TavroTest, Version " + version.substr(0, minorEnd);
}

// ---------------------------------------------------------------------------------------------
// MessageWindowView

MessageWindowView::MessageWindowView(Window* window, int id, MessageWindowContent content)
    : window_(window), id_(id) {
  state_.enabled.assign(content.buttons.size(), true);
  state_.shown.assign(content.buttons.size(), true);
  state_.checks.assign(content.buttons.size(), false);
  state_.content = std::move(content);
}

void MessageWindowView::Changed() {
  if (!window_) return;
  window_->dirtyWindows_.insert(id_);
  window_->ScheduleFlush();
}

void MessageWindowView::SetTitle(const std::string& title) {
  if (state_.content.title == title) return;
  state_.content.title = title;
  Changed();
}

void MessageWindowView::SetText(const std::string& text) {
  if (state_.content.text == text) return;
  state_.content.text = text;
  Changed();
}

void MessageWindowView::SetIcon(const std::string& kind) {
  if (state_.content.icon == kind) return;
  state_.content.icon = kind;
  Changed();
}

void MessageWindowView::SetProgress(int position) {
  position = std::clamp(position, 0, kProgressMax);
  if (state_.progress == position) return;
  state_.progress = position;
  Changed();
}

void MessageWindowView::EnableButton(int index, bool enabled) {
  if (index < 0 || index >= static_cast<int>(state_.enabled.size())) return;
  if (state_.enabled[index] == enabled) return;
  state_.enabled[index] = enabled;
  Changed();
}

void MessageWindowView::ShowButton(int index, bool shown) {
  if (index < 0 || index >= static_cast<int>(state_.shown.size())) return;
  if (state_.shown[index] == shown) return;
  state_.shown[index] = shown;
  Changed();
}

void MessageWindowView::SetCheck(int index, bool checked) {
  if (index < 0 || index >= static_cast<int>(state_.checks.size())) return;
  if (state_.checks[index] == checked) return;
  state_.checks[index] = checked;
  Changed();
}

void MessageWindowView::SetGeometry(const MessageWindowGeometry& geometry) {
  if (state_.content.geometry == geometry) return;
  state_.content.geometry = geometry;
  Changed();
}

void MessageWindowView::SetSize(int width, int height) {
  if (state_.content.width == width && state_.content.height == height) return;
  state_.content.width = width;
  state_.content.height = height;
  Changed();
}

void MessageWindowView::ScrollToLine(int line) {
  if (line < 0) return;
  scrollLine_ = line;
  Changed();
}

void MessageWindowView::Close() {
  if (!window_) return;
  Window* window = window_;
  window_ = nullptr;
  window->CloseDialog(id_);
}

// ---------------------------------------------------------------------------------------------
// Window: set-up and pages

Window::Window(platform::TaskLoop& loop)
    : loop_(loop),
      uiThread_(std::this_thread::get_id()),
      noBrowserSince_(platform::Clock::Current().Now()),
      lastSignOfLife_(noBrowserSince_) {
  shell_.SetObserver([this] { ScheduleFlush(); });
  // The menu works from the start, before any dialog runs, with the box the dialog shows later.
  aboutText_ = AboutText();
  shellEvents_.OnClick(
      "menu-about",
      [this](const Event&) { ShowBoxAsync(aboutText_, "About TavroTest", kMbOk, {}); },
      From::kAnyone);
  // The STOP control is up only while a test runs; a click that comes after the test ended (the
  // control was still drawn in some browser) finds no handler or a handler with nothing to stop.
  shell_.Show("stop-test", false);
  shellEvents_.OnClick(
      "stop-test",
      [this](const Event&) {
        if (onStop_ && !shell_.Text("stop-test-name").empty()) onStop_();
      },
      From::kAnyone);
  shellEvents_.OnClick("menu-close", [this](const Event&) {
    if (onClose_) {
      onClose_();
    } else {
      NoteEnding("closed");
      loop_.Quit(kIdCancel);
    }
  });
}

Window::~Window() {
  Shutdown();
  for (auto& [id, dialog] : dialogs_) {
    if (dialog.view) dialog.view->window_ = nullptr;
  }
}

int Window::AddPage(const std::string& tabTitle, HtmlPage& page) {
  const int index = static_cast<int>(pages_.size());
  pages_.push_back(Page{tabTitle, &page});
  page.Doc().SetObserver([this] { ScheduleFlush(); });
  for (auto& [id, client] : clients_) {
    SendTabs(client);
    SendTo(client, protocol::EncodeDoc(index, page.Doc().Snapshot(), true));
  }
  return index;
}

void Window::SetStopControl(const std::string& testName) {
  shell_.SetText("stop-test-name", testName);
  shell_.Show("stop-test", !testName.empty());
  FollowTest(testName);
}

platform::Duration Window::NoBrowserFor() const {
  if (!clients_.empty()) return platform::Duration::zero();
  return platform::Clock::Current().Now() - noBrowserSince_;
}

platform::Duration Window::NoSignOfLifeFor() const {
  return platform::Clock::Current().Now() - lastSignOfLife_;
}

bool Window::PageShown(int index) const {
  return index >= 0 && index < PageCount() && pages_[index].shownBy > 0;
}

Document* Window::DocOf(int page) {
  if (page == kShellPage) return &shell_;
  if (page >= 0 && page < PageCount()) return &pages_[page].page->Doc();
  return nullptr;
}

// ---------------------------------------------------------------------------------------------
// Pushing state to browsers

void Window::ScheduleFlush() {
  if (flushPosted_) return;
  flushPosted_ = true;
  loop_.Post([this] { Flush(); });
}

void Window::SendTo(Client& client, std::string message) {
  client.connection->Send(std::make_shared<const std::string>(std::move(message)));
}

void Window::Broadcast(const std::string& message) {
  if (clients_.empty()) return;
  const auto shared = std::make_shared<const std::string>(message);
  for (auto& [id, client] : clients_)
    client.connection->Send(shared);
}

void Window::Flush() {
  flushPosted_ = false;
  for (int page = kShellPage; page < PageCount(); ++page) {
    Document& doc = *DocOf(page);
    if (!doc.Dirty()) continue;
    const DocumentDelta delta = doc.TakeChanges();
    if (!delta.Empty()) Broadcast(protocol::EncodeDoc(page, delta, false));
  }
  for (const int id : dirtyWindows_) {
    const auto it = dialogs_.find(id);
    if (it == dialogs_.end() || !it->second.view) continue;
    MessageWindowView& v = *it->second.view;
    Broadcast(protocol::EncodeMessageWindow(id, v.state_, v.scrollLine_));
    v.scrollLine_ = -1;
  }
  dirtyWindows_.clear();
}

void Window::SendTabs(Client& client) {
  std::vector<protocol::TabInfo> tabs;
  for (const Page& p : pages_) {
    tabs.push_back(
        {p.title, p.page->DocumentPath(), p.page->Events().Rows(), p.page->Doc().ScrollWatched()});
  }
  SendTo(client, protocol::EncodeTabs(tabs));
}

void Window::SendFullState(Client& client) {
  auto send = [&](std::string m) { SendTo(client, std::move(m)); };
  SendTabs(client);
  for (int page = kShellPage; page < PageCount(); ++page) {
    send(protocol::EncodeDoc(page, DocOf(page)->Snapshot(), true));
  }
  for (const auto& [id, dialog] : dialogs_) {
    if (dialog.view) {
      send(protocol::EncodeMessageWindow(id, dialog.view->state_, -1));
    } else {
      send(dialog.message);
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Browsers coming, talking and going

Window::ClientId Window::Attach(std::shared_ptr<Connection> connection) {
  const ClientId id = nextClient_++;
  loop_.Post([this, id, connection = std::move(connection)]() mutable {
    Client& client = clients_[id];
    client.connection = std::move(connection);
    client.who = "#" + std::to_string(id);
    lastSignOfLife_ = platform::Clock::Current().Now();
    client.lastSign = lastSignOfLife_;
    SendFullState(client);
  });
  return id;
}

void Window::Detach(ClientId client) {
  loop_.Post([this, client] {
    const auto it = clients_.find(client);
    if (it == clients_.end()) return;
    HandleShown(client, -1);
    const std::string who = it->second.who;
    clients_.erase(it);
    const auto now = platform::Clock::Current().Now();
    if (clients_.empty()) noBrowserSince_ = now;
    const bool holderStays = std::any_of(clients_.begin(), clients_.end(),
                                         [&](const auto& c) { return c.second.who == who; });
    if (who == control_.Holder() && !holderStays) holderLeft_ = now;
  });
}

void Window::Receive(ClientId client, std::string text) {
  if (text.size() > kMaxMessage) {
    UI_LOG("UI message of %zu bytes refused\r\n", text.size());
    return;
  }
  std::string error;
  std::optional<protocol::Incoming> in = protocol::Decode(text, error);
  if (!in) {
    UI_LOG("UI message dropped: %s\r\n", error.c_str());
    return;
  }
  loop_.Post([this, client, in = std::move(*in)] { Handle(client, in); });
}

void Window::Handle(ClientId client, const protocol::Incoming& in) {
  using K = protocol::Incoming::Kind;
  const auto from = clients_.find(client);
  // A browser that has gone (its message was on the way) acts on nothing.
  if (from == clients_.end()) return;
  Client& sender = from->second;
  lastSignOfLife_ = platform::Clock::Current().Now();
  sender.lastSign = lastSignOfLife_;
  const bool first = !sender.spoken;
  sender.spoken = true;
  // A browser is told who holds control once it has said who it is, so that a reload of the
  // holder's tab is never shown a take-over it does not need; one without a hello is told at its
  // first message.
  if (first && in.kind != K::kHello) SendControl(sender);
  switch (in.kind) {
    case K::kBeat:
      return;
    case K::kHello:
      if (first) {
        HandleHello(sender, in.id);
      } else {
        UI_LOG("UI: hello after other messages ignored\r\n");
      }
      return;
    case K::kTake:
      HandleTake(sender, in.id);
      return;
    case K::kEvent:
      HandleEvent(sender, in);
      return;
    case K::kAnswer:
      HandleAnswer(sender, in);
      return;
    case K::kResize: {
      const auto it = dialogs_.find(in.dialog);
      if (it == dialogs_.end() || !it->second.view) return;  // closed meanwhile
      const MessageWindowView& view = *it->second.view;
      if (!view.state_.content.resizable || in.width <= 0 || in.height <= 0) {
        UI_LOG("UI: resize %dx%d refused for dialog %d\r\n", in.width, in.height, in.dialog);
        return;
      }
      if (view.onResize_) view.onResize_(in.width, in.height);
      return;
    }
    case K::kViewport:
      if (in.width > 0 && in.height > 0) viewport_ = {in.width, in.height};
      return;
    case K::kShown:
      if (in.page < -1 || in.page >= PageCount()) {
        UI_LOG("UI: shown for unknown page %d\r\n", in.page);
        return;
      }
      HandleShown(client, in.page);
      return;
    case K::kLoaded:
      HandleLoaded(client, in.page);
      return;
    case K::kCancel:
      HandleCancel(client, in.page);
      return;
    case K::kScroll: {
      Document* doc = DocOf(in.page);
      const auto* watched = doc ? &doc->ScrollWatched() : nullptr;
      if (!watched || std::find(watched->begin(), watched->end(), in.id) == watched->end()) {
        UI_LOG("UI: scroll report for unknown element %d/%s\r\n", in.page, in.id.c_str());
        return;
      }
      doc->TakeScrollReport(in.id, in.scroll);
      return;
    }
  }
}

// Only a page can be cancelled: the shell (-1) and pages that are not there are refused, and so
// is a page that the sending browser does not show (the key went to the page in front of that
// browser, so anything else is stale or forged).
void Window::HandleCancel(ClientId client, int page) {
  if (page < 0 || page >= PageCount()) {
    UI_LOG("UI: cancel for unknown page %d\r\n", page);
    return;
  }
  const auto it = clients_.find(client);
  if (it == clients_.end() || it->second.shownPage != page) {
    UI_LOG("UI: cancel for page %d that the browser does not show\r\n", page);
    return;
  }
  pages_[page].page->OnCancel();
}

void Window::HandleEvent(Client& client, const protocol::Incoming& in) {
  Document* doc = DocOf(in.page);
  if (!doc) {
    UI_LOG("UI: event for unknown page %d\r\n", in.page);
    return;
  }
  const EventTable& table = in.page == kShellPage ? shellEvents_ : pages_[in.page].page->Events();
  if (!table.Has(in.id, in.eventKind)) {
    UI_LOG("UI: no %s handler for %d/%s\r\n", EventKindName(in.eventKind), in.page, in.id.c_str());
    return;
  }
  if (table.FromWhom(in.id, in.eventKind) == From::kOperator && Refuses(client, in.page, 0)) return;
  const std::string before = RunningTest();
  doc->TakeBrowserValue(in.id, in.value, in.checked);
  table.Dispatch(Event{in.page, in.id, in.eventKind, in.value, in.checked});
  // A click that started a test makes its tab the operator.
  if (before.empty()) {
    const std::string holder = control_.Holder();
    control_.Started(client.who, RunningTest());
    if (holder != control_.Holder()) SendControlToAll();
  }
}

void Window::HandleShown(ClientId client, int page) {
  const auto it = clients_.find(client);
  if (it == clients_.end()) return;
  const int before = it->second.shownPage;
  if (before == page) return;
  it->second.shownPage = page;
  if (before >= 0 && before < PageCount() && --pages_[before].shownBy == 0) {
    pages_[before].page->OnShowWindow(false);
  }
  if (page >= 0 && ++pages_[page].shownBy == 1) pages_[page].page->OnShowWindow(true);
}

// Every browser that loads a page's HTML has it brought up to date: what a page did while no
// browser showed it (a board that came back with other values) is in the document then. A
// browser's repeated notices for the same page are not passed on.
void Window::HandleLoaded(ClientId client, int page) {
  if (page < 0 || page >= PageCount()) {
    if (page != kShellPage) UI_LOG("UI: loaded for unknown page %d\r\n", page);
    return;
  }
  const auto it = clients_.find(client);
  if (it == clients_.end() || !it->second.loaded.insert(page).second) return;
  pages_[page].page->OnDocumentComplete();
}

// ---------------------------------------------------------------------------------------------
// One operator at a time: the rule and its reasons are in ui/Control.h. The window applies it to
// what arrives; what a page or the test does never asks who sent it.

namespace {

// A tab's own id: what the shell makes (a UUID) and a little room, in characters that need no
// escaping in a log line. Never "#...", the names of connections without a hello.
bool ValidTabId(const std::string& tab) {
  if (tab.size() < 8 || tab.size() > 64) return false;
  return std::all_of(tab.begin(), tab.end(), [](unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' ||
           c == '_';
  });
}

}  // namespace

void Window::HandleHello(Client& client, const std::string& tab) {
  if (ValidTabId(tab)) {
    client.who = tab;
  } else {
    UI_LOG("UI: hello with an unusable tab id refused\r\n");
  }
  SendControl(client);
}

void Window::HandleTake(Client& client, const std::string& test) {
  FollowRunningTest();
  if (!control_.Take(client.who, test)) {
    // The test it saw has ended (and perhaps another begun), or it already holds control.
    UI_LOG("UI: take-over of \"%s\" refused\r\n", test.c_str());
    SendControl(client);
    return;
  }
  UI_LOG("UI: another window took control of the %s\r\n", test.c_str());
  SendControlToAll();
}

std::string Window::RunningTest() const {
  return runningTest_ ? runningTest_() : std::string();
}

void Window::FollowRunningTest() {
  if (runningTest_) FollowTest(RunningTest());
}

void Window::FollowTest(const std::string& running) {
  const std::string holder = control_.Holder();
  const std::string test = control_.Test();
  control_.Follow(running);
  if (holder != control_.Holder() || test != control_.Test()) SendControlToAll();
}

bool Window::Refuses(Client& client, int page, int dialog) {
  FollowRunningTest();
  if (control_.Allows(client.who)) return false;
  SendTo(client, protocol::EncodeRefused(control_.Test(), dialog));
  // The browser already shows what its user typed or ticked; it gets the page as it stands.
  if (Document* doc = DocOf(page)) {
    SendTo(client, protocol::EncodeDoc(page, doc->Snapshot(), true));
  }
  return true;
}

bool Window::DropLostHolder(platform::Duration absent, platform::Duration silent) {
  FollowRunningTest();
  const std::string& holder = control_.Holder();
  if (holder.empty()) return false;
  const platform::TimePoint now = platform::Clock::Current().Now();
  std::optional<platform::TimePoint> lastSign;
  for (const auto& [id, client] : clients_) {
    if (client.who == holder && (!lastSign || client.lastSign > *lastSign)) {
      lastSign = client.lastSign;
    }
  }
  const bool gone = lastSign ? now - *lastSign >= silent : now - holderLeft_ >= absent;
  if (!gone) return false;
  UI_LOG("UI: the window that ran the %s has gone; nobody holds control\r\n",
         control_.Test().c_str());
  control_.Release();
  SendControlToAll();
  return true;
}

void Window::SendControl(Client& client) {
  std::string message = protocol::EncodeControl(control_.StateFor(client.who), control_.Test());
  if (message == client.controlSent) return;
  client.controlSent = message;
  SendTo(client, std::move(message));
}

void Window::SendControlToAll() {
  for (auto& [id, client] : clients_)
    SendControl(client);
}

// ---------------------------------------------------------------------------------------------
// Dialogs

bool Window::RoomForBox(const std::string& title) {
  const auto boxes = std::count_if(dialogs_.begin(), dialogs_.end(), [](const auto& d) {
    return d.second.kind != DialogKind::kWindow;
  });
  if (static_cast<std::size_t>(boxes) < kMaxOpenBoxes) {
    boxesFull_ = false;
    return true;
  }
  // One line while the limit holds: the clicks that reach it are not worth one each.
  if (!boxesFull_) {
    UI_LOG("UI: %zu boxes open; \"%s\" and the next ones answered unseen until one closes\r\n",
           kMaxOpenBoxes, title.c_str());
  }
  boxesFull_ = true;
  return false;
}

bool Window::OnUiThread() {
  return std::this_thread::get_id() == uiThread_ || loop_.OnLoopThread();
}

int Window::OpenBox(const std::string& text, const std::string& title, unsigned style,
                    std::function<void(int)> done, bool waited, bool asDialog) {
  if (!waited && !asDialog && !RoomForBox(title)) {
    if (done) loop_.Post([done = std::move(done), style] { done(CautiousAnswer(style)); });
    return 0;
  }
  const int id = nextDialog_++;
  OpenDialog& d = dialogs_[id];
  d.kind = DialogKind::kBox;
  d.ofTest = waited;
  d.style = style;
  d.message = protocol::EncodeBox(id, text, title, style, asDialog);
  d.done = [done = std::move(done)](int result, int) {
    if (done) done(result);
  };
  Broadcast(d.message);
  return id;
}

int Window::OpenChoice(const ChoiceDialog& dialog, std::function<void(ChoiceResult)> done,
                       bool waited) {
  if (!waited && !RoomForBox(dialog.title)) {
    if (done) {
      loop_.Post([done = std::move(done), initial = dialog.initial] {
        done({kIdCancel, initial});
      });
    }
    return 0;
  }
  const int id = nextDialog_++;
  OpenDialog& d = dialogs_[id];
  d.kind = DialogKind::kChoice;
  d.ofTest = waited;
  d.options = static_cast<int>(dialog.options.size());
  d.initial = dialog.initial;
  d.message = protocol::EncodeChoice(id, dialog);
  d.done = [done = std::move(done)](int result, int choice) {
    if (done) done({result, choice});
  };
  Broadcast(d.message);
  return id;
}

void Window::ShowBoxAsync(const std::string& text, const std::string& title, unsigned style,
                          std::function<void(int)> done) {
  EchoToStderr(text, title);
  OpenBox(text, title, style, std::move(done));
}

void Window::AskAsync(const std::string& text, const std::string& title,
                      std::function<void(int)> done) {
  OpenBox(text, title, kMbYesNo, std::move(done), false, true);
}

void Window::ShowChoiceAsync(const ChoiceDialog& dialog, std::function<void(ChoiceResult)> done) {
  OpenChoice(dialog, std::move(done));
}

std::shared_ptr<MessageWindowView> Window::OpenMessageWindow(const MessageWindowContent& content,
                                                             std::function<void(int)> onButton) {
  const int id = nextDialog_++;
  std::shared_ptr<MessageWindowView> view(new MessageWindowView(this, id, content));
  OpenDialog& d = dialogs_[id];
  d.kind = DialogKind::kWindow;
  d.view = view;
  d.done = [onButton = std::move(onButton)](int result, int) {
    if (onButton) onButton(result);
  };
  Broadcast(protocol::EncodeMessageWindow(id, view->state_, -1));
  return view;
}

void Window::CloseDialog(int id) {
  if (dialogs_.erase(id) == 0) return;
  dirtyWindows_.erase(id);
  Broadcast(protocol::EncodeCloseDialog(id));
}

void Window::HandleAnswer(Client& client, const protocol::Incoming& in) {
  const auto it = dialogs_.find(in.dialog);
  if (it == dialogs_.end()) {
    // Two browsers may answer the same box; the second finds it closed.
    UI_LOG("UI: answer %d to dialog %d, which is not open\r\n", in.result, in.dialog);
    return;
  }
  OpenDialog& d = it->second;
  if (d.ofTest && Refuses(client, kNoPage, in.dialog)) return;
  bool valid = false;
  int choice = 0;
  switch (d.kind) {
    case DialogKind::kBox: {
      const unsigned buttons = d.style & 0xF;
      valid = buttons == kMbOkCancel ? (in.result == kIdOk || in.result == kIdCancel)
              : buttons == kMbYesNo  ? (in.result == kIdYes || in.result == kIdNo)
                                     : in.result == kIdOk;
      break;
    }
    case DialogKind::kChoice:
      valid =
          (in.result == kIdOk && in.choice >= 0 && in.choice < d.options) || in.result == kIdCancel;
      choice = in.result == kIdOk ? in.choice : d.initial;
      break;
    case DialogKind::kWindow: {
      const auto& s = d.view->state_;
      const int count = static_cast<int>(s.content.buttons.size());
      // Escape closes a window with keyboard handling, close box or not.
      valid = (in.result == kWindowClosed && (s.content.closeBox || s.content.keyboard)) ||
              (in.result >= 0 && in.result < count && s.enabled[in.result] && s.shown[in.result]);
      break;
    }
  }
  if (!valid) {
    UI_LOG("UI: answer %d/%d refused for dialog %d\r\n", in.result, in.choice, in.dialog);
    return;
  }
  if (d.kind == DialogKind::kWindow) {
    // A message window stays open; its owner decides what a click means.
    const auto done = d.done;
    done(in.result, 0);
    return;
  }
  const auto done = std::move(d.done);
  dialogs_.erase(it);
  Broadcast(protocol::EncodeCloseDialog(in.dialog));
  done(in.result, choice);
}

// ---------------------------------------------------------------------------------------------
// Blocking callers

void Window::Resolve(const std::shared_ptr<Waiter>& waiter, ChoiceResult answer) {
  {
    std::lock_guard lock(waitMutex_);
    if (waiter->done) return;
    waiter->done = true;
    waiter->answer = answer;
  }
  platform::Clock::Current().NotifyAll();
}

ChoiceResult Window::WaitForAnswer(ChoiceResult cautious, std::function<void(Answer)> open) {
  auto waiter = std::make_shared<Waiter>();
  waiter->cautious = cautious;
  {
    std::lock_guard lock(waitMutex_);
    if (shutDown_) return cautious;
    waiters_.insert(waiter);
  }
  const bool posted = loop_.Post([this, waiter, open = std::move(open)] {
    open([this, waiter](ChoiceResult answer) { Resolve(waiter, answer); });
  });
  if (!posted) Resolve(waiter, cautious);
  std::unique_lock lock(waitMutex_);
  platform::Clock::Current().WaitUntil(lock, platform::kNever, [&] { return waiter->done; });
  waiters_.erase(waiter);
  return waiter->answer;
}

void Window::Shutdown() {
  {
    std::lock_guard lock(waitMutex_);
    shutDown_ = true;
    for (const auto& w : waiters_) {
      if (w->done) continue;
      w->done = true;
      w->answer = w->cautious;
    }
  }
  platform::Clock::Current().NotifyAll();
}

ChoiceResult Window::AnswerOnUi(ChoiceResult cautious, const std::function<void(Answer)>& open) {
  if (loop_.Running()) {
    open([](ChoiceResult) {});
    return cautious;
  }
  // Before the loop runs (start-up): wait modally, serving the loop until a browser answers. The
  // answer is shared, as the dialog outlives this call when a quit ends the wait.
  auto answer = std::make_shared<std::optional<ChoiceResult>>();
  open([answer](ChoiceResult r) { *answer = r; });
  loop_.RunUntil([&answer] { return answer->has_value(); });
  return answer->value_or(cautious);
}

int Window::Show(const std::string& text, const std::string& title, unsigned style) {
  const ChoiceResult cautious{CautiousAnswer(style), 0};
  const bool worker = !OnUiThread();
  const auto open = [this, text, title, style, worker](Answer answer) {
    OpenBox(
        text, title, style,
        [answer](int r) {
          answer({r, 0});
        },
        worker);
  };
  return (worker ? WaitForAnswer(cautious, open) : AnswerOnUi(cautious, open)).result;
}

ChoiceResult Window::ShowChoice(const ChoiceDialog& dialog) {
  const ChoiceResult cautious{kIdCancel, dialog.initial};
  const bool worker = !OnUiThread();
  const auto open = [this, dialog, worker](Answer answer) {
    OpenChoice(dialog, std::move(answer), worker);
  };
  return worker ? WaitForAnswer(cautious, open) : AnswerOnUi(cautious, open);
}

}  // namespace ui
