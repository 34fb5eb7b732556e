// What a process holds, read from /proc/self: threads (all, or by name),
// open descriptors and resident memory. Used to show that faults and
// open/close cycles leave nothing behind.
#ifndef QO_TESTS_RELIABILITY_PROCESS_STATS_H_
#define QO_TESTS_RELIABILITY_PROCESS_STATS_H_

#include <cstdint>
#include <functional>
#include <string>

namespace qo {
namespace reliability {

int ThreadCount();
int ThreadCount(const std::string& name);  // threads whose name is exactly `name`
int OpenFdCount();
int64_t ResidentBytes();
int64_t MonotonicMs();

// Polls `pred` every 10 ms for up to `timeout_ms`; true once it holds.
bool WaitUntil(const std::function<bool()>& pred, int timeout_ms);

// The names of this process's threads, for failure messages.
std::string ThreadNames();

}  // namespace reliability
}  // namespace qo

#endif  // QO_TESTS_RELIABILITY_PROCESS_STATS_H_
