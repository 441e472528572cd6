// The recorder's and the report viewer's routes on the window's web server: /channels, /export
// and /events from the run's recorder, /reports, /report, /report-file and /history from the
// report folder. Bad input is a 400 with one line of reason; a name the folder does not list is
// a 404.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "recorder/Recorder.h"
#include "recorder/RunTime.h"
#include "ui/HttpApi.h"

class RecorderApi final : public ui::HttpApi {
 public:
  // `reportFolder`: where the motion tests write their reports (the program folder).
  RecorderApi(std::shared_ptr<const recorder::Recorder> recorder, const recorder::RunTime& time,
              std::string reportFolder);

  // The machine's counts per mm of X, Y, Z and the zoom, 0 where not known; set on the UI thread,
  // read with /reports on the server's.
  static constexpr unsigned kScaledAxes = 4;
  void SetCountsPerMm(unsigned axis, std::int32_t countsPerMm);

  ui::HttpRoute Route(std::string_view path) const override;
  void Answer(std::string_view path, std::string_view query, ui::HttpReply& reply) override;

 private:
  // One route: its path, how the server answers it, and what answers.
  struct Handler {
    const char* path;
    ui::HttpRoute route;
    void (RecorderApi::*answer)(std::string_view query, ui::HttpReply& reply) const;
  };
  // The route at `path`; null for any other path.
  static const Handler* Find(std::string_view path);

  void Channels(std::string_view query, ui::HttpReply& reply) const;
  void Events(std::string_view query, ui::HttpReply& reply) const;
  void Export(std::string_view query, ui::HttpReply& reply) const;
  void Reports(std::string_view query, ui::HttpReply& reply) const;
  void Report(std::string_view query, ui::HttpReply& reply) const;
  void ReportFile(std::string_view query, ui::HttpReply& reply) const;
  void History(std::string_view query, ui::HttpReply& reply) const;

  std::shared_ptr<const recorder::Recorder> recorder_;
  recorder::RunTime time_;
  std::string folder_;
  std::array<std::atomic<std::int32_t>, kScaledAxes> countsPerMm_{};
};
