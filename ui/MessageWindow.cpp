#include "ui/MessageWindow.h"

#include <array>
#include <cmath>
#include <list>
#include <map>
#include <mutex>
#include <thread>

#include "config/Folders.h"
#include "platform/Clock.h"
#include "platform/TaskLoop.h"
#include "ui/Window.h"
#include "util/MessageInteraction.h"
#include "util/ShellFont.h"
#include "util/StringTable.h"
#include "util/WinX.h"

namespace Utility {

std::string TextOrId::Resolve() const {
  if (isText) return text;
  return id == 0 ? std::string() : strings::Load(id);
}

namespace {

constexpr int kFirstButtonId = 1010;
constexpr std::uint64_t kHorizontal = kMsgAlignLeft | kMsgAlignRight;
constexpr std::uint64_t kVertical = kMsgAlignTop | kMsgAlignBottom;

// Left with right (or top with bottom) means neither.
std::uint64_t WithoutOpposedAlignment(std::uint64_t flags) {
  if ((flags & kHorizontal) == kHorizontal) flags &= ~kHorizontal;
  if ((flags & kVertical) == kVertical) flags &= ~kVertical;
  return flags;
}

class CMessageWnd;

// The host and the windows that are up. The pointers are set and read under `mutex`; the
// windows belong to the UI thread.
struct Host {
  std::mutex mutex;
  platform::TaskLoop* loop = nullptr;
  ui::Window* window = nullptr;
  std::thread::id uiThread;
  std::map<int, std::unique_ptr<CMessageWnd>> windows;  // by serial; UI thread only
  int nextSerial = 1;                                   // UI thread only
};

Host& TheHost() {
  static Host host;
  return host;
}

bool OnUiThread() {
  Host& host = TheHost();
  std::lock_guard lock(host.mutex);
  return host.loop && std::this_thread::get_id() == host.uiThread;
}

// Posts `fn` to the loop and waits until it has run there, or was dropped by a loop that ended.
bool SendAndWait(platform::TaskLoop& loop, std::function<void()> fn) {
  struct State {
    std::mutex mutex;
    bool finished = false;
    bool ran = false;
  };
  // Its end, whenever the loop lets go of the task (run or dropped), releases the waiter.
  struct Release {
    std::shared_ptr<State> state;
    ~Release() {
      {
        std::lock_guard lock(state->mutex);
        state->finished = true;
      }
      platform::Clock::Current().NotifyAll();
    }
  };
  auto state = std::make_shared<State>();
  auto release = std::make_shared<Release>();
  release->state = state;
  const bool posted = loop.Post([release, fn = std::move(fn)] {
    fn();
    std::lock_guard lock(release->state->mutex);
    release->state->ran = true;
  });
  release.reset();
  if (!posted) return false;
  std::unique_lock lock(state->mutex);
  platform::Clock::Current().WaitUntil(lock, platform::kNever, [&] { return state->finished; });
  return state->ran;
}

class MessageInteractionImpl;

// What CreateMessage hands to the UI thread.
struct MessageParams {
  std::string title;
  std::string text;
  std::uint64_t flags = 0;
  Icon icon;
  std::vector<std::string> buttons;
};

// The window of one message, on the UI thread. It holds its interaction until it is destroyed.
class CMessageWnd {
 public:
  CMessageWnd(int serial, std::shared_ptr<MessageInteractionImpl> owner, MessageParams params)
      : serial_(serial), owner_(std::move(owner)), p_(std::move(params)) {}

  int Serial() const { return serial_; }

  // Makes the window and shows it in the shell.
  void Create(ui::Window& shell);
  // Runs what the interaction has queued.
  void RunActions();
  // A click on a button of the shell, or kWindowClosed for its close box or Escape.
  void OnShellAnswer(int result);
  void OnResize(int clientWidth, int clientHeight);
  void OnPendantButton(int number);
  // Takes the window off the shell and ends the message with -3 if nothing ended it before.
  void Destroy();

