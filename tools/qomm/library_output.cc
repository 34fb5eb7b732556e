#include <cstdio>
#include <mutex>
#include <vector>

#include "core/qo_logging.h"
#include "hal_mm_file_in.h"
#include "hal_mm_video_in.h"
#include "qomm.h"

namespace qomm {

namespace {

struct State {
  std::mutex mutex;
  int verbosity = 0;
  bool holding = false;
  std::vector<std::string> held;
};

State& Get() {
  static State* state = new State();  // lives until exit: library threads may still print
  return *state;
}

void Print(const std::string& text) {
  fputs(MaskPasswords(text).c_str(), stderr);
  fflush(stderr);
}

void OnLogLine(const std::string& line) {
  State& s = Get();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (s.holding && s.verbosity == 0) {
    s.held.push_back(line);
  } else {
    Print(line);
  }
}

void OnLayerText(const char* text, void*) {
  State& s = Get();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (s.verbosity > 0) Print(text);
}

}  // namespace

void LibraryOutput::Start(int verbosity) {
  Get().verbosity = verbosity;
  qo::SetLogSink(OnLogLine);
  qo_VideoStreamSetLogSink(OnLayerText, nullptr);
  qo_VideoFileSetLogSink(OnLayerText, nullptr);
}

void LibraryOutput::Hold() {
  State& s = Get();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.holding = true;
}

void LibraryOutput::Release(bool show) {
  State& s = Get();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (show) {
    for (const std::string& line : s.held) Print(line);
  }
  s.held.clear();
  s.holding = false;
}

std::string MaskPasswords(std::string text) {
  for (size_t scheme = text.find("://"); scheme != std::string::npos;
       scheme = text.find("://", scheme + 3)) {
    const size_t start = scheme + 3;
    const size_t end = text.find_first_of("/?# \t\r\n\"'", start);
    const size_t at = text.rfind('@', end == std::string::npos ? std::string::npos : end - 1);
    if (at == std::string::npos || at < start) continue;
    const size_t colon = text.find(':', start);
    if (colon < at) text.replace(colon + 1, at - colon - 1, "***");
  }
  return text;
}

int Fail(const std::string& message) {
  fprintf(stderr, "qomm: %s\n", MaskPasswords(message).c_str());
  return 1;
}

std::string ErrorMessage(const std::string& what) {
  std::string line = what.substr(0, what.find('\n'));
  // "[hh:mm:ss:mmm] file:line: message"
  if (!line.empty() && line[0] == '[') {
    size_t close = line.find("] ");
    if (close != std::string::npos) line = line.substr(close + 2);
    size_t colon = line.find(": ");
    if (colon != std::string::npos && line.find(':') < colon) line = line.substr(colon + 2);
  }
  while (!line.empty() && (line.back() == '!' || line.back() == ' ')) line.pop_back();
  return MaskPasswords(line);
}

}  // namespace qomm
