#include "alloc_hook.h"

#include <atomic>
#include <cstdlib>

namespace {
std::atomic<long> g_count{0};
std::atomic<long> g_failAt{0};  // absolute allocation number that fails; 0 = never

// Counts one allocation and says whether it is the one to fail.
bool NextFails() {
  const long n = g_count.fetch_add(1, std::memory_order_relaxed) + 1;
  const long at = g_failAt.load(std::memory_order_relaxed);
  return at != 0 && n == at;
}
}  // namespace

// The runtime's VTQ_free (free) releases what these return.
extern "C" {

void *VTQ_calloc(size_t count, size_t size) { return NextFails() ? nullptr : std::calloc(count, size); }

void *VTQ_malloc(size_t size) { return NextFails() ? nullptr : std::malloc(size); }

void *VTQ_realloc(void *p, size_t size) { return NextFails() ? nullptr : std::realloc(p, size); }

void VTQ_SetAllocFailAt(long n) { g_failAt.store(n > 0 ? g_count.load() + n : 0, std::memory_order_relaxed); }

long VTQ_AllocCount(void) { return g_count.load(std::memory_order_relaxed); }

}  // extern "C"
