#include "support/allocation_failure.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <iterator>
#include <new>
#include <string_view>

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "domain/error.hpp"
#include "platform/file/handle.hpp"
#include "platform/posix/native.hpp"

// The linker's names for the functions that it wraps.
extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* memory, std::size_t size);
}

namespace {

struct Plan {
  ravok::testing::Allocations allocations = {};
  ravok::testing::Shortage shortage = {};
  std::size_t number = 0;  // 0 fails none
};

Plan plan;
bool counting = false;
std::size_t made = 0;

std::size_t failed = 0;

// Whether a destructor of the JSON library is at work.
bool is_taking_json_apart() {
  std::array<void*, 48> frames{};
  const int depth = backtrace(frames.data(), static_cast<int>(frames.size()));
  return std::any_of(frames.begin(), frames.begin() + depth, [](const void* frame) {
    Dl_info symbol{};
    if (dladdr(frame, &symbol) == 0 || symbol.dli_sname == nullptr) {
      return false;
    }
    const std::string_view name = symbol.dli_sname;
    return name.find("basic_json") != std::string_view::npos &&
           (name.find("10json_value7destroy") != std::string_view::npos ||
            name.find("D1Ev") != std::string_view::npos || name.find("D2Ev") != std::string_view::npos);
  });
}

bool is_to_fail(ravok::testing::Allocations allocations) {
  if (!counting || allocations != plan.allocations) {
    return false;
  }
  ++made;
  const bool chosen =
      plan.number != 0 && (plan.shortage == ravok::testing::Shortage::once ? made == plan.number : made >= plan.number);
  if (!chosen || is_taking_json_apart()) {
    return false;
  }
  ++failed;
  return true;
}

bool library_fails() {
  if (!is_to_fail(ravok::testing::Allocations::of_libraries)) {
    return false;
  }
  errno = ENOMEM;
  return true;
}

void* take(std::size_t size) {
  void* const memory =
      is_to_fail(ravok::testing::Allocations::of_code) ? nullptr : __real_malloc(std::max<std::size_t>(size, 1));
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

}  // namespace

extern "C" {
void* __wrap_malloc(std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size);
void* __wrap_realloc(void* memory, std::size_t size);
char* __wrap_strdup(const char* text);

void* __wrap_malloc(std::size_t size) { return library_fails() ? nullptr : __real_malloc(size); }
void* __wrap_calloc(std::size_t count, std::size_t size) {
  return library_fails() ? nullptr : __real_calloc(count, size);
}
void* __wrap_realloc(void* memory, std::size_t size) {
  return library_fails() ? nullptr : __real_realloc(memory, size);
}
char* __wrap_strdup(const char* text) {
  const std::size_t size = std::strlen(text) + 1;
  void* const copy = __wrap_malloc(size);
  return copy == nullptr ? nullptr : static_cast<char*>(std::memcpy(copy, text, size));
}
}

void* operator new(std::size_t size) { return take(size); }
void* operator new[](std::size_t size) { return take(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

namespace ravok::testing {
namespace {

// A work may have ended for its user before it has made all its allocations, so each of the last ones is tried.
constexpr std::size_t last_allocations = 24;

// What a run reports before its process ends.
struct Report {
  Ending ending = Ending::terminated;
  std::size_t made = 0;
  std::ptrdiff_t open_descriptors = 0;
  std::array<char, 256> problem{};
};

std::ptrdiff_t open_descriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
}

// Notes how the run ended. Stops counting first, since this allocates too.
void note(Report& report, Ending ending, const char* problem) {
  counting = false;
  report.ending = ending;
  std::snprintf(report.problem.data(), report.problem.size(), "%s", problem);
}

void run_short(Report& report, const std::function<void()>& work) {
  made = 0;
  failed = 0;
  counting = true;
  try {
    work();
    note(report, plan.number != 0 && failed == 0 ? Ending::spared : Ending::success, "");
  } catch (const std::bad_alloc&) {
    note(report, Ending::out_of_memory, "");
  } catch (const Error& error) {
    note(report, Ending::refused, error.code.c_str());
  } catch (const std::exception& problem) {
    note(report, Ending::other, problem.what());
  }
  report.made = made;
}

// The first use of the unwinder loads it, which allocates; so it is used once before any count.
void load_unwinder() {
  std::array<void*, 1> frame{};
  static_cast<void>(backtrace(frame.data(), 1));
}

// Shows where a failure was that nothing caught.
[[noreturn]] void tell_and_abort() {
  counting = false;
  std::array<void*, 32> frames{};
  backtrace_symbols_fd(frames.data(), backtrace(frames.data(), static_cast<int>(frames.size())), STDERR_FILENO);
  std::abort();
}

[[noreturn]] void run_in_child(int answer, const std::function<void()>& work) {
  std::set_terminate(tell_and_abort);
  std::signal(SIGSEGV, [](int) { tell_and_abort(); });
  Report report;
  const std::ptrdiff_t before = open_descriptors();
  run_short(report, work);
  report.open_descriptors = open_descriptors() - before;
  _exit(write(answer, &report, sizeof report) == static_cast<ssize_t>(sizeof report) ? 0 : 1);
}

Report run(const Plan& planned, const std::function<void()>& work) {
  plan = planned;
  int ends[2] = {-1, -1};
  EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const Handle heard(ends[0]);
  Handle answer(ends[1]);
  const pid_t child = fork();
  if (child == 0) {
    run_in_child(answer.get(), work);
  }
  answer.reset();
  Report report;
  Report told;
  if (posix::retry_interrupted([&] { return read(heard.get(), &told, sizeof told); }) ==
      static_cast<ssize_t>(sizeof told)) {
    report = told;
  }
  int status = 0;
  EXPECT_EQ(posix::retry_interrupted([&] { return waitpid(child, &status, 0); }), child);
  if (report.ending == Ending::terminated) {
    report.ending = WIFSIGNALED(status) ? Ending::terminated : Ending::exited;
    std::snprintf(report.problem.data(), report.problem.size(), "%s %d", WIFSIGNALED(status) ? "signal" : "exit code",
                  WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
  }
  return report;
}

}  // namespace

ShortRuns at_every_allocation(Allocations allocations, Shortage shortage, std::size_t most_runs,
                              const ShortTrial& trial) {
  load_unwinder();
  trial.prepare();
  const Report whole = run({allocations, shortage, 0}, trial.work);
  EXPECT_EQ(whole.ending, Ending::success) << whole.problem.data();
  ShortRuns runs;
  runs.allocations = whole.made;
  const std::size_t distance =
      std::max<std::size_t>(1, (whole.made + most_runs - 1) / std::max<std::size_t>(1, most_runs));
  const std::size_t last_ones = whole.made - std::min(whole.made, last_allocations);
  for (std::size_t number = 1; number <= whole.made && whole.ending == Ending::success; ++number) {
    if ((number - 1) % distance != 0 && number <= last_ones) {
      continue;
    }
    trial.prepare();
    const Report report = run({allocations, shortage, number}, trial.work);
    const ShortRun done{number, report.ending, report.problem.data(), report.open_descriptors};
    const bool may_exit = allocations == Allocations::of_libraries;
    EXPECT_TRUE(done.ending < Ending::other || (may_exit && done.ending == Ending::exited))
        << "allocation " << number << ": " << done.problem;
    EXPECT_EQ(done.open_descriptors, 0) << "allocation " << number;
    ++runs.runs;
    runs.spared += done.ending == Ending::spared ? 1 : 0;
    runs.exited += done.ending == Ending::exited ? 1 : 0;
    runs.succeeded += done.ending == Ending::success ? 1 : 0;
    trial.inspect(done);
  }
  return runs;
}

}  // namespace ravok::testing
