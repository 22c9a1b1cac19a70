// The runtime allocator. Every allocation of the filter passes here; the
// tests put counting, failing versions of these in front of them.
#include <cstdlib>

#include "vtq_rt.h"

extern "C" {

void *VTQ_calloc(size_t count, size_t size) { return std::calloc(count, size); }

void *VTQ_malloc(size_t size) { return std::malloc(size); }

void *VTQ_realloc(void *p, size_t size) { return std::realloc(p, size); }

void VTQ_free(void *p) { std::free(p); }

}  // extern "C"
