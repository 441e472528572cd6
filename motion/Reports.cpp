#include "motion/Reports.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "link/CTavroUsb.h"
#include "motion/TestRun.h"
#include "motion/TestTexts.h"
#include "reports/ReportLayout.h"
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

// Creates `path` as a new plain file of mode 0644: -1 with errno when the name is taken (by a
// file, a link, a FIFO), or the file cannot be made. O_NONBLOCK and the check after are for a
// file system that would hand back something else than what O_CREAT | O_EXCL made.
int CreateNew(const std::string& path) {
  const int fd =
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || ::fchmod(fd, 0644) != 0) {
    const int error = errno != 0 ? errno : EINVAL;
    ::close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

// Removes the file this program just made through `fd`, and nothing that stands in its place.
void RemoveOwn(int fd, const std::string& path) {
  struct stat mine {};
  struct stat there {};
  if (::fstat(fd, &mine) == 0 && ::lstat(path.c_str(), &there) == 0 &&
      mine.st_ino == there.st_ino && mine.st_dev == there.st_dev) {
    ::unlink(path.c_str());
  }
  ::close(fd);
}

}  // namespace

ReportOutcome WriteReportFiles(const std::string& folder, const std::string& prefix,
                               const std::string& body, const std::vector<TraceSample>& trace,
                               const std::string& board) {
  const std::string base = WithSeparator(folder) + prefix;
  ReportOutcome outcome;
  int dat = -1;
  int csv = -1;
  std::string csvPath;
  // The first number whose two names are free; there is no upper bound.
  for (unsigned long long n = 0;; ++n) {
    outcome.path = base + std::to_string(n) + ".dat";
    csvPath = base + std::to_string(n) + ".csv";
    dat = CreateNew(outcome.path);
    if (dat < 0 && errno == EEXIST) continue;
    if (dat < 0) {
      outcome.failedPath = outcome.path;
      outcome.reason = std::strerror(errno);
      return outcome;
    }
    csv = CreateNew(csvPath);
    if (csv >= 0) break;
    const int error = errno;
    RemoveOwn(dat, outcome.path);
    if (error == EEXIST) continue;
    outcome.failedPath = csvPath;
    outcome.reason = std::strerror(error);
    return outcome;
  }
  std::string bytes = "\xFF\xFE";
  text::AppendUtf16Le(bytes, text::ToUtf16(body));
  outcome.written = FinishFile(dat, outcome.path, bytes, outcome.reason);
  if (!outcome.written) {
    outcome.failedPath = outcome.path;
    RemoveOwn(csv, csvPath);
    return outcome;
  }
  outcome.traceWritten = FinishFile(csv, csvPath, TraceCsv(trace, board), outcome.reason);
  if (!outcome.traceWritten) outcome.failedPath = csvPath;
  return outcome;
}

std::string TraceCsv(const std::vector<TraceSample>& samples, const std::string& board) {
  std::string csv = usb::SaysSimulated(board)
                        ? std::string(reports::kTraceBoardLine) + board + "\n"
                        : std::string();
  csv += std::string(reports::kTraceHeader) + "\n";
  csv.reserve(csv.size() + samples.size() * 40);
  for (const TraceSample& s : samples) {
    csv += text::Format("%.3f,%d,%d,%d,%d\n", s.time, s.bias, s.linear, s.rotary,
                        static_cast<int>(s.limit));
  }
  return csv;
}

void FileReport(StagePage& page, const std::string& prefix, const std::string& body) {
  const std::vector<TraceSample> samples = page.Trace.Take();
  page.Trace.End();
  const ReportOutcome report =
      WriteReportFiles(page.ReportFolder(), prefix, body, samples, page.BoardDescription());
  if (report.written) page.ReportFiled(report.path);
  if (report.traceWritten) return;
  page.Ask(texts::Get(texts::kReportNotWritten) + report.failedPath + ":\r\n" + report.reason,
           ui::kMbOk);
}

}  // namespace motion
