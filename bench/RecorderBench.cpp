// The recorder with every page on (the channels of kPagePlan): the cost of one tick of every
// channel on the UI thread, and of exporting ten minutes of every channel to a sink that drops
// what it gets.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "recorder/Export.h"
#include "recorder/PagePlan.h"
#include "recorder/Recorder.h"

namespace {

constexpr recorder::TimeUs kStart = 1'764'000'000LL * recorder::kUsPerSecond;
constexpr std::uint32_t kRates[] = {20, 50, 200, 1000};

struct Planned {
  recorder::Recorder rec;
  std::vector<std::vector<recorder::ChannelId>> byRate{std::size(kRates)};

  Planned() {
    for (const recorder::PlannedChannels& p : recorder::kPagePlan) {
      for (unsigned i = 0; i < p.count; ++i) {
        const recorder::ChannelId id =
            rec.AddChannel({.name = "c" + std::to_string(rec.Channels().size()),
                            .rateMs = p.rateMs,
                            .kind = p.kind});
        if (id == recorder::kNoChannel) std::abort();  // the plan no longer fits its budget
        for (std::size_t r = 0; r < std::size(kRates); ++r) {
          if (kRates[r] == p.rateMs) byRate[r].push_back(id);
        }
      }
    }
  }

  // One 20 ms step of the timers: the 20 ms group every time, the others when they are due.
  void Step(std::int64_t step) {
    const recorder::TimeUs t = kStart + step * 20'000;
    for (std::size_t r = 0; r < std::size(kRates); ++r) {
      if (step % (kRates[r] / 20) != 0) continue;
      rec.BeginTick(kRates[r], t);
      for (recorder::ChannelId id : byRate[r])
        rec.Record(id, static_cast<double>(step % 4000));
    }
  }
};

// Every channel once: each group begins a tick and records all its channels.
void BM_RecordTickOfEveryChannel(benchmark::State& state) {
  Planned p;
  recorder::TimeUs t = kStart;
  double v = 0;
  for (auto _ : state) {
    t += 20'000;
    v += 1;
    for (std::size_t r = 0; r < std::size(kRates); ++r) {
      p.rec.BeginTick(kRates[r], t);
      for (recorder::ChannelId id : p.byRate[r])
        p.rec.Record(id, v);
    }
  }
  state.counters["channels"] = static_cast<double>(p.rec.Channels().size());
  state.counters["MB"] = static_cast<double>(p.rec.BytesUsed()) / 1e6;
}
BENCHMARK(BM_RecordTickOfEveryChannel);

void BM_ExportTenMinutesOfEveryChannel(benchmark::State& state) {
  Planned p;
  constexpr std::int64_t kSteps = 10 * 60 * 50;
  for (std::int64_t s = 0; s < kSteps; ++s)
    p.Step(s);
  recorder::ExportQuery q;
  for (const recorder::ChannelInfo& c : p.rec.Channels())
    q.channels.push_back(p.rec.Find(c.name));
  q.from = kStart;
  q.to = kStart + kSteps * 20'000;
  q.json = state.range(0) != 0;
  std::size_t bytes = 0;
  for (auto _ : state) {
    bytes = 0;
    recorder::Export(p.rec, q, [&](std::string_view chunk) {
      bytes += chunk.size();
      return true;
    });
  }
  state.counters["MB_out"] = static_cast<double>(bytes) / 1e6;
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes) * state.iterations());
}
BENCHMARK(BM_ExportTenMinutesOfEveryChannel)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// Kilobytes of the process's resident memory.
long RssKb() {
  std::FILE* f = std::fopen("/proc/self/status", "r");
  if (!f) return -1;
  char line[256];
  long kb = -1;
  while (std::fgets(line, sizeof line, f)) {
    if (std::sscanf(line, "VmRSS: %ld kB", &kb) == 1) break;
  }
  std::fclose(f);
  return kb;
}

// 24 hours of every channel: the rings are made at AddChannel and never grow, so the resident
// memory once every slot has been written is all the history ever costs.
void BM_MemoryOfTwentyFourHours(benchmark::State& state) {
  for (auto _ : state) {
    const long before = RssKb();
    Planned p;
    const long added = RssKb();
    constexpr std::int64_t kSteps = 24LL * 3600 * 50;
    for (std::int64_t s = 0; s < kSteps; ++s)
      p.Step(s);
    const long filled = RssKb();
    state.counters["BytesUsed_MiB"] = static_cast<double>(p.rec.BytesUsed()) / (1 << 20);
    state.counters["RSS_added_MiB"] = static_cast<double>(added - before) / 1024;
    state.counters["RSS_24h_MiB"] = static_cast<double>(filled - before) / 1024;
    state.counters["channels"] = static_cast<double>(p.rec.Channels().size());
  }
}
BENCHMARK(BM_MemoryOfTwentyFourHours)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
