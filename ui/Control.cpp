#include "ui/Control.h"

namespace ui {

const char* ControlStateName(ControlState state) {
  switch (state) {
    case ControlState::kYours:
      return "yours";
    case ControlState::kOther:
      return "other";
    case ControlState::kFree:
      break;
  }
  return "free";
}

void ControlRule::Follow(const std::string& running) {
  if (running.empty()) {
    Release();
  } else if (!holder_.empty()) {
    test_ = running;
  }
}

void ControlRule::Started(const std::string& who, const std::string& running) {
  if (running.empty() || !holder_.empty() || who.empty()) return;
  holder_ = who;
  test_ = running;
}

bool ControlRule::Take(const std::string& who, const std::string& test) {
  if (holder_.empty() || holder_ == who || who.empty() || test != test_) return false;
  holder_ = who;
  return true;
}

void ControlRule::Release() {
  holder_.clear();
  test_.clear();
}

ControlState ControlRule::StateFor(const std::string& who) const {
  if (holder_.empty()) return ControlState::kFree;
  return holder_ == who ? ControlState::kYours : ControlState::kOther;
}

}  // namespace ui
