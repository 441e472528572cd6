#include "motion/Reports.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "motion/TestRun.h"
#include "motion/TestTexts.h"
#include "ui/MessageBox.h"
#include "util/Text.h"

namespace motion {

namespace {

// Writes all of `bytes`; false with errno when the system would not take them.
bool WriteAll(int fd, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

// Writes and closes `fd`; on failure removes `path` and gives the reason.
bool FinishFile(int fd, const std::string& path, const std::string& bytes, std::string& reason) {
  const bool wrote = WriteAll(fd, bytes);
  int error = wrote ? 0 : errno;
  if (::close(fd) != 0 && error == 0) error = errno;
  if (error == 0) return true;
  ::unlink(path.c_str());
  reason = std::strerror(error);
  return false;
}

std::string WithSeparator(const std::string& folder) {
  if (folder.empty() || folder.back() == '/') return folder;
  return folder + "/";
}

}  // namespace

std::string AxisReportPrefix(unsigned axis) {
  return "AxisTest_" + AxisLetter(axis) + "_";
}

std::string LimitReportPrefix(unsigned axis) {
  return "LimitTest_" + AxisLetter(axis) + "_";
}

ReportOutcome WriteReportFile(const std::string& folder, const std::string& prefix,
                              const std::string& body) {
  const std::string base = WithSeparator(folder) + prefix;
  ReportOutcome outcome;
  int fd = -1;
  // The first number with no file; there is no upper bound, and an existing file is never opened.
  for (unsigned long long n = 0;; ++n) {
    outcome.path = base + std::to_string(n) + ".dat";
    fd = ::open(outcome.path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd >= 0 || errno != EEXIST) break;
  }
  if (fd < 0) {
    outcome.reason = std::strerror(errno);
    return outcome;
  }
  std::string bytes = "\xFF\xFE";
  text::AppendUtf16Le(bytes, text::ToUtf16(body));
  outcome.written = FinishFile(fd, outcome.path, bytes, outcome.reason);
  return outcome;
}

std::string TraceCsv(const std::vector<TraceSample>& samples) {
  std::string csv = "time,bias,linear,rotary,limit\n";
  csv.reserve(csv.size() + samples.size() * 40);
  for (const TraceSample& s : samples) {
    csv += text::Format("%.3f,%d,%d,%d,%d\n", s.time, s.bias, s.linear, s.rotary,
                        static_cast<int>(s.limit));
  }
  return csv;
}

bool WriteTraceFile(const std::string& reportPath, const std::vector<TraceSample>& samples,
                    std::string& reason) {
  std::string path = reportPath;
  if (path.size() >= 4 && path.compare(path.size() - 4, 4, ".dat") == 0)
    path.resize(path.size() - 4);
  path += ".csv";
  // The name belongs to the report just created; a file left there by an earlier report of the
  // same name that was deleted since is replaced. A link there is not followed.
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666);
  if (fd < 0) {
    reason = std::strerror(errno);
    return false;
  }
  return FinishFile(fd, path, TraceCsv(samples), reason);
}

void FileReport(StagePage& page, const std::string& prefix, const std::string& body) {
  const ReportOutcome report = WriteReportFile(page.ReportFolder(), prefix, body);
  if (report.written) page.ReportFiled(report.path);
  const std::vector<TraceSample> samples = page.Trace.Take();
  page.Trace.End();
  std::string failedPath = report.path;
  std::string reason = report.reason;
  if (report.written && !WriteTraceFile(report.path, samples, reason)) {
    failedPath = report.path.substr(0, report.path.size() - 4) + ".csv";
  } else if (report.written) {
    return;
  }
  page.Ask(texts::Get(texts::kReportNotWritten) + failedPath + ":\r\n" + reason, ui::kMbOk);
}

}  // namespace motion
