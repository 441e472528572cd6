#include "ui/Protocol.h"

#include <nlohmann/json.hpp>

#include <climits>

#include "ui/MessageBox.h"

namespace ui::protocol {

using nlohmann::json;

namespace {

// Messages from the shell are flat; anything nested deeper is not ours and is refused before
// the parser sees it.
constexpr int kMaxDepth = 4;

bool NestingWithin(const std::string& text, int limit) {
  int depth = 0;
  bool inString = false;
  bool escaped = false;
  for (const char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '{' || c == '[') {
      if (++depth > limit) return false;
    } else if (c == '}' || c == ']') {
      --depth;
    }
  }
  return true;
}

// The parser keeps numbers above INT64_MAX as unsigned: read as signed, 2^64-1 would be -1.
bool GetInt(const json& j, const char* key, int& out) {
  const auto it = j.find(key);
  if (it == j.end() || !it->is_number_integer()) return false;
  if (it->is_number_unsigned()) {
    const auto v = it->get<std::uint64_t>();
    if (v > static_cast<std::uint64_t>(INT_MAX)) return false;
    out = static_cast<int>(v);
    return true;
  }
  const auto v = it->get<std::int64_t>();
  if (v < INT_MIN || v > INT_MAX) return false;
  out = static_cast<int>(v);
  return true;
}

// Sizes and offsets in pixels: never negative, so that pages can subtract one from another.
bool GetSize(const json& j, const char* key, std::int32_t& out) {
  int v = 0;
  if (!GetInt(j, key, v) || v < 0) return false;
  out = v;
  return true;
}

bool GetString(const json& j, const char* key, std::string& out) {
  const auto it = j.find(key);
  if (it == j.end() || !it->is_string()) return false;
  out = it->get<std::string>();
  return true;
}

// An optional member: absent is fine, present with the wrong type is not.
template <typename T>
bool GetOptional(const json& j, const char* key, std::optional<T>& out) {
  const auto it = j.find(key);
  if (it == j.end()) return true;
  if constexpr (std::is_same_v<T, bool>) {
    if (!it->is_boolean()) return false;
  } else {
    if (!it->is_string()) return false;
  }
  out = it->get<T>();
  return true;
}

bool DecodeEvent(const json& j, Incoming& in, std::string& error) {
  std::string kind;
  if (!GetInt(j, "page", in.page) || !GetString(j, "id", in.id) || !GetString(j, "kind", kind)) {
    error = "event without page, id or kind";
    return false;
  }
  const auto parsed = ParseEventKind(kind);
  if (!parsed) {
    error = "unknown event kind '" + kind + "'";
    return false;
  }
  in.eventKind = *parsed;
  if (!GetOptional(j, "value", in.value) || !GetOptional(j, "checked", in.checked)) {
    error = "event with a mistyped value or checked";
    return false;
  }
  return true;
}

bool DecodeFields(const std::string& type, const json& j, Incoming& in, std::string& error) {
  using K = Incoming::Kind;
  if (type == "event") {
    in.kind = K::kEvent;
    return DecodeEvent(j, in, error);
  }
  if (type == "shown" || type == "loaded" || type == "cancel") {
    in.kind = type == "shown" ? K::kShown : type == "loaded" ? K::kLoaded : K::kCancel;
    if (GetInt(j, "page", in.page)) return true;
    error = type + " without page";
    return false;
  }
  if (type == "scroll") {
    in.kind = K::kScroll;
    if (GetInt(j, "page", in.page) && GetString(j, "id", in.id) &&
        GetSize(j, "height", in.scroll.scrollHeight) && GetSize(j, "top", in.scroll.scrollTop) &&
        GetSize(j, "client", in.scroll.clientHeight)) {
      return true;
    }
    error = "scroll report with missing or negative fields";
    return false;
  }
  if (type == "answer") {
    in.kind = K::kAnswer;
    if (!GetInt(j, "dialog", in.dialog) || !GetInt(j, "result", in.result)) {
      error = "answer without dialog or result";
      return false;
    }
    if (j.contains("choice") && !GetInt(j, "choice", in.choice)) {
      error = "answer with a mistyped choice";
      return false;
    }
    return true;
  }
  if (type == "resize" || type == "viewport") {
    in.kind = type == "resize" ? K::kResize : K::kViewport;
    if ((in.kind == K::kViewport || GetInt(j, "dialog", in.dialog)) &&
        GetInt(j, "width", in.width) && GetInt(j, "height", in.height)) {
      return true;
    }
    error = type + " with missing fields";
    return false;
  }
  if (type == "beat") {
    in.kind = K::kBeat;
    return true;
  }
  if (type == "hello" || type == "take") {
    in.kind = type == "hello" ? K::kHello : K::kTake;
    if (GetString(j, type == "hello" ? "tab" : "test", in.id)) return true;
    error = type + " without its text";
    return false;
  }
  error = "unknown message type '" + type + "'";
  return false;
}

const char* ButtonsOf(unsigned style) {
  switch (style & 0xF) {
    case kMbOkCancel:
      return "okcancel";
    case kMbYesNo:
      return "yesno";
    default:
      return "ok";
  }
}

json Element(const ElementState& e) {
  json o = json::object();
  if (e.value) o["v"] = *e.value;
  if (e.checked) o["c"] = *e.checked;
  if (e.disabled) o["d"] = *e.disabled;
  if (e.display) o["s"] = *e.display;
  if (e.background) o["b"] = *e.background;
  if (e.min) o["min"] = *e.min;
  if (e.max) o["max"] = *e.max;
  if (e.lineStep) o["line"] = *e.lineStep;
  if (e.pageStep) o["pageStep"] = *e.pageStep;
  if (e.tickSpacing) o["tick"] = *e.tickSpacing;
  return o;
}

// Text from the program is UTF-8 as a rule, but a board's bytes may not be: replace what is
// not valid rather than fail the whole message.
std::string Dump(const json& j) {
  return j.dump(-1, ' ', false, json::error_handler_t::replace);
}

json BoxJson(const Box& b) {
  return json::array({b.left, b.top, b.width, b.height});
}

}  // namespace

