#include "process_stats.h"

#include <dirent.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

namespace qo {
namespace reliability {

namespace {

// Calls fn with the name of each thread of this process.
void ForEachThread(const std::function<void(const std::string&)>& fn) {
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return;
  while (dirent* e = readdir(dir)) {
    if (e->d_name[0] == '.') continue;
    std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
    std::string name;
    std::getline(comm, name);
    fn(name);
  }
  closedir(dir);
}

int CountEntries(const char* path) {
  DIR* dir = opendir(path);
  if (dir == nullptr) return -1;
  int n = 0;
  while (dirent* e = readdir(dir)) {
    if (e->d_name[0] != '.') ++n;
  }
  closedir(dir);
  return n;
}

}  // namespace

int ThreadCount() { return CountEntries("/proc/self/task"); }

int ThreadCount(const std::string& name) {
  int n = 0;
  ForEachThread([&](const std::string& t) { n += t == name ? 1 : 0; });
  return n;
}

// The directory stream itself is one of the descriptors: not counted.
int OpenFdCount() { return CountEntries("/proc/self/fd") - 1; }

int64_t ResidentBytes() {
  std::ifstream statm("/proc/self/statm");
  int64_t size = 0, resident = 0;
  statm >> size >> resident;
  return resident * sysconf(_SC_PAGESIZE);
}

int64_t MonotonicMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

bool WaitUntil(const std::function<bool()>& pred, int timeout_ms) {
  const int64_t end = MonotonicMs() + timeout_ms;
  while (!pred()) {
    if (MonotonicMs() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

std::string ThreadNames() {
  std::map<std::string, int> names;
  ForEachThread([&](const std::string& t) { names[t]++; });
  std::ostringstream out;
  for (const auto& n : names) out << n.first << " x" << n.second << "; ";
  return out.str();
}

}  // namespace reliability
}  // namespace qo
