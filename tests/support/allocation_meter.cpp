#include "support/allocation_meter.hpp"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

#include <malloc.h>

namespace {

std::atomic<std::size_t> held = 0;
std::atomic<std::size_t> peak = 0;

void* take(std::size_t size) {
  void* const memory = std::malloc(std::max<std::size_t>(size, 1));
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  const std::size_t now = held += malloc_usable_size(memory);
  std::size_t before = peak;
  while (now > before && !peak.compare_exchange_weak(before, now)) {
  }
  return memory;
}

void give_back(void* memory) {
  if (memory != nullptr) {
    held -= malloc_usable_size(memory);
    std::free(memory);
  }
}

}  // namespace

void* operator new(std::size_t size) { return take(size); }
void* operator new[](std::size_t size) { return take(size); }
void operator delete(void* memory) noexcept { give_back(memory); }
void operator delete[](void* memory) noexcept { give_back(memory); }
void operator delete(void* memory, std::size_t) noexcept { give_back(memory); }
void operator delete[](void* memory, std::size_t) noexcept { give_back(memory); }

namespace ravok::testing {

std::size_t peak_bytes(const std::function<void()>& work) {
  const std::size_t before = held;
  peak = before;
  work();
  return peak - before;
}

}  // namespace ravok::testing
