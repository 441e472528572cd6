// Arbitrary browser messages to the window: the decoder of every message kind (events and their
// kind names, shown, loaded, cancel, scroll reports, answers, resizes, viewports) and what the
// window does with what it decodes, against two pages with event tables and a watched scroll
// element, a choice dialog and a resizable message window, and the shell's menu.
//
// Input: messages separated by '\n', the first byte of each naming which of two browsers sends
// it (low bit) and whether that browser leaves and comes back first (bit 1). The whole input is
// also decoded as one message.
//
// Whatever comes, nothing crashes and no number changes on the way: what the decoder takes is the
// integer the message holds (read again here with the JSON parser), scroll sizes are never
// negative (pages subtract them as 32-bit values, which the undefined-behaviour sanitizer
// checks), and an event kind reads back as its own name.
#include <nlohmann/json.hpp>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "config/ErrorLog.h"
#include "platform/TaskLoop.h"
#include "ui/Events.h"
#include "ui/Protocol.h"
#include "ui/Window.h"

namespace {

// Names the broken expectation before the crash that libFuzzer reports.
#define CHECK(condition)                                      \
  do {                                                        \
    if (!(condition)) {                                       \
      std::fprintf(stderr, "check failed: %s\n", #condition); \
      __builtin_trap();                                       \
    }                                                         \
  } while (false)

class Quiet : public ui::Connection {
 public:
  void Send(std::shared_ptr<const std::string> message) override { bytes += message->size(); }
  std::size_t bytes = 0;
};

// A page that does what the program's pages do with their input: takes values, answers with
// document changes, opens a dialog, and reads its scroll report as the serial log does.
class Page : public ui::HtmlPage {
 public:
  Page(ui::Window& window, const std::string& path) : HtmlPage(path), window_(window) {
    Doc().WatchScroll("Log");
    Events().OnClick("Go", [this](const ui::Event&) { Doc().SetText("Clicks", "1"); });
    Events().OnChange("Text",
                      [this](const ui::Event& e) { Doc().SetText("Echo", e.value.value_or("")); });
    Events().OnChange(
        "Tick", [this](const ui::Event&) { Doc().SetChecked("Tick", !Doc().Checked("Tick")); });
    Events().OnClick("Ask", [this](const ui::Event&) {
      window_.ShowChoiceAsync({.title = "Speed", .options = {"Standard", "High"}}, {});
    });
  }
  void OnDocumentComplete() override { Doc().SetText("Serial", "A1"); }
  void OnShowWindow(bool shown) override { shown_ = shown; }
  void OnCancel() override { Doc().SetText("State", "cancelled"); }

  // The serial log's question: does the view show the end of the text?
  bool ViewFollowsEnd() {
    const auto s = Doc().Scroll("Log");
    return s && s->scrollHeight > s->clientHeight &&
           s->scrollHeight - s->scrollTop <= s->clientHeight;
  }

 private:
  ui::Window& window_;
  bool shown_ = false;
};

// The number `key` of `j` as it was written, when it is an integer.
std::optional<std::int64_t> Written(const nlohmann::json& j, const char* key) {
  const auto it = j.find(key);
  if (it == j.end() || !it->is_number_integer()) return std::nullopt;
  if (it->is_number_unsigned()) {
    const auto v = it->get<std::uint64_t>();
    if (v > static_cast<std::uint64_t>(INT64_MAX)) return INT64_MAX;
    return static_cast<std::int64_t>(v);
  }
  return it->get<std::int64_t>();
}

// What the decoder took is what the message said, never a number that wrapped.
void CheckSame(const nlohmann::json& j, const char* key, int decoded) {
  const auto written = Written(j, key);
  CHECK(written && *written == decoded);
}

void CheckDecoded(const std::string& text) {
  std::string error;
  const auto in = ui::protocol::Decode(text, error);
  if (!in) {
    CHECK(!error.empty());
    return;
  }
  const auto j = nlohmann::json::parse(text, nullptr, false);
  CHECK(j.is_object());
  using K = ui::protocol::Incoming::Kind;
  switch (in->kind) {
    case K::kEvent:
      CheckSame(j, "page", in->page);
      CHECK(ui::ParseEventKind(ui::EventKindName(in->eventKind)) == in->eventKind);
      break;
    case K::kShown:
    case K::kLoaded:
    case K::kCancel:
      CheckSame(j, "page", in->page);
      break;
    case K::kScroll:
      CheckSame(j, "page", in->page);
      CheckSame(j, "height", in->scroll.scrollHeight);
      CheckSame(j, "top", in->scroll.scrollTop);
      CheckSame(j, "client", in->scroll.clientHeight);
      CHECK(in->scroll.scrollHeight >= 0 && in->scroll.scrollTop >= 0 &&
            in->scroll.clientHeight >= 0);
      break;
    case K::kAnswer:
      CheckSame(j, "dialog", in->dialog);
      CheckSame(j, "result", in->result);
      if (j.contains("choice")) CheckSame(j, "choice", in->choice);
      break;
    case K::kResize:
      CheckSame(j, "dialog", in->dialog);
      [[fallthrough]];
    case K::kViewport:
      CheckSame(j, "width", in->width);
      CheckSame(j, "height", in->height);
      break;
    case K::kBeat:
      CHECK(j.value("t", "") == "beat");
      break;
    case K::kHello:
      CHECK(j.value("tab", std::string("\x01")) == in->id);
      break;
    case K::kTake:
      CHECK(j.value("test", std::string("\x01")) == in->id);
      break;
  }
}

// Runs what is queued; each further round what the tasks before queued (flushes, answers).
void Drain(platform::TaskLoop& loop, int rounds) {
  for (int round = 0; round < rounds; ++round) {
    bool done = false;
    loop.Post([&done] { done = true; });
    loop.RunUntil([&done] { return done; });
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  errorlog::SetErrorLogSink([](const std::string&) {});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  CheckDecoded(input);

  platform::TaskLoop loop;
  ui::Window window(loop);
  Page first(window, "/pages/first.html");
  Page second(window, "/pages/second.html");
  window.AddPage("First", first);
  window.AddPage("Second", second);
  // The about box would write to stderr for every click; a choice dialog takes its place.
  window.ShellEvents().OnClick("menu-about", [&window](const ui::Event&) {
    window.ShowChoiceAsync({.title = "About", .options = {"OK"}}, {});
  });
  window.ShowChoiceAsync({.title = "Speed", .options = {"Standard", "High", "No Limit"}}, {});
  // The first page's "Go" starts a test that runs to the end of the input: the browser that
  // clicked it holds control, and the other one's input meets the rule.
  window.SetRunningTestQuery(
      [&first] { return first.Doc().Text("Clicks") == "1" ? "X Axis Test" : std::string(); });
  std::shared_ptr<ui::MessageWindowView> messages;
  messages = window.OpenMessageWindow(
      {.title = "Progress", .text = "Moving", .buttons = {"Stop", "Close"}, .resizable = true},
      [&messages](int button) {
        if (button == 1) messages->Close();
      });
  messages->SetResizeHandler(
      [&messages](int width, int height) { messages->SetSize(width, height); });

  auto browsers = std::make_shared<Quiet>();
  ui::Window::ClientId ids[2] = {window.Attach(browsers), window.Attach(browsers)};
  Drain(loop, 3);
  std::size_t at = 0;
  while (at < size) {
    std::size_t end = input.find('\n', at);
    if (end == std::string::npos) end = size;
    if (end > at) {
      const unsigned selector = static_cast<unsigned char>(input[at]);
      ui::Window::ClientId& id = ids[selector & 1];
      if (selector & 2) {
        window.Detach(id);
        id = window.Attach(browsers);
      }
      const std::string text = input.substr(at + 1, end - at - 1);
      CheckDecoded(text);
      window.Receive(id, text);
      Drain(loop, 1);
      first.ViewFollowsEnd();
      second.ViewFollowsEnd();
    }
    at = end + 1;
  }
  window.Detach(ids[0]);
  window.Detach(ids[1]);
  Drain(loop, 3);
  messages->Close();
  window.Shutdown();
  return 0;
}
