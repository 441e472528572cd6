#include "recorder/Recorder.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace recorder {

namespace {

// Per kind: the bytes a value takes and the range it keeps exactly.
constexpr KindForm kForms[] = {
    {.bytes = 1, .isFloat = false, .min = 0, .max = 255},                       // kFlag
    {.bytes = 2, .isFloat = false, .min = -32768, .max = 32767},                // kInt16
    {.bytes = 2, .isFloat = false, .min = 0, .max = 65535},                     // kUInt16
    {.bytes = 4, .isFloat = false, .min = -2147483648.0, .max = 2147483647.0},  // kInt32
    {.bytes = 4, .isFloat = true, .min = -3.4e38, .max = 3.4e38},               // kFloat
    {.bytes = 4, .isFloat = false, .min = 0, .max = 4294967295.0},              // kUInt32
};

constexpr std::size_t kMaxNameLength = 128;

// Names travel in export queries (comma-separated, in a URL) and CSV headers: letters, digits,
// '.', '_' and '-' only, so that none needs quoting or escaping anywhere.
bool IsChannelName(const std::string& name) {
  if (name.empty() || name.size() > kMaxNameLength) return false;
  return std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '-';
  });
}

std::size_t BitWords(std::size_t bits) {
  return (bits + 63) / 64;
}

bool TestBit(const std::vector<std::uint64_t>& bits, std::size_t i) {
  return (bits[i / 64] >> (i % 64)) & 1u;
}

void SetBit(std::vector<std::uint64_t>& bits, std::size_t i) {
  bits[i / 64] |= std::uint64_t{1} << (i % 64);
}

void ClearBit(std::vector<std::uint64_t>& bits, std::size_t i) {
  bits[i / 64] &= ~(std::uint64_t{1} << (i % 64));
}

// Ticks a full-rate ring holds: the window at the timer's rate and a sixteenth more, so that a
// timer running a little fast does not make the window shorter than promised.
std::size_t FullCapacity(const RecorderLimits& limits, std::uint32_t rateMs) {
  const TimeUs span = rateMs >= limits.slowRateMs ? limits.historyS : limits.fullWindowS;
  const std::size_t ticks = static_cast<std::size_t>(span * 1000 / std::max<TimeUs>(rateMs, 1));
  return ticks + ticks / 16 + 1;
}

std::size_t HistoryCapacity(const RecorderLimits& limits) {
  return static_cast<std::size_t>(limits.historyS) + 1;
}

std::int64_t SecondOf(TimeUs t) {
  return t >= 0 ? t / kUsPerSecond : -((-t + kUsPerSecond - 1) / kUsPerSecond);
}

std::size_t SlotOf(std::int64_t n, std::size_t capacity) {
  const auto c = static_cast<std::int64_t>(capacity);
  return static_cast<std::size_t>(((n % c) + c) % c);
}

std::uint32_t Encode(const KindForm& form, double value) {
  if (form.isFloat) {
    const float f = static_cast<float>(std::clamp(value, form.min, form.max));
    std::uint32_t bits;
    std::memcpy(&bits, &f, sizeof bits);
    return bits;
  }
  const auto i = static_cast<std::int64_t>(std::llround(std::clamp(value, form.min, form.max)));
  return static_cast<std::uint32_t>(i);
}

double Decode(ValueKind kind, std::uint32_t raw) {
  switch (kind) {
    case ValueKind::kFlag:
      return static_cast<std::uint8_t>(raw);
    case ValueKind::kInt16:
      return static_cast<std::int16_t>(raw);
    case ValueKind::kUInt16:
      return static_cast<std::uint16_t>(raw);
    case ValueKind::kInt32:
      return static_cast<std::int32_t>(raw);
    case ValueKind::kUInt32:
      return raw;
    case ValueKind::kFloat: {
      float f;
      std::memcpy(&f, &raw, sizeof f);
      return f;
    }
  }
  return 0;
}

void Store(std::uint8_t* slot, unsigned bytes, std::uint32_t raw) {
  std::memcpy(slot, &raw, bytes);  // little-endian: the low bytes
}

std::uint32_t Load(const std::uint8_t* slot, unsigned bytes) {
  std::uint32_t raw = 0;
  std::memcpy(&raw, slot, bytes);
  return raw;
}

}  // namespace

const KindForm& FormOf(ValueKind kind) {
  return kForms[static_cast<unsigned>(kind)];
}

const char* EventName(EventKind kind) {
  // One word each, as the routes give them and the plots colour them.
  constexpr const char* kNames[] = {"link-lost", "link-back",    "estop-on",   "estop-off",
                                    "sleep",     "test-started", "test-ended", "answer"};
  const auto at = static_cast<std::size_t>(kind);
  return at < std::size(kNames) ? kNames[at] : "";
}

