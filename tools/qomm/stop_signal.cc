#include "stop_signal.h"

#include <signal.h>

#include <atomic>
#include <cstring>

namespace qomm {

namespace {

std::atomic<bool> g_requested{false};

void OnSignal(int) { g_requested.store(true, std::memory_order_relaxed); }

}  // namespace

void StopSignal::Install() {
  struct sigaction sa;
  std::memset(&sa, 0, sizeof(sa));
  sa.sa_handler = OnSignal;
  sigemptyset(&sa.sa_mask);
  // The handler is one-shot: the next signal takes its default action.
  sa.sa_flags = SA_RESETHAND;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
}

bool StopSignal::Requested() { return g_requested.load(std::memory_order_relaxed); }

}  // namespace qomm