  // --- What the queued actions do ---
  void SetTitle(const std::string& title);
  void SetText(const std::string& text, std::uint64_t hFlags, std::uint64_t vFlags);
  void SetIcon(Icon icon, std::uint64_t hFlags, std::uint64_t vFlags);
  void EnableControl(int id, bool enable);
  void SetProgress(int position);
  void SetCheck(int index, bool checked);
  void ScrollToLine(int line);
  void SetKeepOpen(std::uint64_t mask, std::uint64_t value);
  void BindPendant(int number, int controlId) { pendant_[number] = controlId; }

 private:
  void Click(int index);
  void OnClose();
  Size IconSize() const;
  MessageLayoutInput Input() const;
  // Measures, sizes and places the window; a re-placement takes the alignment of `hFlags` and
  // `vFlags` instead of the window's own.
  void LayOut(bool replace, std::uint64_t hFlags, std::uint64_t vFlags);
  ui::MessageWindowGeometry Geometry() const;
  ui::MessageWindowContent Content() const;
  int ButtonCount() const { return static_cast<int>(p_.buttons.size()); }

  const int serial_;
  std::shared_ptr<MessageInteractionImpl> owner_;
  MessageParams p_;
  std::shared_ptr<ui::MessageWindowView> view_;
  MessageLayout layout_;
  std::map<int, int> pendant_;  // pendant button number -> control id
  bool destroyed_ = false;
};

class MessageInteractionImpl final : public MessageInteractionIFace,
                                     public MsgIntrBase,
                                     public std::enable_shared_from_this<MessageInteractionImpl> {
 public:
  using Action = std::function<bool(CMessageWnd&)>;

  void Close() override;
  void EnableButton(int index, bool enable) override;
  void SetProgress(double fraction) override;
  void BindPendantButton(int button, int index) override;
  platform::Event& GetDoneEvent() override { return doneEvent; }
  int GetResult() override;
  int TakeResult() override;
  void SetTitle(const std::string& title) override;
  void SetText(const std::string& text, std::uint64_t hFlags, std::uint64_t vFlags) override;
  void SetIcon(Icon icon, std::uint64_t hFlags, std::uint64_t vFlags) override;
  void SetButtonCheck(int index, int state) override;
  int GetButtonCheck(int index) override;
  void ScrollToLine(int line) override;
  void SetFlags(std::uint64_t mask, std::uint64_t value) override;
  void SetDoneCallback(DoneCallback callback, void* argument) override;

  // The window is up: later actions wake it. Unless the message is already over.
  void Attach(CMessageWnd* created);
  std::list<Action> TakeActions();
  // Ends the message with `result`: for good (`done`), or as a report that leaves it open.
  void End(int result, bool done);
  void Queue(Action action);

 private:
  void QueueLocked(Action action);
  // Takes the callback out when the message ends for good; the caller runs it outside the lock.
  void EndLocked(int value, bool done, DoneCallback& callback, void*& argument);
  // Hands `callback` to the UI thread, keeping this interaction alive until it has run.
  void RunCallback(DoneCallback callback, void* argument, bool atOnce);

  WinX::CriticalSection lock;
  CMessageWnd* window = nullptr;
  // Nothing is posted before the window exists: its creation runs what has been queued.
  bool wakePosted = true;
  std::list<Action> actions;
  platform::Event doneEvent;
  int result = -1;
  int progress = 0;
  std::array<int, 8> buttonChecks{};
  DoneCallback doneCallback = nullptr;
  void* doneArgument = nullptr;
};

// The closing action: the last one that runs.
bool CloseWindow(CMessageWnd& window) {
  window.Destroy();
  return false;
}

// --- MessageInteractionImpl ----------------------------------------------------------------------

void MessageInteractionImpl::Queue(Action action) {
  WinX::CriticalSectionLock guard(lock);
  QueueLocked(std::move(action));
}

void MessageInteractionImpl::QueueLocked(Action action) {
  actions.push_back(std::move(action));
  if (wakePosted || !window) return;
  Host& host = TheHost();
  std::lock_guard hostLock(host.mutex);
  if (!host.loop) return;
  wakePosted = true;
  const int serial = window->Serial();
  host.loop->Post([serial] {
    auto& windows = TheHost().windows;
    const auto it = windows.find(serial);
    if (it != windows.end()) it->second->RunActions();
  });
}

std::list<MessageInteractionImpl::Action> MessageInteractionImpl::TakeActions() {
  WinX::CriticalSectionLock guard(lock);
  wakePosted = false;
  return std::move(actions);
}

void MessageInteractionImpl::Attach(CMessageWnd* created) {
  WinX::CriticalSectionLock guard(lock);
  if (!doneEvent.IsSet()) window = created;
}

void MessageInteractionImpl::End(int value, bool done) {
  DoneCallback callback = nullptr;
  void* argument = nullptr;
  {
    WinX::CriticalSectionLock guard(lock);
    EndLocked(value, done, callback, argument);
  }
  if (callback) RunCallback(callback, argument, OnUiThread());
}

void MessageInteractionImpl::EndLocked(int value, bool done, DoneCallback& callback,
                                       void*& argument) {
  if (doneEvent.IsSet()) return;
  result = value;
  if (!done) {
    doneEvent.Pulse();
    return;
  }
  doneEvent.Set();
  window = nullptr;
  std::swap(callback, doneCallback);
  argument = doneArgument;
}

void MessageInteractionImpl::RunCallback(DoneCallback callback, void* argument, bool atOnce) {
  std::shared_ptr<MessageInteractionIFace> self = shared_from_this();
  if (atOnce) {
    callback(self, argument);
    return;
  }
  RunOnUiThread([self, callback, argument] { callback(self, argument); }, false, false);
}

void MessageInteractionImpl::Close() {
  DoneCallback callback = nullptr;
  void* argument = nullptr;
  {
    // One step under the lock: the window must not be destroyed (ending the message with -3)
    // between the queueing of its closing and the end with -1.
    WinX::CriticalSectionLock guard(lock);
    QueueLocked(CloseWindow);
    EndLocked(-1, true, callback, argument);
  }
  if (callback) RunCallback(callback, argument, OnUiThread());
}

void MessageInteractionImpl::EnableButton(int index, bool enable) {
  if (index < -kFirstButtonId || index > 9) return;
  Queue([id = kFirstButtonId + index, enable](CMessageWnd& w) {
    w.EnableControl(id, enable);
    return true;
  });
}

void MessageInteractionImpl::SetProgress(double fraction) {
  const double scaled = fraction * kMsgProgressMax;
  // Cut, not rounded; NaN counts as 0.
  const int position = scaled >= kMsgProgressMax ? kMsgProgressMax
                       : scaled > 0              ? static_cast<int>(scaled)
                                                 : 0;
  {
    WinX::CriticalSectionLock guard(lock);
    if (position == progress) return;
    progress = position;
  }
  Queue([position](CMessageWnd& w) {
    w.SetProgress(position);
    return true;
  });
}

void MessageInteractionImpl::BindPendantButton(int button, int index) {
  if (index < -kFirstButtonId || index > 9) return;
  Queue([button, id = kFirstButtonId + index](CMessageWnd& w) {
    w.BindPendant(button, id);
    return true;
  });
}

int MessageInteractionImpl::GetResult() {
  WinX::CriticalSectionLock guard(lock);
  return result;
}

int MessageInteractionImpl::TakeResult() {
  WinX::CriticalSectionLock guard(lock);
  return std::exchange(result, -1);
}

void MessageInteractionImpl::SetTitle(const std::string& title) {
  Queue([title](CMessageWnd& w) {
    w.SetTitle(title);
    return true;
  });
}

void MessageInteractionImpl::SetText(const std::string& text, std::uint64_t hFlags,
                                     std::uint64_t vFlags) {
  Queue([text, hFlags, vFlags](CMessageWnd& w) {
    w.SetText(text, hFlags, vFlags);
    return true;
  });
}

void MessageInteractionImpl::SetIcon(Icon icon, std::uint64_t hFlags, std::uint64_t vFlags) {
  Queue([icon = std::move(icon), hFlags, vFlags](CMessageWnd& w) {
    w.SetIcon(icon, hFlags, vFlags);
    return true;
  });
}

void MessageInteractionImpl::SetButtonCheck(int index, int state) {
  if (index < 0 || index >= static_cast<int>(buttonChecks.size())) return;
  {
    WinX::CriticalSectionLock guard(lock);
    if (buttonChecks[index] == state) return;
    buttonChecks[index] = state;
  }
  Queue([index, checked = state != 0](CMessageWnd& w) {
    w.SetCheck(index, checked);
    return true;
  });
}

int MessageInteractionImpl::GetButtonCheck(int index) {
  if (index < 0 || index >= static_cast<int>(buttonChecks.size())) return 0;
  WinX::CriticalSectionLock guard(lock);
  return buttonChecks[index];
}

void MessageInteractionImpl::ScrollToLine(int line) {
  Queue([line](CMessageWnd& w) {
    w.ScrollToLine(line);
    return true;
  });
}

void MessageInteractionImpl::SetFlags(std::uint64_t mask, std::uint64_t value) {
  Queue([mask, value](CMessageWnd& w) {
    w.SetKeepOpen(mask, value);
    return true;
  });
}

void MessageInteractionImpl::SetDoneCallback(DoneCallback callback, void* argument) {
  {
    WinX::CriticalSectionLock guard(lock);
    if (!doneEvent.IsSet()) {
      doneCallback = callback;
      doneArgument = argument;
      return;
    }
  }
  if (callback) RunCallback(callback, argument, false);
}

// --- CMessageWnd ---------------------------------------------------------------------------------

Size CMessageWnd::IconSize() const {
  if (!p_.icon || p_.icon->width <= 0 || p_.icon->height <= 0) return {};
  return {p_.icon->width, p_.icon->height};
}

MessageLayoutInput CMessageWnd::Input() const {
  MessageLayoutInput in;
  // The columns were lined up once, when the window was made.
  in.flags = p_.flags & ~kMsgAlignColumns;
  in.mainFont = &ShellMainFont();
  in.textFont = (p_.flags & kMsgFixedFont) ? &ShellFixedFont() : &ShellMainFont();
  in.text = p_.text;
  in.buttons = p_.buttons;
  in.icon = IconSize();
  in.nonClient = {2 * kShellBorder, 2 * kShellBorder + kShellCaption};
  in.scrollBar = {kShellScrollBar, kShellScrollBar};
  in.workArea = GetWorkArea(0);
  return in;
}

void CMessageWnd::LayOut(bool replace, std::uint64_t hFlags, std::uint64_t vFlags) {
  MessageLayoutInput in = Input();
  if (replace) {
    in.flags = WithoutOpposedAlignment((in.flags & ~(kHorizontal | kVertical)) |
                                       (hFlags & kHorizontal) | (vFlags & kVertical));
    in.replace = true;
    in.current = layout_.window;
    in.currentMaxTrack = layout_.maxTrack;
  }
  layout_ = LayOutMessage(in);
  if (view_) view_->SetGeometry(Geometry());
}

ui::MessageWindowGeometry CMessageWnd::Geometry() const {
  const auto box = [](const Rect& r) {
    return r.Empty() ? ui::Box{} : ui::Box{r.left, r.top, r.Width(), r.Height()};
  };
  ui::MessageWindowGeometry g;
  g.placed = true;
  g.window = box(layout_.window);
  g.minWidth = layout_.minTrack.cx;
  g.minHeight = layout_.minTrack.cy;
  g.maxWidth = layout_.maxTrack.cx;
  g.maxHeight = layout_.maxTrack.cy;
  g.icon = box(layout_.icon);
  g.text = box(layout_.text);
  g.progress = box(layout_.progress);
  for (const Rect& r : layout_.buttons)
    g.buttons.push_back(box(r));
  g.textPadRight = layout_.metrics.avgW;
  g.vScroll = layout_.vScroll;
  g.hScroll = layout_.hScroll;
  return g;
}

ui::MessageWindowContent CMessageWnd::Content() const {
  const std::uint64_t f = p_.flags;
  ui::MessageWindowContent c;
  c.title = p_.title;
  c.text = (f & kMsgNoText) ? std::string() : p_.text;
  c.buttons = p_.buttons;
  c.selectableText = f & kMsgSelectableText;
  c.fixedFont = f & kMsgFixedFont;
  c.wrap = f & kMsgWrap;
  c.progressBar = f & kMsgProgressBar;
  c.closeBox = f & kMsgSystemMenu;
  c.resizable = f & kMsgSizingBorder;
  c.blocksPages = f & kMsgDisableMain;
  c.keyboard = f & kMsgKeyboard;
  bool anyShown = false;
  for (int i = 0; i < ButtonCount(); ++i)
    anyShown = anyShown || !(f & MsgButtonHidden(i));
  c.focusFirstButton = (f & kMsgDialogKeys) && anyShown;
  c.icon = IconSize().cx > 0 ? p_.icon->kind : std::string();
  c.geometry = Geometry();
  return c;
}

void CMessageWnd::Create(ui::Window& shell) {
  if (p_.flags & kMsgAlignColumns) {
    p_.text =
        AlignColumns(p_.text, (p_.flags & kMsgFixedFont) ? ShellFixedFont() : ShellMainFont());
  }
  LayOut(false, 0, 0);
  view_ = shell.OpenMessageWindow(Content(), [this](int result) { OnShellAnswer(result); });
  view_->SetResizeHandler([this](int width, int height) { OnResize(width, height); });
  for (int i = 0; i < ButtonCount(); ++i) {
    if (p_.flags & MsgButtonHidden(i)) view_->ShowButton(i, false);
  }
}

void CMessageWnd::RunActions() {
  std::list<MessageInteractionImpl::Action> list = owner_->TakeActions();
  for (auto& action : list) {
    if (!action(*this)) return;
  }
}

void CMessageWnd::OnShellAnswer(int result) {
  if (destroyed_) return;
  if (result == ui::kWindowClosed) {
    OnClose();
  } else {
    Click(result);
  }
}

void CMessageWnd::Click(int index) {
  if (p_.flags & kMsgKeepOpen) {
    owner_->End(index, false);
    return;
  }
  owner_->Queue(CloseWindow);
  owner_->End(index, true);
}

void CMessageWnd::OnClose() {
  if (p_.flags & kMsgKeepOpen) {
    owner_->End(-2, false);
    return;
  }
  owner_->End(-2, true);
  Destroy();
}

void CMessageWnd::OnResize(int clientWidth, int clientHeight) {
  if (destroyed_ || clientWidth <= 0 || clientHeight <= 0) return;
  const MessageLayoutInput in = Input();
  const MessageMeasure measure = MeasureMessage(in);
  PlaceControls(in, measure, {clientWidth, clientHeight}, layout_);
  layout_.window.right = layout_.window.left + clientWidth + in.nonClient.cx;
  layout_.window.bottom = layout_.window.top + clientHeight + in.nonClient.cy;
  view_->SetGeometry(Geometry());
}

void CMessageWnd::OnPendantButton(int number) {
  const auto it = pendant_.find(number);
  if (destroyed_ || it == pendant_.end()) return;
  const int index = it->second - kFirstButtonId;
  if (!view_->ButtonEnabled(index)) return;
  Click(index);
}

void CMessageWnd::Destroy() {
  if (destroyed_) return;
  destroyed_ = true;
  // Taking the window off the shell also gives the pages back their input.
  if (view_) view_->Close();
  owner_->End(-3, true);
  // The object goes once the call under way is over; the interaction goes with it unless a
  // caller still holds it.
  Host& host = TheHost();
  std::lock_guard lock(host.mutex);
  if (host.loop) host.loop->Post([serial = serial_] { TheHost().windows.erase(serial); });
}

void CMessageWnd::SetTitle(const std::string& title) {
  if (p_.title == title) return;
  p_.title = title;
  view_->SetTitle(title);
}

void CMessageWnd::SetText(const std::string& text, std::uint64_t hFlags, std::uint64_t vFlags) {
  // A window without a text control has nothing to show it in.
  if ((p_.flags & kMsgNoText) || p_.text == text) return;
  p_.text = text;
  view_->SetText(text);
  LayOut(true, hFlags, vFlags);
}

void CMessageWnd::SetIcon(Icon icon, std::uint64_t hFlags, std::uint64_t vFlags) {
  const Size before = IconSize();
  p_.icon = std::move(icon);
  view_->SetIcon(IconSize().cx > 0 ? p_.icon->kind : std::string());
  if (IconSize() != before) LayOut(true, hFlags, vFlags);
}

void CMessageWnd::EnableControl(int id, bool enable) {
  const int index = id - kFirstButtonId;
  if (index < 0 || index >= ButtonCount()) return;  // only buttons can be disabled here
  view_->EnableButton(index, enable);
}

void CMessageWnd::SetProgress(int position) {
  if (p_.flags & kMsgProgressBar) view_->SetProgress(position);
}

void CMessageWnd::SetCheck(int index, bool checked) {
  if (index < ButtonCount()) view_->SetCheck(index, checked);
}

void CMessageWnd::ScrollToLine(int line) {
  if (!(p_.flags & kMsgNoText)) view_->ScrollToLine(line);
}

void CMessageWnd::SetKeepOpen(std::uint64_t mask, std::uint64_t value) {
  p_.flags = (p_.flags & ~(mask & kMsgKeepOpen)) | (value & mask & kMsgKeepOpen);
}

void MakeWindow(const std::shared_ptr<MessageInteractionImpl>& interaction, MessageParams params) {
  Host& host = TheHost();
  ui::Window* shell = nullptr;
  int serial = 0;
  {
    std::lock_guard lock(host.mutex);
    shell = host.window;
    serial = host.nextSerial++;
  }
  if (!shell) return;
  auto created = std::make_unique<CMessageWnd>(serial, interaction, std::move(params));
  CMessageWnd& window = *created;
  host.windows.emplace(serial, std::move(created));
  window.Create(*shell);
  interaction->Attach(&window);
  window.RunActions();
}

}  // namespace

std::shared_ptr<MessageInteractionIFace> CreateMessage(
    const TextOrId& title, const TextOrId& text,
    const std::vector<std::shared_ptr<MsgIntrBase>>& /*controls*/, std::uint64_t flags, Icon icon,
    const std::array<TextOrId, 8>& buttons) {
  MessageParams params;
  params.title = title.Resolve();
  params.text = text.Resolve();
  if (params.text.empty()) flags |= kMsgNoText;
  params.flags = WithoutOpposedAlignment(flags);
  params.icon = std::move(icon);
  for (const TextOrId& button : buttons) {
    if (!button.IsNone()) params.buttons.push_back(button.Resolve());
  }
  auto interaction = std::make_shared<MessageInteractionImpl>();
  // Without a UI thread the message never shows; the handle works all the same.
  RunOnUiThread(
      [interaction, params = std::move(params)]() mutable {
        MakeWindow(interaction, std::move(params));
      },
      false, false);
  return interaction;
}

bool RunOnUiThread(std::function<void()> fn, bool send, bool direct) {
  Host& host = TheHost();
  platform::TaskLoop* loop = nullptr;
  bool viaWindow = false;
  bool onUi = false;
  {
    std::lock_guard lock(host.mutex);
    loop = host.loop;
    viaWindow = host.window && !direct;
    onUi = std::this_thread::get_id() == host.uiThread;
  }
  if (!loop) return false;
  if (!send) return loop->Post(std::move(fn));
  if (onUi) {
    fn();
    return true;
  }
  // Only a window can take a call that another thread waits for.
  return viaWindow && SendAndWait(*loop, std::move(fn));
}

void SetMessageWindowHost(platform::TaskLoop* loop, ui::Window* window) {
  Host& host = TheHost();
  if (!loop) {
    // Destroying a window takes it out of the map by a posted task; take them all out here.
    std::map<int, std::unique_ptr<CMessageWnd>> windows;
    std::swap(windows, host.windows);
    for (auto& [serial, w] : windows)
      w->Destroy();
  }
  std::lock_guard lock(host.mutex);
  host.loop = loop;
  host.window = loop ? window : nullptr;
  host.uiThread = loop ? std::this_thread::get_id() : std::thread::id();
}

Rect GetWorkArea(int kind) {
  Host& host = TheHost();
  std::pair<int, int> viewport{1280, 800};
  {
    std::lock_guard lock(host.mutex);
    if (host.window) viewport = host.window->Viewport();
  }
  const Rect monitor{0, 0, viewport.first, viewport.second};
  int overrideX = 0;
  int overrideY = 0;
  config::LoadMonitorOverride(overrideX, overrideY);
  return ApplyMonitorOverride(monitor, monitor, kind == 0, overrideX, overrideY);
}

void PressPendantButton(int number) {
  // A click may destroy a window, which leaves the map as it is until a later task.
  for (auto& [serial, window] : TheHost().windows)
    window->OnPendantButton(number);
}

}  // namespace Utility