std::size_t GroupBytes(const RecorderLimits& limits, std::uint32_t rateMs) {
  return FullCapacity(limits, rateMs) * sizeof(TimeUs);
}

std::size_t ChannelBytes(const RecorderLimits& limits, std::uint32_t rateMs, ValueKind kind) {
  const unsigned bytes = FormOf(kind).bytes;
  const std::size_t full = FullCapacity(limits, rateMs);
  std::size_t total = full * bytes + BitWords(full) * 8;
  if (rateMs < limits.slowRateMs) {
    const std::size_t seconds = HistoryCapacity(limits);
    total += 2 * seconds * bytes + BitWords(seconds) * 8;
  }
  return total;
}

std::size_t EventBytes(const RecorderLimits& limits) {
  return limits.eventCapacity * (sizeof(TimeUs) + 2 + 120);
}

struct Recorder::Group {
  std::uint32_t rateMs = 0;
  bool slow = false;
  std::size_t capacity = 0;
  mutable std::mutex lock;
  std::vector<TimeUs> times;  // by tick slot
  std::uint64_t ticks = 0;    // ticks begun; the present one is ticks - 1
  std::vector<Channel*> members;
};

struct Recorder::Channel {
  ChannelInfo info;
  KindForm form{};
  Group* group = nullptr;
  std::vector<std::uint8_t> full;  // by tick slot
  std::vector<std::uint64_t> fullHas;
  // Per second, for channels faster than once a second.
  std::size_t seconds = 0;
  std::vector<std::uint8_t> min, max;
  std::vector<std::uint64_t> secondHas;
  std::int64_t newestSecond = std::numeric_limits<std::int64_t>::min();
};

Recorder::Recorder(RecorderLimits limits) : limits_(limits) {
  limits_.eventCapacity = std::max<std::size_t>(limits_.eventCapacity, 1);
  events_.resize(limits_.eventCapacity);
  bytes_ = EventBytes(limits_);
}

Recorder::~Recorder() = default;

ChannelId Recorder::AddChannel(const ChannelInfo& info) {
  if (!IsChannelName(info.name) || info.unit.size() > 32 || info.page.size() > 64 ||
      info.element.size() > 128 || info.rateMs == 0 ||
      static_cast<unsigned>(info.kind) > static_cast<unsigned>(ValueKind::kUInt32))
    return kNoChannel;
  std::lock_guard lock(registry_);
  for (const auto& c : channels_) {
    if (c->info.name == info.name) return kNoChannel;
  }
  Group* group = GroupOf(info.rateMs);
  std::size_t needed = ChannelBytes(limits_, info.rateMs, info.kind);
  if (group == nullptr) needed += GroupBytes(limits_, info.rateMs);
  if (bytes_ + needed > limits_.budgetBytes) return kNoChannel;

  if (group == nullptr) {
    auto g = std::make_unique<Group>();
    g->rateMs = info.rateMs;
    g->slow = info.rateMs >= limits_.slowRateMs;
    g->capacity = FullCapacity(limits_, info.rateMs);
    g->times.assign(g->capacity, 0);
    group = g.get();
    groups_.push_back(std::move(g));
  }
  auto c = std::make_unique<Channel>();
  c->info = info;
  c->form = FormOf(info.kind);
  c->group = group;
  c->full.assign(group->capacity * c->form.bytes, 0);
  c->fullHas.assign(BitWords(group->capacity), 0);
  if (!group->slow) {
    c->seconds = HistoryCapacity(limits_);
    c->min.assign(c->seconds * c->form.bytes, 0);
    c->max.assign(c->seconds * c->form.bytes, 0);
    c->secondHas.assign(BitWords(c->seconds), 0);
  }
  {
    // A group's members are walked by BeginTick and readers under the group's lock.
    std::lock_guard groupLock(group->lock);
    group->members.push_back(c.get());
  }
  bytes_ += needed;
  channels_.push_back(std::move(c));
  return static_cast<ChannelId>(channels_.size() - 1);
}

std::size_t Recorder::BytesUsed() const {
  std::lock_guard lock(registry_);
  return bytes_;
}

Recorder::Group* Recorder::GroupOf(std::uint32_t rateMs) const {
  for (const auto& g : groups_) {
    if (g->rateMs == rateMs) return g.get();
  }
  return nullptr;
}

