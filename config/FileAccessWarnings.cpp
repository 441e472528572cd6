#include "config/FileAccessWarnings.h"

#include <array>

#include "util/MessageInteraction.h"
#include "util/StringTable.h"

namespace {

constexpr unsigned kLeadIns[] = {19092, 19093, 19094};  // by access kind
constexpr unsigned kButtonText = 36301;
constexpr char kTitle[] = "File Access Warning";
// The text can be selected and copied; Escape, Enter and the arrow keys work.
constexpr std::uint64_t kFlags = Utility::kMsgSelectableText | Utility::kMsgKeyboard;

void OnDone(std::shared_ptr<Utility::MessageInteractionIFace>, void* collector) {
  static_cast<FileAccessWarnings*>(collector)->Clear();
}

}  // namespace

FileAccessWarnings::FileAccessWarnings() {
  config::SetFileAccessSink(this);
}

FileAccessWarnings::~FileAccessWarnings() {
  config::SetFileAccessSink(nullptr);
  std::shared_ptr<Utility::MessageInteractionIFace> open;
  {
    WinX::CriticalSectionLock hold(lock);
    open = std::move(interaction);
    windowShown = false;
  }
  if (open) {
    open->SetDoneCallback(nullptr, nullptr);  // this object is going: nothing to clear
    open->Close();
  }
}

std::string FileAccessWarnings::Describe(const config::FileAccessInfo& info) {
  const int kind = info.accessKind >= 0 && info.accessKind <= 2 ? info.accessKind : 0;
  return strings::Load(kLeadIns[kind]) + "'" + info.path + "'. " + info.errorText + "\r\n";
}

void FileAccessWarnings::Report(std::shared_ptr<config::FileAccessInfo> info) {
  if (!info) return;
  WinX::CriticalSectionLock hold(lock);
  if (!reported.emplace(info, true).second) return;
  if (!messageText.empty()) messageText += "\r\n";
  messageText += Describe(*info);
  if (!windowShown) {
    std::array<Utility::TextOrId, 8> buttons{};
    buttons[0] = Utility::TextOrId(kButtonText);
    // Creating the message only queues work for the UI thread, so the lock is not held across
    // that thread's work.
    interaction = Utility::CreateMessage(kTitle, messageText, {}, kFlags, {}, buttons);
    if (interaction) interaction->SetDoneCallback(OnDone, this);
    windowShown = true;
  } else if (interaction) {
    interaction->SetText(messageText, 0, 0);
  }
}

void FileAccessWarnings::Clear() {
  WinX::CriticalSectionLock hold(lock);
  windowShown = false;
  reported.clear();
  messageText.clear();
  interaction.reset();
}

std::string FileAccessWarnings::MessageText() {
  WinX::CriticalSectionLock hold(lock);
  return messageText;
}