std::optional<Incoming> Decode(const std::string& text, std::string& error) {
  if (!NestingWithin(text, kMaxDepth)) {
    error = "message nested too deeply";
    return std::nullopt;
  }
  const json j = json::parse(text, nullptr, false);
  if (j.is_discarded() || !j.is_object()) {
    error = "not a JSON object";
    return std::nullopt;
  }
  std::string type;
  if (!GetString(j, "t", type)) {
    error = "message without a type";
    return std::nullopt;
  }
  Incoming in{};
  if (!DecodeFields(type, j, in, error)) return std::nullopt;
  return in;
}

std::string EncodeTabs(const std::vector<TabInfo>& tabs) {
  json list = json::array();
  for (const TabInfo& tab : tabs) {
    json events = json::array();
    for (const auto& [id, kind] : tab.events)
      events.push_back({id, EventKindName(kind)});
    list.push_back({{"title", tab.title},
                    {"src", tab.src},
                    {"events", events},
                    {"scroll", tab.scrollWatched}});
  }
  return Dump({{"t", "tabs"}, {"tabs", list}});
}

std::string EncodeDoc(int page, const DocumentDelta& delta, bool full) {
  json elements = json::object();
  for (const auto& [id, state] : delta.elements)
    elements[id] = Element(state);
  json scrolls = json::array();
  for (const ScrollOrder& s : delta.scrolls) {
    scrolls.push_back({s.id, s.command == ScrollCommand::kPageDown ? "pageDown" : "end"});
  }
  return Dump(
      {{"t", "doc"}, {"page", page}, {"full", full}, {"el", elements}, {"scroll", scrolls}});
}

std::string EncodeBox(int id, const std::string& text, const std::string& title, unsigned style,
                      bool asDialog) {
  return Dump({{"t", "dialog"},
               {"id", id},
               {"kind", "box"},
               {"title", title},
               {"text", text},
               {"buttons", ButtonsOf(style)},
               {"stop", (style & kMbIconStop) != 0},
               {"role", asDialog ? "dialog" : "alertdialog"}});
}

std::string EncodeChoice(int id, const ChoiceDialog& dialog) {
  return Dump({{"t", "dialog"},
               {"id", id},
               {"kind", "choice"},
               {"title", dialog.title},
               {"texts", dialog.texts},
               {"group", dialog.group},
               {"options", dialog.options},
               {"initial", dialog.initial}});
}

std::string EncodeMessageWindow(int id, const MessageWindowState& s, int scrollLine) {
  const MessageWindowContent& c = s.content;
  json j = {{"t", "dialog"},
            {"id", id},
            {"kind", "window"},
            {"title", c.title},
            {"text", c.text},
            {"buttons", c.buttons},
            {"enabled", s.enabled},
            {"shown", s.shown},
            {"checks", s.checks},
            {"selectable", c.selectableText},
            {"fixedFont", c.fixedFont},
            {"wrap", c.wrap},
            {"closeBox", c.closeBox},
            {"resizable", c.resizable},
            {"blocksPages", c.blocksPages},
            {"keyboard", c.keyboard},
            {"focusFirst", c.focusFirstButton},
            {"icon", c.icon},
            {"width", c.width},
            {"height", c.height}};
  if (c.progressBar) j["progress"] = s.progress;
  if (scrollLine >= 0) j["scrollToLine"] = scrollLine;
  const MessageWindowGeometry& g = c.geometry;
  if (g.placed) {
    json buttons = json::array();
    for (const Box& b : g.buttons)
      buttons.push_back(BoxJson(b));
    j["layout"] = {{"window", BoxJson(g.window)},
                   {"min", {g.minWidth, g.minHeight}},
                   {"max", {g.maxWidth, g.maxHeight}},
                   {"icon", BoxJson(g.icon)},
                   {"text", BoxJson(g.text)},
                   {"progress", BoxJson(g.progress)},
                   {"buttons", buttons},
                   {"textPadRight", g.textPadRight},
                   {"vScroll", g.vScroll},
                   {"hScroll", g.hScroll}};
  }
  return Dump(j);
}

std::string EncodeCloseDialog(int id) {
  return Dump({{"t", "closeDialog"}, {"id", id}});
}

std::string EncodeControl(ControlState state, const std::string& test) {
  return Dump({{"t", "control"}, {"state", ControlStateName(state)}, {"test", test}});
}

std::string EncodeRefused(const std::string& test, int dialog) {
  json j = {{"t", "refused"}, {"text", kRunFromAnotherWindow}, {"test", test}};
  if (dialog != 0) j["dialog"] = dialog;
  return Dump(j);
}

std::string EncodeGoodbye(const std::string& reason, const std::string& folder) {
  return Dump({{"t", "bye"}, {"reason", reason}, {"folder", folder}});
}

}  // namespace ui::protocol
