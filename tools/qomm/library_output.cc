// What the media-input library says, as qomm shows it: its messages, the
// reasons of its nodes and its errors, with passwords masked.
#include <cstdio>
#include <mutex>
#include <vector>

#include "core/qo_logging.h"
#include "hal_mm_file_in.h"
#include "hal_mm_video_in.h"
#include "node/qo_video_in_node.h"
#include "qomm.h"

namespace qomm {

namespace {

// They live until exit: library threads may still print.
std::mutex& g_mutex = *new std::mutex();
std::vector<std::string>& g_held = *new std::vector<std::string>();
int g_verbosity = 0;
bool g_holding = false;

void Print(const std::string& text) {
  fputs(MaskPasswords(text).c_str(), stderr);
  fflush(stderr);
}

void OnLogLine(const std::string& line) {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_holding && g_verbosity == 0) {
    g_held.push_back(line);
  } else {
    Print(line);
  }
}

void OnLayerText(const char* text, void*) {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_verbosity > 0) Print(text);
}

}  // namespace

void StartLibraryOutput(int verbosity) {
  g_verbosity = verbosity;
  qo::SetLogSink(OnLogLine);
  qo_VideoStreamSetLogSink(OnLayerText, nullptr);
  qo_VideoFileSetLogSink(OnLayerText, nullptr);
}

void HoldLibraryOutput() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_holding = true;
}

void ReleaseLibraryOutput(bool show) {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (show) {
    for (const std::string& line : g_held) Print(line);
  }
  g_held.clear();
  g_holding = false;
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

std::string Open(qo::HostNode* node) {
  try {
    node->Open();
    return "";
  } catch (const qo::Error& e) {
    std::string reason;
    if (dynamic_cast<const qo::mm::VideoInput*>(node->thread()) != nullptr) {
      LastError(*node, &reason);
    }
    return reason.empty() ? ErrorMessage(e.what()) : MaskPasswords(reason);
  }
}

int LastError(const qo::HostNode& node, std::string* text) {
  return static_cast<const qo::mm::VideoInput*>(node.thread())->LastError(text);
}

}  // namespace qomm
