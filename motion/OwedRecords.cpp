#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "motion/StageTest.h"

namespace motion {

namespace {

constexpr const char* kJournalHeader = "TavroTest axis journal 1";
// A journal is a few lines; anything bigger is not one of ours.
constexpr off_t kMaxJournalBytes = 64 * 1024;

// A serial number as one word of the journal: bytes outside a safe set as %XX.
std::string EncodeWord(const std::string& word) {
  static const char* const kHex = "0123456789ABCDEF";
  std::string out = word.empty() ? "-" : "";
  for (const unsigned char c : word) {
    const bool plain = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                       c == '.' || c == '_';
    if (plain) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

bool DecodeWord(const std::string& word, std::string& out) {
  out.clear();
  if (word == "-") return true;
  for (std::size_t i = 0; i < word.size(); ++i) {
    if (word[i] != '%') {
      out += word[i];
      continue;
    }
    if (i + 2 >= word.size()) return false;
    unsigned value = 0;
    if (std::sscanf(word.substr(i + 1, 2).c_str(), "%2x", &value) != 1) return false;
    out += static_cast<char>(value);
    i += 2;
  }
  return true;
}

// The journal's text, or nothing when the file is not TavroTest's own plain file.
bool ReadTrusted(const std::string& path, std::string& text) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st {};
  bool trusted = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == ::geteuid() &&
                 st.st_nlink == 1 && (st.st_mode & 022) == 0 && st.st_size <= kMaxJournalBytes;
  if (trusted) {
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(fd, buffer, sizeof buffer)) > 0)
      text.append(buffer, static_cast<std::size_t>(n));
    trusted = n == 0;
  }
  ::close(fd);
  return trusted;
}

}  // namespace

std::string OwedRecords::Format(const std::vector<Entry>& entries) {
  std::string text = std::string(kJournalHeader) + "\n";
  for (const Entry& e : entries) {
    const AxisPid& r = e.record;
    char line[256];
    std::snprintf(line, sizeof line, "owed %s %u %u %u %u %u %u %u %u %u %u %d\n",
                  EncodeWord(e.board).c_str(), e.axis, r.Kp, r.Kd, r.Ki, r.Il, r.Fe, r.Kvff, r.Kaff,
                  r.Dt, r.Kout, r.Mb);
    text += line;
  }
  return text;
}

std::vector<OwedRecords::Entry> OwedRecords::Parse(const std::string& text) {
  std::vector<Entry> entries;
  std::istringstream in(text);
  std::string line;
  if (!std::getline(in, line) || line != kJournalHeader) return entries;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string tag, board;
    Entry e;
    unsigned kp, kd, ki, kvff, kaff, dt, kout;
    int mb;
    fields >> tag >> board >> e.axis >> kp >> kd >> ki >> e.record.Il >> e.record.Fe >> kvff >>
        kaff >> dt >> kout >> mb;
    const bool words = kp <= 0xFFFF && kd <= 0xFFFF && ki <= 0xFFFF && kvff <= 0xFFFF &&
                       kaff <= 0xFFFF && dt <= 0xFFFF && kout <= 0xFFFF;
    if (!fields || tag != "owed" || e.axis >= 4 || !words || mb < -32768 || mb > 32767 ||
        !DecodeWord(board, e.board)) {
      continue;
    }
    e.record.Kp = static_cast<std::uint16_t>(kp);
    e.record.Kd = static_cast<std::uint16_t>(kd);
    e.record.Ki = static_cast<std::uint16_t>(ki);
    e.record.Kvff = static_cast<std::uint16_t>(kvff);
    e.record.Kaff = static_cast<std::uint16_t>(kaff);
    e.record.Dt = static_cast<std::uint16_t>(dt);
    e.record.Kout = static_cast<std::uint16_t>(kout);
    e.record.Mb = static_cast<std::int16_t>(mb);
    entries.push_back(e);
  }
  return entries;
}

std::vector<OwedRecords::Entry> OwedRecords::UseJournal(std::string path) {
  std::lock_guard lock(lock_);
  journal_ = std::move(path);
  std::vector<Entry> found;
  std::string text;
  if (journal_.empty() || !ReadTrusted(journal_, text)) return found;
  found = Parse(text);
  for (const Entry& e : found)
    owed_[{e.board, e.axis}] = e.record;
  return found;
}

bool OwedRecords::Owe(const std::string& board, unsigned axis, const AxisPid& record) {
  std::lock_guard lock(lock_);
  owed_[{board, axis}] = record;
  return WriteJournalLocked();
}

void OwedRecords::Paid(const std::string& board, unsigned axis) {
  std::lock_guard lock(lock_);
  if (owed_.erase({board, axis}) > 0) WriteJournalLocked();
}

std::optional<AxisPid> OwedRecords::Find(const std::string& board, unsigned axis) const {
  std::lock_guard lock(lock_);
  const auto it = owed_.find({board, axis});
  if (it == owed_.end()) return std::nullopt;
  return it->second;
}

std::vector<OwedRecords::Entry> OwedRecords::OwedTo(const std::string& board) const {
  std::vector<Entry> out;
  std::lock_guard lock(lock_);
  for (const auto& [key, record] : owed_) {
    if (key.first == board) out.push_back({key.first, key.second, record});
  }
  return out;
}

bool OwedRecords::Empty() const {
  std::lock_guard lock(lock_);
  return owed_.empty();
}

std::vector<OwedRecords::Entry> OwedRecords::EntriesLocked() const {
  std::vector<Entry> out;
  for (const auto& [key, record] : owed_)
    out.push_back({key.first, key.second, record});
  return out;
}

// A new file beside the journal, synced, then renamed over it: a crash leaves either the old
// journal or the new one, never half of one. With nothing owed the journal goes.
bool OwedRecords::WriteJournalLocked() const {
  if (journal_.empty()) return true;
  if (owed_.empty()) return ::unlink(journal_.c_str()) == 0 || errno == ENOENT;
  const std::string temporary = journal_ + ".tmp";
  ::unlink(temporary.c_str());  // a left-over of a crash, or something planted: made anew
  const int fd =
      ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  const std::string text = Format(EntriesLocked());
  const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  const bool synced = written && ::fsync(fd) == 0;
  ::close(fd);
  if (!synced || ::rename(temporary.c_str(), journal_.c_str()) != 0) {
    ::unlink(temporary.c_str());
    return false;
  }
  return true;
}

}  // namespace motion
