// Frame memory and thread naming for every module of the process.
#include <sys/prctl.h>

#include <cstdlib>

#include "core/qo_c_runtime_api.h"

void* QOMemAlloc(size_t size, size_t alignment) {
  if (alignment < sizeof(void*)) alignment = sizeof(void*);
  if ((alignment & (alignment - 1)) != 0) return nullptr;
  // aligned_alloc wants a multiple of the alignment; a zero-byte frame still
  // gets a distinct, freeable block.
  size_t rounded = (size + alignment - 1) / alignment * alignment;
  if (rounded == 0) rounded = alignment;
  if (rounded < size) return nullptr;  // overflow
  return std::aligned_alloc(alignment, rounded);
}

void QOMemFree(void* ptr) { std::free(ptr); }

void set_thread_name_by_prctl(const char* name) {
  if (name != nullptr) prctl(PR_SET_NAME, name, 0, 0, 0);
}
