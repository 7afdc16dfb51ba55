#pragma once
// The global allocator of a program that links heap.cpp (the heap tests, the memory
// benchmark): counts every operator new, tracks the blocks and bytes alive, and can make
// one chosen allocation throw std::bad_alloc.
#include <cstddef>

namespace heap {

// Arms a single failure: the n-th allocation from now (1 for the next) throws.
// 0 disarms.
void FailAt(long n);
// True once the armed failure has been thrown; arming again clears it.
bool Failed();

long Allocations();  // operator new calls since the program started
long LiveBlocks();   // blocks allocated and not yet released
size_t LiveBytes();
size_t PeakLiveBytes();  // highest LiveBytes since the last ResetPeak
void ResetPeak();

}  // namespace heap