void Recorder::BeginTick(std::uint32_t rateMs, TimeUs time) {
  Group* group;
  {
    std::lock_guard lock(registry_);
    group = GroupOf(rateMs);
  }
  if (group == nullptr) return;
  std::lock_guard lock(group->lock);
  if (group->ticks > 0) {
    time = std::max(time, group->times[(group->ticks - 1) % group->capacity]);
  }
  const std::size_t slot = group->ticks % group->capacity;
  group->times[slot] = time;
  ++group->ticks;
  for (Channel* c : group->members)
    ClearBit(c->fullHas, slot);
}

void Recorder::Record(ChannelId id, double value) {
  // channels_ only grows, and only on this (the UI) thread.
  if (id < 0 || static_cast<std::size_t>(id) >= channels_.size() || !std::isfinite(value)) return;
  Channel& c = *channels_[static_cast<std::size_t>(id)];
  Group& g = *c.group;
  const std::uint32_t raw = Encode(c.form, value);
  const unsigned bytes = c.form.bytes;
  std::lock_guard lock(g.lock);
  if (g.ticks == 0) return;
  const std::size_t slot = (g.ticks - 1) % g.capacity;
  Store(&c.full[slot * bytes], bytes, raw);
  SetBit(c.fullHas, slot);
  if (g.slow) return;

  const std::int64_t second = SecondOf(g.times[slot]);
  const auto span = static_cast<std::int64_t>(c.seconds);
  if (second > c.newestSecond) {
    // Seconds skipped since the newest hold nothing.
    const std::int64_t first = c.newestSecond == std::numeric_limits<std::int64_t>::min()
                                   ? second - span + 1
                                   : std::max(c.newestSecond + 1, second - span + 1);
    for (std::int64_t s = first; s <= second; ++s)
      ClearBit(c.secondHas, SlotOf(s, c.seconds));
    c.newestSecond = second;
  } else if (second <= c.newestSecond - span) {
    return;
  }
  const std::size_t at = SlotOf(second, c.seconds);
  std::uint8_t* lo = &c.min[at * bytes];
  std::uint8_t* hi = &c.max[at * bytes];
  if (!TestBit(c.secondHas, at)) {
    Store(lo, bytes, raw);
    Store(hi, bytes, raw);
    SetBit(c.secondHas, at);
    return;
  }
  const double v = Decode(c.info.kind, raw);
  if (v < Decode(c.info.kind, Load(lo, bytes))) Store(lo, bytes, raw);
  if (v > Decode(c.info.kind, Load(hi, bytes))) Store(hi, bytes, raw);
}

void Recorder::Mark(EventKind kind, TimeUs time, std::string_view text) {
  std::size_t length = std::min<std::size_t>(text.size(), sizeof(StoredEvent::text));
  // Never end inside a UTF-8 character: back off continuation bytes.
  if (length < text.size()) {
    while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80)
      --length;
  }
  std::lock_guard lock(eventLock_);
  StoredEvent& e = events_[eventCount_ % events_.size()];
  e.time = time;
  e.kind = kind;
  e.length = static_cast<std::uint8_t>(length);
  if (length > 0) std::memcpy(e.text, text.data(), length);
  ++eventCount_;
}

std::vector<Event> Recorder::Events(TimeUs from, TimeUs to) const {
  std::vector<Event> out;
  std::lock_guard lock(eventLock_);
  const std::uint64_t first = eventCount_ > events_.size() ? eventCount_ - events_.size() : 0;
  for (std::uint64_t i = first; i < eventCount_; ++i) {
    const StoredEvent& e = events_[i % events_.size()];
    if (e.time < from || e.time > to) continue;
    out.push_back(Event{.time = e.time, .kind = e.kind, .text = std::string(e.text, e.length)});
  }
  return out;
}

ChannelId Recorder::Find(std::string_view name) const {
  std::lock_guard lock(registry_);
  for (std::size_t i = 0; i < channels_.size(); ++i) {
    if (channels_[i]->info.name == name) return static_cast<ChannelId>(i);
  }
  return kNoChannel;
}

std::vector<ChannelInfo> Recorder::Channels() const {
  std::lock_guard lock(registry_);
  std::vector<ChannelInfo> out;
  out.reserve(channels_.size());
  for (const auto& c : channels_)
    out.push_back(c->info);
  return out;
}

ChannelInfo Recorder::Info(ChannelId id) const {
  std::lock_guard lock(registry_);
  if (id < 0 || static_cast<std::size_t>(id) >= channels_.size()) return {};
  return channels_[static_cast<std::size_t>(id)]->info;
}

bool Recorder::IsSlow(ChannelId id) const {
  std::lock_guard lock(registry_);
  if (id < 0 || static_cast<std::size_t>(id) >= channels_.size()) return false;
  return channels_[static_cast<std::size_t>(id)]->group->slow;
}

