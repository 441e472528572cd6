// The report viewer's /report on a trace of the largest size it reads (32 MiB): the time of one
// answer to a sink that drops what it gets, and the process's peak memory while four answers run
// at once, beside its memory before the first (the floor).
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "reports/ReportApi.h"
#include "reports/ReportFiles.h"

namespace {

double MaxRssMiB() {
  rusage use{};
  ::getrusage(RUSAGE_SELF, &use);
  return static_cast<double>(use.ru_maxrss) / 1024.0;
}

// A folder with AxisTest_X_0.dat and a trace of just under the size limit.
struct Folder {
  std::string path;
  double floorMiB = 0;

  Folder() {
    char name[] = "/tmp/reportbenchXXXXXX";
    if (::mkdtemp(name) == nullptr) std::abort();
    path = name;
    std::ofstream(path + "/AxisTest_X_0.dat", std::ios::binary) << "\xFF\xFE";
    std::ofstream csv(path + "/AxisTest_X_0.csv", std::ios::binary);
    csv << reports::kTraceHeader << '\n';
    std::size_t bytes = reports::kTraceHeader.size() + 1;
    char row[96];
    for (long i = 0;; ++i) {
      const int n =
          std::snprintf(row, sizeof row, "%ld.%03ld,%ld,%ld,%ld,%d\n", i / 50, i % 50 * 20,
                        i % 8000, 2147400000 - i, -2147400000 + i, static_cast<int>(i % 3) - 1);
      if (bytes + static_cast<std::size_t>(n) > reports::kMaxTraceBytes) break;
      csv.write(row, n);
      bytes += static_cast<std::size_t>(n);
    }
    csv.close();
    floorMiB = MaxRssMiB();
  }
  ~Folder() { std::filesystem::remove_all(path); }
};

Folder& TheFolder() {
  static Folder folder;
  return folder;
}

void BM_ReportOfAFullTrace(benchmark::State& state) {
  const Folder& folder = TheFolder();
  std::size_t bytes = 0;
  for (auto _ : state) {
    bytes = 0;
    reports::WriteReportJson(folder.path, "AxisTest_X_0", [&](std::string_view chunk) {
      bytes += chunk.size();
      return true;
    });
  }
  state.counters["MB_out"] =
      benchmark::Counter(static_cast<double>(bytes) / 1e6, benchmark::Counter::kAvgThreads);
  // The peak is the process's high-water mark: only the first run's is its own.
  if (state.range(0) != 0) {
    state.counters["floor_MiB"] =
        benchmark::Counter(folder.floorMiB, benchmark::Counter::kAvgThreads);
    state.counters["peak_MiB"] = benchmark::Counter(MaxRssMiB(), benchmark::Counter::kAvgThreads);
  }
}
// Four at once, as four windows asking for the same trace; run first, so that the peak is theirs.
BENCHMARK(BM_ReportOfAFullTrace)->Arg(1)->Threads(4)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReportOfAFullTrace)->Arg(0)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
