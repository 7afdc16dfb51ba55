#include "heap.h"

#include <cstdlib>
#include <new>

namespace heap {
namespace {

// Each block carries its size in front, so that delete can account for it.
constexpr size_t kHeader = alignof(std::max_align_t);

long g_allocations = 0;
long g_failAt = 0;  // allocations left until the armed failure; 0 when disarmed
bool g_failed = false;
long g_liveBlocks = 0;
size_t g_liveBytes = 0;
size_t g_peakBytes = 0;

void* Allocate(size_t size) {
  ++g_allocations;
  if (g_failAt > 0 && --g_failAt == 0) {
    g_failed = true;
    return nullptr;
  }
  char* p = static_cast<char*>(std::malloc(size + kHeader));
  if (!p) return nullptr;
  *reinterpret_cast<size_t*>(p) = size;
  ++g_liveBlocks;
  g_liveBytes += size;
  if (g_liveBytes > g_peakBytes) g_peakBytes = g_liveBytes;
  return p + kHeader;
}

void Release(void* block) {
  if (!block) return;
  char* p = static_cast<char*>(block) - kHeader;
  --g_liveBlocks;
  g_liveBytes -= *reinterpret_cast<size_t*>(p);
  std::free(p);
}

void* AllocateOrThrow(size_t size) {
  void* p = Allocate(size);
  if (!p) throw std::bad_alloc();
  return p;
}

}  // namespace

void FailAt(long n) {
  g_failAt = n;
  g_failed = false;
}
bool Failed() { return g_failed; }
long Allocations() { return g_allocations; }
long LiveBlocks() { return g_liveBlocks; }
size_t LiveBytes() { return g_liveBytes; }
size_t PeakLiveBytes() { return g_peakBytes; }
void ResetPeak() { g_peakBytes = g_liveBytes; }

}  // namespace heap

// Over-aligned allocations are left to the C library: nothing here asks for them.
void* operator new(size_t size) { return heap::AllocateOrThrow(size); }
void* operator new[](size_t size) { return heap::AllocateOrThrow(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return heap::Allocate(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return heap::Allocate(size); }
void operator delete(void* p) noexcept { heap::Release(p); }
void operator delete[](void* p) noexcept { heap::Release(p); }
void operator delete(void* p, size_t) noexcept { heap::Release(p); }
void operator delete[](void* p, size_t) noexcept { heap::Release(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { heap::Release(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { heap::Release(p); }
