#include "support/clock_calls.hpp"

#include <ctime>
#include <utility>

namespace ravok::testing {
namespace {

struct Still {
  std::function<void()> at_sleep;
  std::chrono::steady_clock::time_point start;
  std::chrono::nanoseconds slept{0};
  std::size_t sleeps = 0;
};

Still* still = nullptr;

}  // namespace

StillClock::StillClock(std::function<void()> at_sleep) {
  const auto start = std::chrono::steady_clock::now();
  still = new Still{std::move(at_sleep), start};
}

StillClock::~StillClock() { delete std::exchange(still, nullptr); }

std::size_t StillClock::sleeps() const { return still->sleeps; }

std::chrono::nanoseconds StillClock::slept() const { return still->slept; }

extern "C" {

// The mangled name of std::chrono::steady_clock::now.
std::chrono::steady_clock::time_point __real__ZNSt6chrono3_V212steady_clock3nowEv();
std::chrono::steady_clock::time_point __wrap__ZNSt6chrono3_V212steady_clock3nowEv();
int __real_nanosleep(const timespec* length, timespec* left);
int __wrap_nanosleep(const timespec* length, timespec* left);

std::chrono::steady_clock::time_point __wrap__ZNSt6chrono3_V212steady_clock3nowEv() {
  return still != nullptr ? still->start + still->slept : __real__ZNSt6chrono3_V212steady_clock3nowEv();
}

int __wrap_nanosleep(const timespec* length, timespec* left) {
  if (still == nullptr) {
    return __real_nanosleep(length, left);
  }
  still->slept += std::chrono::seconds(length->tv_sec) + std::chrono::nanoseconds(length->tv_nsec);
  ++still->sleeps;
  if (still->at_sleep) {
    still->at_sleep();
  }
  return 0;
}
}

}  // namespace ravok::testing
