// Requests for a host whose name is looked up without an end. The linker leads the system's look-up to a test, so that
// nobody is asked.

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include <gtest/gtest.h>
#include <netdb.h>

#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "transport/https_request.hpp"

namespace {

// How long a look-up lasts that a request waits for: a test that fails shall end too.
constexpr std::chrono::seconds patience{20};

// The look-ups of a test: each lasts until the test allows it to end.
class Lookups {
 public:
  void look_up() {
    std::unique_lock lock(mutex_);
    ++begun_;
    changed_.wait_for(lock, patience, [&] { return may_end_; });
    ++ended_;
    changed_.notify_all();
  }

  bool is_under_way() {
    const std::lock_guard lock(mutex_);
    return begun_ > ended_;
  }

  // Ends them all, and returns once that has happened.
  void end() {
    std::unique_lock lock(mutex_);
    may_end_ = true;
    changed_.notify_all();
    changed_.wait(lock, [&] { return begun_ == ended_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int begun_ = 0;
  int ended_ = 0;
  bool may_end_ = false;
};

// Belongs to each look-up too, as one may outlive its test.
std::shared_ptr<Lookups> lookups;

}  // namespace

extern "C" {

int __real_getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result);
int __wrap_getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
  const std::shared_ptr<Lookups> held = lookups;
  if (!held) {
    return __real_getaddrinfo(node, service, hints, result);
  }
  held->look_up();
  return EAI_AGAIN;
}

}  // extern "C"

namespace ravok {
namespace {

// A request ends while the name is still looked up.
class HttpsLookup : public ::testing::Test {
 protected:
  HttpsLookup() {
    lookups = std::make_shared<Lookups>();
    transfer_.limit = 10;
  }
  ~HttpsLookup() override {
    lookups->end();
    lookups.reset();
  }

  long ask() { return request("https://example.test/file", bundle_, transfer_, 0, nullptr); }

  const testing::TemporaryRoot root_;
  const std::filesystem::path bundle_ = root_.write("authorities.pem", "none");
  Transfer transfer_;
};

TEST_F(HttpsLookup, IsNotWaitedForOnceProgressEndsTheRequest) {
  transfer_.progress = [](std::uint64_t, std::uint64_t) { return !lookups->is_under_way(); };
  EXPECT_FAILURE(ask(), "cancelled", "Transfer cancelled at a safe boundary");
  EXPECT_TRUE(lookups->is_under_way());
}

TEST_F(HttpsLookup, IsNotWaitedForOnceTheCheckIsCalledOff) {
  transfer_.budget = std::make_shared<HttpsBudget>();
  transfer_.budget->deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  transfer_.budget->cancel = [] { return lookups->is_under_way(); };
  EXPECT_FAILURE(ask(), "cancelled", "Transfer cancelled at a safe boundary");
  EXPECT_TRUE(lookups->is_under_way());
  EXPECT_EQ(transfer_.budget->used, 0u);
}

TEST_F(HttpsLookup, IsNotWaitedForAtTheDeadline) {
  transfer_.budget = std::make_shared<HttpsBudget>();
  transfer_.budget->deadline = std::chrono::steady_clock::time_point(std::chrono::hours(1));
  transfer_.surroundings.now = [this] {
    return transfer_.budget->deadline - std::chrono::seconds(lookups->is_under_way() ? 0 : 20);
  };
  EXPECT_FAILURE(ask(), "discovery_timeout",
                 "Optional update check exhausted its time budget; use Check for updates when ready");
  EXPECT_TRUE(lookups->is_under_way());
}

}  // namespace
}  // namespace ravok
