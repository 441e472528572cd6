// The keyed configuration store on a file of about 1 MB (UTF-16LE behind its mark, 500 sections
// of 30 keys), far larger than any file of an installation, so the costs of its design show: the
// whole file is read on the first OpenSection, every look-up scans the text, and a store writes
// the whole text again and flushes it to the disk.
//   - Load: a new object and its first OpenSection, which reads and checks the file.
//   - Lookups1000: 1,000 pairs of OpenSection and GetValue on keys spread over the sections, on
//     a loaded object.
//   - Store: one SetValue and the object's end, which writes a temporary file, flushes it and
//     puts it in the file's place (the load before it is not timed).
// Run: ninja -C build config_bench && build/bench/config_bench
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "config/Configuration.h"
#include "tests/support/TempDirs.h"
#include "util/Text.h"

namespace {

constexpr int kSections = 500;
constexpr int kKeys = 30;
constexpr int kLookups = 1000;

std::string SectionName(int section) {
  return "Section" + std::to_string(section);
}
std::string KeyName(int key) {
  return "ParameterKey" + std::to_string(key);
}

// The test file, made once for the run in a folder of its own.
class BenchFile {
 public:
  BenchFile() {
    path_ = folder_ / "Large.ini";
    std::u16string text;
    for (int s = 0; s < kSections; ++s) {
      // Built by appending: g++ 12 warns falsely (-Wrestrict) on "literal + temporary" at -O2.
      std::string lines(1, '[');
      lines += SectionName(s);
      lines += "]\r\n";
      for (int k = 0; k < kKeys; ++k)
        lines += KeyName(k) + "=" + std::to_string(s * 1000 + k) + ",value text\r\n";
      lines += "\r\n";
      text.append(lines.begin(), lines.end());  // ASCII: one unit per byte
    }
    std::FILE* out = std::fopen(path_.c_str(), "wb");
    if (out == nullptr) std::abort();
    std::string bytes = "\xFF\xFE";
    text::AppendUtf16Le(bytes, text);
    std::fwrite(bytes.data(), 1, bytes.size(), out);
    std::fclose(out);
    bytes_ = bytes.size();
  }
  BenchFile(const BenchFile&) = delete;
  BenchFile& operator=(const BenchFile&) = delete;

  const std::string& Path() const { return path_; }
  std::size_t Bytes() const { return bytes_; }

 private:
  testing_support::ScratchDir folder_;
  std::string path_;
  std::size_t bytes_ = 0;
};

BenchFile& File() {
  static BenchFile file;
  return file;
}

void Load(benchmark::State& state) {
  for (auto _ : state) {
    FileConfiguration config(File().Path(), false);
    if (!config.OpenSection(SectionName(0), false)) {
      state.SkipWithError("the file did not load");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * File().Bytes()));
  state.counters["file_bytes"] = static_cast<double>(File().Bytes());
}
BENCHMARK(Load)->Unit(benchmark::kMillisecond)->UseRealTime();

void Lookups1000(benchmark::State& state) {
  // Sections and keys picked by a fixed stride, so every run asks for the same spread.
  std::vector<std::pair<std::string, std::string>> asks;
  for (int i = 0; i < kLookups; ++i)
    asks.emplace_back(SectionName((i * 7919) % kSections), KeyName((i * 31) % kKeys));
  FileConfiguration config(File().Path(), false);
  if (!config.OpenSection(SectionName(0), false)) {
    state.SkipWithError("the file did not load");
    return;
  }
  std::string value;
  for (auto _ : state) {
    for (const auto& [section, key] : asks) {
      if (!config.OpenSection(section, false) || !config.GetValue(key, value)) {
        state.SkipWithError("a key was not found");
        return;
      }
      benchmark::DoNotOptimize(value);
    }
  }
  state.SetItemsProcessed(state.iterations() * kLookups);
}
BENCHMARK(Lookups1000)->Unit(benchmark::kMillisecond);

void Store(benchmark::State& state) {
  int round = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto config = std::make_unique<FileConfiguration>(File().Path(), false);
    const bool opened = config->OpenSection(SectionName(kSections / 2), false);
    state.ResumeTiming();
    if (!opened) {
      state.SkipWithError("the file did not load");
      break;
    }
    // A value that differs from the last one, so every round has something to store.
    config->SetValue(KeyName(kKeys / 2), "stored " + std::to_string(++round));
    config.reset();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * File().Bytes()));
}
BENCHMARK(Store)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
