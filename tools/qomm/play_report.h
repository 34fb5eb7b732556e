// Counts what a source delivered, shows it while it plays (one updating line
// on a terminal, a line every few seconds otherwise) and sums it up.
#ifndef QO_TOOLS_QOMM_PLAY_REPORT_H_
#define QO_TOOLS_QOMM_PLAY_REPORT_H_

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

#include "node_player.h"

namespace qomm {

// Wall-clock nanoseconds since the Unix epoch.
int64_t WallClockNs();
// True when ts reads as Unix-epoch nanoseconds within a day of now: RTSP
// frames carry such times once the sender's RTCP reports arrived.
bool IsWallClock(uint64_t ts, int64_t now_ns);
// "2026-01-31 12:34:56.789 UTC".
std::string FormatWallClock(uint64_t ts);

class PlayReport {
 public:
  enum class Progress { kNone, kLine, kPeriodic };

  PlayReport(std::string title, Progress progress);

  // Call when the source has been opened.
  void Begin();
  void Add(const FrameInfo& frame);
  // Shows progress when it is time to.
  void Tick();
  // Ends the progress display; `end` says why playing ended.
  void End(const std::string& end);

  void PrintSummary(FILE* out) const;

  int frames() const { return frames_; }
  double SecondsSinceBegin() const;

 private:
  using Clock = std::chrono::steady_clock;
  std::string ProgressText(double fps, double mbps) const;

  std::string title_;
  Progress progress_;
  std::string end_;
  Clock::time_point begin_;
  Clock::time_point first_arrival_;
  Clock::time_point last_arrival_;
  Clock::time_point last_shown_;
  int shown_frames_ = 0;
  uint64_t shown_bytes_ = 0;
  bool line_open_ = false;

  int frames_ = 0;
  uint64_t bytes_ = 0;
  int format_ = -1;
  int kind_ = 0;
  int width_ = 0;
  int height_ = 0;
  uint64_t first_pts_ = 0;
  uint64_t last_pts_ = 0;
  bool last_is_wall_clock_ = false;
  double last_age_ms_ = 0;
};

}  // namespace qomm

#endif  // QO_TOOLS_QOMM_PLAY_REPORT_H_
