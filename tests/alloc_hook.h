// Making the filter's allocations fail: a program linking this hook has
// its own VTQ_calloc, VTQ_malloc and VTQ_realloc, which the filter's calls
// reach before the runtime's; they count every call and fail the chosen one.
#pragma once

// The n-th allocation (calloc, malloc or realloc) from now fails; 0
// switches failures off.
extern "C" void VTQ_SetAllocFailAt(long n);
// Allocations made since the program started.
extern "C" long VTQ_AllocCount(void);
