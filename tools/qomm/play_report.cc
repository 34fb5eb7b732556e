#include <time.h>

#include <cinttypes>
#include <utility>

#include "qomm.h"

namespace qomm {

namespace {

constexpr int64_t kNsPerSecond = 1000000000;
constexpr int64_t kPlausibleSkewNs = 24LL * 3600 * kNsPerSecond;
constexpr double kLineIntervalS = 0.5;
constexpr double kPeriodicIntervalS = 5.0;
constexpr uint64_t kNoTime = UINT64_MAX;

double Seconds(std::chrono::steady_clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

// "2026-01-31 12:34:56.789 UTC".
std::string FormatWallClock(uint64_t ts) {
  time_t secs = static_cast<time_t>(ts / kNsPerSecond);
  int ms = static_cast<int>((ts % kNsPerSecond) / 1000000);
  struct tm utc;
  gmtime_r(&secs, &utc);
  char buf[64];
  snprintf(buf, sizeof(buf), "%04d-%02d-%02d %02d:%02d:%02d.%03d UTC", utc.tm_year + 1900,
           utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, ms);
  return buf;
}

std::string Stamp(uint64_t ts) {
  if (ts == kNoTime) return "none";
  std::string text = std::to_string(ts);
  if (WallClockAgeMs(ts)) text += " (" + FormatWallClock(ts) + ")";
  return text;
}

}  // namespace

std::optional<double> WallClockAgeMs(uint64_t ts) {
  if (ts == kNoTime || ts > static_cast<uint64_t>(INT64_MAX)) return std::nullopt;
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  const int64_t age_ns =
      static_cast<int64_t>(now.tv_sec) * kNsPerSecond + now.tv_nsec - static_cast<int64_t>(ts);
  if (age_ns >= kPlausibleSkewNs || age_ns <= -kPlausibleSkewNs) return std::nullopt;
  return age_ns / 1e6;
}

PlayReport::PlayReport(std::string title, Progress progress)
    : title_(std::move(title)), progress_(progress) {}

void PlayReport::Begin() { begin_ = last_shown_ = Clock::now(); }

double PlayReport::SecondsSinceBegin() const { return Seconds(Clock::now() - begin_); }

void PlayReport::Add(const FrameInfo& frame) {
  if (frame.status != 0) return;
  Clock::time_point now = Clock::now();
  if (frames_ == 0) {
    first_arrival_ = now;
    first_pts_ = frame.pts;
    format_ = frame.format;
    kind_ = frame.kind;
    width_ = frame.width;
    height_ = frame.height;
  }
  last_arrival_ = now;
  last_pts_ = frame.pts;
  last_age_ms_ = WallClockAgeMs(frame.pts);
  frames_++;
  bytes_ += frame.bytes;
}

std::string PlayReport::ProgressText(double fps, double mbps) const {
  char buf[256];
  int n = snprintf(buf, sizeof(buf), "%d frames  %.1f fps  %.2f Mbit/s", frames_, fps, mbps);
  std::string text(buf, n > 0 ? static_cast<size_t>(n) : 0);
  if (frames_ > 0) {
    text += "  pts " + std::to_string(last_pts_);
    if (last_age_ms_) {
      snprintf(buf, sizeof(buf), "  age %.0f ms", *last_age_ms_);
      text += buf;
    }
  }
  return text;
}

void PlayReport::Tick() {
  if (progress_ == Progress::kNone) return;
  Clock::time_point now = Clock::now();
  double since = Seconds(now - last_shown_);
  double interval = progress_ == Progress::kLine ? kLineIntervalS : kPeriodicIntervalS;
  if (since < interval) return;
  double fps = (frames_ - shown_frames_) / since;
  double mbps = static_cast<double>(bytes_ - shown_bytes_) * 8 / since / 1e6;
  std::string text = ProgressText(fps, mbps);
  if (progress_ == Progress::kLine) {
    // Carriage return and erase-to-end keep it one line on the terminal.
    fprintf(stderr, "\r\033[K%s", text.c_str());
    line_open_ = true;
  } else {
    fprintf(stderr, "qomm: %s\n", text.c_str());
  }
  fflush(stderr);
  last_shown_ = now;
  shown_frames_ = frames_;
  shown_bytes_ = bytes_;
}

void PlayReport::End(const std::string& end) {
  end_ = end;
  if (line_open_) {
    fprintf(stderr, "\r\033[K");
    fflush(stderr);
    line_open_ = false;
  }
}

void PlayReport::PrintSummary(FILE* out) const {
  double span = frames_ > 1 ? Seconds(last_arrival_ - first_arrival_) : 0.0;
  double fps = span > 0 ? (frames_ - 1) / span : 0.0;
  double mbps = span > 0 ? static_cast<double>(bytes_) * 8 / span / 1e6 : 0.0;
  fprintf(out, "%s\n", title_.c_str());
  fprintf(out, "  frames:      %d, %.1f fps over %.2f s\n", frames_, fps, span);
  fprintf(out, "  bytes:       %" PRIu64 ", %.2f Mbit/s\n", bytes_, mbps);
  if (frames_ > 0) {
    fprintf(out, "  picture:     %s %dx%d, %s\n", TypeName(format_).c_str(), width_, height_,
            kind_ == 2 ? "raw" : "encoded");
    fprintf(out, "  time stamps: first %s, last %s\n", Stamp(first_pts_).c_str(),
            Stamp(last_pts_).c_str());
    if (last_age_ms_) {
      fprintf(out, "  frame age:   %.0f ms behind its sender's clock at arrival\n", *last_age_ms_);
    }
  }
  fprintf(out, "  end:         %s\n", end_.c_str());
  fflush(out);
}

}  // namespace qomm
