// The recorder: every value the pages read, at the rate they read it, kept in memory for export.
//
// Each channel has two rings, both made at AddChannel and never grown:
// - the full-rate ring: one slot per tick of the channel's timer, over the full-rate window
//   (10 minutes). The tick times are kept once per timer (a "group": all channels of one rate),
//   so a sample costs only its value (1, 2 or 4 bytes by the channel's kind) and one bit.
// - the history: the minimum and maximum of each second, over 24 hours, with the second implied
//   by the slot. Channels read once a second or slower keep no history: their full-rate ring
//   spans the history's 24 hours instead, and their seconds are worked out from it.
// The oldest tick or second is overwritten by the newest; nothing is allocated after AddChannel,
// and AddChannel refuses a channel that would take the recorder past its budget.
//
// Threads: the UI thread adds channels, begins ticks and records; export threads read. Each group
// has one mutex, held by the UI thread for the store of one value (or the start of a tick) and by
// a reader for the copy of one block of at most a few thousand slots. A reader so never keeps the
// UI thread waiting for more than one short copy, and the data it formats is its own copy. A
// seqlock would spare the writer even that wait, but needs every slot read through atomics to be
// free of data races; with a few hundred stores a tick the uncontended mutex costs little (see
// bench/RecorderBench.cpp), and the copy a reader holds it for is bounded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace recorder {

// Microseconds since the Unix epoch.
using TimeUs = std::int64_t;
inline constexpr TimeUs kUsPerSecond = 1'000'000;

// How a channel's values are stored. Integers are rounded and held to the kind's range (a value
// beyond it is recorded as the nearest end); kFloat keeps a float.
// kUInt32: the board's unsigned 32-bit values (light levels, the laser's value) kept whole.
enum class ValueKind : std::uint8_t { kFlag, kInt16, kUInt16, kInt32, kFloat, kUInt32 };

struct KindForm {
  unsigned bytes;
  bool isFloat;
  double min;
  double max;
};
const KindForm& FormOf(ValueKind kind);

struct ChannelInfo {
  std::string name;  // stable, e.g. "status.LinearPosition.X"
  std::string unit;  // or empty
  std::uint32_t rateMs = 0;
  ValueKind kind = ValueKind::kInt32;
  // Where the window shows it: the title of the page, and the id of the element in that page's
  // document (empty when none shows it).
  std::string page;
  std::string element;
};

using ChannelId = int;
inline constexpr ChannelId kNoChannel = -1;

enum class EventKind : std::uint8_t {
  kLinkLost,
  kLinkBack,
  kEStopOn,
  kEStopOff,
  kSleep,
  kTestStarted,
  kTestEnded,  // text: the report's name
  kAnswer,     // text: the question's answer
};
// The kind's name for scripts and the plots: "link-lost", "estop-on", "test-ended" ...
const char* EventName(EventKind kind);

struct Event {
  TimeUs time = 0;
  EventKind kind = EventKind::kLinkLost;
  std::string text;
};

struct RecorderLimits {
  TimeUs fullWindowS = 600;     // the full-rate window
  TimeUs historyS = 24 * 3600;  // the per-second history
  std::size_t budgetBytes = 80u << 20;
  std::uint32_t slowRateMs = 1000;  // from this rate on, the full-rate ring is the history
  std::size_t eventCapacity = 4096;
};

// Bytes one channel of that rate and kind takes under these limits (its share of its group's
// time ring not counted).
std::size_t ChannelBytes(const RecorderLimits& limits, std::uint32_t rateMs, ValueKind kind);
// Bytes of one group's time ring.
std::size_t GroupBytes(const RecorderLimits& limits, std::uint32_t rateMs);
std::size_t EventBytes(const RecorderLimits& limits);

// A block of full-rate ticks of one group, for the selected columns: values[i * columns + c].
struct FullBlock {
  std::vector<TimeUs> times;
  std::vector<double> values;
  std::vector<std::uint8_t> has;
};

class Recorder {
 public:
  explicit Recorder(RecorderLimits limits = {});
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  // Adds a channel and makes its rings; on the UI thread, as Record. kNoChannel when the name
  // is taken, empty, longer than 128 bytes or holds other than letters, digits, '.', '_' and
  // '-'; when the unit, page or element is longer than 32, 64 or 128 bytes; when the rate is 0;
  // or when the rings would take the recorder past its budget.
  ChannelId AddChannel(const ChannelInfo& info);
  std::size_t BytesUsed() const;
  const RecorderLimits& Limits() const { return limits_; }

  // --- UI thread ---
  // Starts a tick of the timer of that rate; the values recorded until its next tick belong to
  // it. A time earlier than the group's last tick is taken as that tick's time (the rings stay
  // in order), so the caller should count time on a steady clock (wall time at the start plus
  // the steady time since), which a wall clock set back cannot step back. A rate no channel
  // has is ignored.
  void BeginTick(std::uint32_t rateMs, TimeUs time);
  // The channel's value at its group's present tick. A second value in one tick replaces the
  // first in the full-rate ring and widens the second's range. Non-finite values and values
  // before the group's first tick are dropped.
  void Record(ChannelId id, double value);
  // An event mark; the text is cut to 120 bytes (never inside a character). Any thread.
  void Mark(EventKind kind, TimeUs time, std::string_view text = {});

  // --- any thread ---
  ChannelId Find(std::string_view name) const;
  std::vector<ChannelInfo> Channels() const;
  ChannelInfo Info(ChannelId id) const;
  // Whether the channel's seconds come from its full-rate ring.
  bool IsSlow(ChannelId id) const;
  std::vector<Event> Events(TimeUs from, TimeUs to) const;

  // Copies up to maxTicks ticks of one group with times in [from, to], beginning at tick
  // `cursor` (0: the first at or after `from`), and moves `cursor` past them. Every id must
  // belong to the group of `ids[0]`. Ticks overwritten since the last call are skipped. Returns
  // false when no tick is left.
  bool ReadFull(const std::vector<ChannelId>& ids, TimeUs from, TimeUs to, std::uint64_t& cursor,
                std::size_t maxTicks, FullBlock& out) const;
  // The minimum and maximum of `count` seconds from `firstSecond` (seconds since the epoch);
  // has[i] 0 where the second holds no value.
  void ReadSeconds(ChannelId id, std::int64_t firstSecond, std::size_t count, double* min,
                   double* max, std::uint8_t* has) const;

 private:
  struct Group;
  struct Channel;

  Group* GroupOf(std::uint32_t rateMs) const;

  RecorderLimits limits_;
  mutable std::mutex registry_;  // channels_ and groups_ as lists; also AddChannel
  std::vector<std::unique_ptr<Channel>> channels_;
  std::vector<std::unique_ptr<Group>> groups_;
  std::size_t bytes_ = 0;

  mutable std::mutex eventLock_;
  struct StoredEvent {
    TimeUs time;
    EventKind kind;
    std::uint8_t length;
    char text[120];
  };
  std::vector<StoredEvent> events_;
  std::uint64_t eventCount_ = 0;
};

}  // namespace recorder
