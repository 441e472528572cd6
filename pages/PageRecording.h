// What a page records: its channels in the run's recorder, named and placed where the window
// shows them, and the event marks it sees. A page that was never attached records nothing, so
// the pages work alone (their own tests) as they did.
//
// Everything but Mark runs on the UI thread; a Record is one short store (the recorder never
// makes the UI thread wait for longer than one reader's copy of a block).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "recorder/Recorder.h"
#include "recorder/RunTime.h"
#include "ui/MessageBox.h"
#include "util/Ticks.h"

// The rates of the main dialog's four timers, which are the rates values are recorded at.
inline constexpr std::uint32_t kTick20ms = PeriodMs(Tick::k20ms);
inline constexpr std::uint32_t kTick50ms = PeriodMs(Tick::k50ms);
inline constexpr std::uint32_t kTick200ms = PeriodMs(Tick::k200ms);
inline constexpr std::uint32_t kTick1s = PeriodMs(Tick::k1s);

// N channels not yet added.
template <std::size_t N>
std::array<recorder::ChannelId, N> NoChannels() {
  std::array<recorder::ChannelId, N> ids;
  ids.fill(recorder::kNoChannel);
  return ids;
}

// The name of a box's answer as an event mark gives it ("Yes", "No", "OK", "Cancel").
inline const char* AnswerName(int id) {
  switch (id) {
    case ui::kIdOk:
      return "OK";
    case ui::kIdCancel:
      return "Cancel";
    case ui::kIdYes:
      return "Yes";
    case ui::kIdNo:
      return "No";
    default:
      return "?";
  }
}

class PageRecording {
 public:
  void Attach(recorder::Recorder* recorder, const recorder::RunTime* time, std::string page) {
    recorder_ = recorder;
    time_ = time;
    page_ = std::move(page);
  }
  bool Attached() const { return recorder_ != nullptr; }

  // A channel shown by `element` of the page's document; kNoChannel when not attached (or the
  // recorder refused it: then its values go nowhere).
  recorder::ChannelId Add(std::string name, std::uint32_t rateMs, recorder::ValueKind kind,
                          std::string element, std::string unit = {}) const {
    if (!recorder_) return recorder::kNoChannel;
    return recorder_->AddChannel({.name = std::move(name),
                                  .unit = std::move(unit),
                                  .rateMs = rateMs,
                                  .kind = kind,
                                  .page = page_,
                                  .element = std::move(element)});
  }
  void Record(recorder::ChannelId id, double value) const {
    if (recorder_ && id != recorder::kNoChannel) recorder_->Record(id, value);
  }
  // Any thread (the test thread marks its operator's answers).
  void Mark(recorder::EventKind kind, std::string_view text = {}) const {
    if (recorder_) recorder_->Mark(kind, time_->Now(), text);
  }

 private:
  recorder::Recorder* recorder_ = nullptr;
  const recorder::RunTime* time_ = nullptr;
  std::string page_;
};