bool Recorder::ReadFull(const std::vector<ChannelId>& ids, TimeUs from, TimeUs to,
                        std::uint64_t& cursor, std::size_t maxTicks, FullBlock& out) const {
  out.times.clear();
  out.values.clear();
  out.has.clear();
  std::vector<const Channel*> columns;
  {
    std::lock_guard lock(registry_);
    for (ChannelId id : ids) {
      if (id < 0 || static_cast<std::size_t>(id) >= channels_.size()) return false;
      columns.push_back(channels_[static_cast<std::size_t>(id)].get());
    }
  }
  if (columns.empty()) return false;
  const Group& g = *columns[0]->group;
  for (const Channel* c : columns) {
    if (c->group != &g) return false;
  }
  std::lock_guard lock(g.lock);
  const std::uint64_t oldest = g.ticks > g.capacity ? g.ticks - g.capacity : 0;
  auto timeAt = [&](std::uint64_t tick) { return g.times[tick % g.capacity]; };
  if (cursor == 0) {
    // The first tick at or after `from`: times are in order along the ticks.
    std::uint64_t lo = oldest, hi = g.ticks;
    while (lo < hi) {
      const std::uint64_t mid = lo + (hi - lo) / 2;
      if (timeAt(mid) < from) {
        lo = mid + 1;
      } else {
        hi = mid;
      }
    }
    cursor = lo + 1;  // stored one up, so that 0 stays "not begun"
  }
  std::uint64_t tick = std::max(cursor - 1, oldest);
  for (; tick < g.ticks && out.times.size() < maxTicks; ++tick) {
    const std::size_t slot = tick % g.capacity;
    if (g.times[slot] > to) {
      tick = g.ticks;  // nothing later can be in the window
      break;
    }
    out.times.push_back(g.times[slot]);
    for (const Channel* c : columns) {
      const bool has = TestBit(c->fullHas, slot);
      out.has.push_back(has ? 1 : 0);
      out.values.push_back(
          has ? Decode(c->info.kind, Load(&c->full[slot * c->form.bytes], c->form.bytes)) : 0.0);
    }
  }
  cursor = tick + 1;
  return !out.times.empty();
}

void Recorder::ReadSeconds(ChannelId id, std::int64_t firstSecond, std::size_t count, double* min,
                           double* max, std::uint8_t* has) const {
  std::fill(has, has + count, std::uint8_t{0});
  const Channel* c;
  {
    std::lock_guard lock(registry_);
    if (id < 0 || static_cast<std::size_t>(id) >= channels_.size()) return;
    c = channels_[static_cast<std::size_t>(id)].get();
  }
  const Group& g = *c->group;
  const unsigned bytes = c->form.bytes;
  std::lock_guard lock(g.lock);
  if (!g.slow) {
    const auto span = static_cast<std::int64_t>(c->seconds);
    for (std::size_t i = 0; i < count; ++i) {
      const std::int64_t s = firstSecond + static_cast<std::int64_t>(i);
      if (s > c->newestSecond || s <= c->newestSecond - span) continue;
      const std::size_t at = SlotOf(s, c->seconds);
      if (!TestBit(c->secondHas, at)) continue;
      has[i] = 1;
      min[i] = Decode(c->info.kind, Load(&c->min[at * bytes], bytes));
      max[i] = Decode(c->info.kind, Load(&c->max[at * bytes], bytes));
    }
    return;
  }
  // Once a second or slower: the seconds come from the full-rate ring.
  const std::uint64_t oldest = g.ticks > g.capacity ? g.ticks - g.capacity : 0;
  const TimeUs from = firstSecond * kUsPerSecond;
  std::uint64_t lo = oldest, hi = g.ticks;
  while (lo < hi) {
    const std::uint64_t mid = lo + (hi - lo) / 2;
    if (g.times[mid % g.capacity] < from) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  for (std::uint64_t tick = lo; tick < g.ticks; ++tick) {
    const std::size_t slot = tick % g.capacity;
    const std::int64_t i = SecondOf(g.times[slot]) - firstSecond;
    if (i >= static_cast<std::int64_t>(count)) break;
    if (!TestBit(c->fullHas, slot)) continue;
    const double v = Decode(c->info.kind, Load(&c->full[slot * bytes], bytes));
    const auto at = static_cast<std::size_t>(i);
    if (!has[at]) {
      has[at] = 1;
      min[at] = max[at] = v;
    } else {
      min[at] = std::min(min[at], v);
      max[at] = std::max(max[at], v);
    }
  }
}

}  // namespace recorder
