// Frame memory and thread naming for every module of the process.
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "core/qo_c_runtime_api.h"

namespace {

// Blocks this large (key frames of HD streams) are mapped on their own and
// unmapped when freed. Through malloc they landed in the arena of whichever
// thread copied them, one per pulling thread, and each arena kept the
// freed space: about 0.2 MiB per 1080p stream. Sanitizer builds keep them
// in malloc, where the sanitizer checks their bounds and leaks.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QO_SANITIZED_MEMORY 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(QO_SANITIZED_MEMORY)
constexpr size_t kMapBytes = SIZE_MAX;
#else
constexpr size_t kMapBytes = 128 * 1024;
#endif

// Right before every block: how it was made.
struct BlockHead {
  size_t mapped;  // length of its own mapping, 0 when from malloc
  size_t offset;  // from the start of the allocation to the block
};

}  // namespace

void* QOMemAlloc(size_t size, size_t alignment) {
  if (alignment < sizeof(void*)) alignment = sizeof(void*);
  if ((alignment & (alignment - 1)) != 0) return nullptr;
  // The head takes whole alignment units; a zero-byte frame still gets a
  // distinct, freeable block.
  const size_t head = (sizeof(BlockHead) + alignment - 1) / alignment * alignment;
  size_t rounded = (size + alignment - 1) / alignment * alignment;
  if (rounded == 0) rounded = alignment;
  if (rounded < size || head + rounded < rounded) return nullptr;  // overflow
  const size_t total = head + rounded;
  static const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  char* base;
  char* block;
  size_t mapped = 0;
  if (total >= kMapBytes && alignment <= page && total + page > total) {
    mapped = (total + page - 1) / page * page;
    void* m = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED) return nullptr;
    base = static_cast<char*>(m);
    block = base + head;
  } else {
    // Plain malloc, aligned by hand: glibc's aligned allocations bypass the
    // per-thread cache and split a larger chunk each time, which cost every
    // frame a trip through the arena lock.
    const size_t slack = alignment > alignof(std::max_align_t) ? alignment : 0;
    if (total + slack < total) return nullptr;
    base = static_cast<char*>(std::malloc(total + slack));
    if (base == nullptr) return nullptr;
    const uintptr_t at = reinterpret_cast<uintptr_t>(base) + head;
    block = base + ((at + alignment - 1) / alignment * alignment - reinterpret_cast<uintptr_t>(base));
  }
  BlockHead* h = reinterpret_cast<BlockHead*>(block) - 1;
  h->mapped = mapped;
  h->offset = static_cast<size_t>(block - base);
  return block;
}

void QOMemFree(void* ptr) {
  if (ptr == nullptr) return;
  const BlockHead* h = static_cast<const BlockHead*>(ptr) - 1;
  char* base = static_cast<char*>(ptr) - h->offset;
  if (h->mapped != 0)
    munmap(base, h->mapped);
  else
    std::free(base);
}

void set_thread_name_by_prctl(const char* name) {
  if (name != nullptr) prctl(PR_SET_NAME, name, 0, 0, 0);
}
