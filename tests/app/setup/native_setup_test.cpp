#include "app/setup/native_setup.hpp"

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/file/native_lock.hpp"
#include "support/failure.hpp"
#include "support/install_place.hpp"
#include "support/no_threads.hpp"
#include "support/working_directory.hpp"

namespace ravok {
namespace {

using testing::InstallPlace;

// A front end that keeps every snapshot it is woken for.
class FrontEnd {
 public:
  explicit FrontEnd(std::string seal) : setup(std::move(seal)) {
    setup.set_wakeup([this] { wake(); });
  }

  // Called on the command's own thread when it reports for the first time.
  std::function<void()> at_first = {};

  // Waits for the end of the command and returns the last snapshot.
  NativeSetup::View wait() {
    std::unique_lock lock(mutex_);
    ended_.wait(lock, [this] { return !views_.empty() && !views_.back().running; });
    return views_.back();
  }
  std::vector<NativeSetup::View> views() {
    const std::lock_guard lock(mutex_);
    return views_;
  }
  void forget() {
    const std::lock_guard lock(mutex_);
    views_.clear();
  }

 private:
  void wake() {
    const NativeSetup::View view = setup.view();
    bool first = false;
    {
      const std::lock_guard lock(mutex_);
      first = views_.empty();
      views_.push_back(view);
    }
    if (first && at_first) {
      at_first();
    }
    if (!view.running) {
      ended_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable ended_;
  std::vector<NativeSetup::View> views_;

 public:
  // The last member, so that it ends before what its thread uses.
  NativeSetup setup;
};

class NativeSetupTest : public ::testing::Test {
 protected:
  SetupCommand command(SetupCommandKind kind) const {
    SetupCommand command;
    command.command = kind;
    command.package = place.package_directory();
    command.data_root = place.data();
    return command;
  }
  SetupCommand install() const { return command(SetupCommandKind::install); }
  SetupCommand status() const { return command(SetupCommandKind::status); }

  static void expect_failed(const NativeSetup::View& view, const std::string& code, const std::string& message) {
    EXPECT_FALSE(view.running);
    EXPECT_TRUE(view.result.is_null());
    EXPECT_EQ(view.error_code, code);
    EXPECT_EQ(view.error_message, message);
  }

  InstallPlace place;
};

TEST_F(NativeSetupTest, IsIdleAtFirst) {
  NativeSetup setup(place.seal());
  setup.cancel();
  const NativeSetup::View view = setup.view();
  EXPECT_EQ(view.phase, "");
  EXPECT_EQ(view.done, 0u);
  EXPECT_EQ(view.total, 0u);
  expect_failed(view, "", "");
}

TEST_F(NativeSetupTest, IsBusyToTheEndOfItsLastWakeUp) {
  FrontEnd front(place.seal());
  std::promise<std::string> answer;
  front.setup.set_wakeup([&] {
    if (!front.setup.view().running) {
      const auto failure = testing::failure_of([&] { front.setup.start(status()); });
      answer.set_value(failure ? failure->code + ": " + failure->what() : "started");
    }
  });
  front.setup.start(status());
  EXPECT_EQ(answer.get_future().get(), "busy: Setup is already running");
  front.setup.set_wakeup({});
  EXPECT_FALSE(front.setup.view().result.is_null());
  front.setup.start(install());
  while (front.setup.view().running) {
    std::this_thread::yield();
  }
  EXPECT_EQ(front.setup.view().error_code, "");
}

#ifdef __linux__

TEST_F(NativeSetupTest, EndsAtOnceWithoutAThread) {
  FrontEnd front(place.seal());
  {
    const testing::NoThreads none;
    front.setup.start(status());
  }
  expect_failed(front.setup.view(), "setup_failed", std::system_error(EAGAIN, std::generic_category()).what());
  EXPECT_EQ(front.views().size(), 1u);
  front.forget();
  front.setup.start(status());
  EXPECT_EQ(front.wait().error_code, "");
}

#endif

TEST_F(NativeSetupTest, InstallsAndHandsTheDocumentOver) {
  FrontEnd front(place.seal());
  front.setup.start(install());
  const NativeSetup::View last = front.wait();
  EXPECT_EQ(last.result, (Json{{"schema_version", 1},
                               {"installed", true},
                               {"repaired", false},
                               {"data_root", place.data()},
                               {"bootstrap", place.data() / "native/bootstrap/bin/ravok-bootstrap"},
                               {"replaced", {"bootstrap", "launcher", "trust"}},
                               {"shortcuts", Json::array()},
                               {"shortcut_problem", nullptr}}));
  EXPECT_EQ(last.error_code, "");
  EXPECT_EQ(last.error_message, "");
  EXPECT_EQ(front.setup.view().result, last.result);
}

TEST_F(NativeSetupTest, ShowsHowFarTheCommandIs) {
  FrontEnd front(place.seal());
  front.setup.start(install());
  const NativeSetup::View last = front.wait();
  const std::vector<NativeSetup::View> views = front.views();
  ASSERT_GE(views.size(), 3u);
  EXPECT_EQ(views.front().phase, "verifying");
  EXPECT_EQ(views.at(views.size() - 2).phase, "installing");
  for (std::size_t i = 0; i + 1 < views.size(); ++i) {
    EXPECT_TRUE(views[i].running);
    EXPECT_TRUE(views[i].result.is_null());
    EXPECT_LE(views[i].done, views[i].total);
  }
  EXPECT_EQ(last.phase, "installing");
  EXPECT_GT(last.total, 0u);
  EXPECT_EQ(last.done, last.total);
}

TEST_F(NativeSetupTest, RunsOneCommandAtATime) {
  FrontEnd front(place.seal());
  front.at_first = [&] {
    EXPECT_FAILURE(front.setup.start(status()), "busy", "Setup is already running");
    EXPECT_TRUE(front.setup.view().running);
  };
  front.setup.start(install());
  EXPECT_EQ(front.wait().result.at("installed"), true);
  EXPECT_TRUE(std::filesystem::exists(place.paths().installation_record));
}

TEST_F(NativeSetupTest, IsBusyFromTheMomentItStarts) {
  std::mutex gate;
  std::unique_lock closed(gate);
  FrontEnd front(place.seal());
  front.at_first = [&] { const std::lock_guard wait(gate); };
  front.setup.start(install());
  EXPECT_TRUE(front.setup.view().running);
  EXPECT_FAILURE(front.setup.start(install()), "busy", "Setup is already running");
  closed.unlock();
  EXPECT_EQ(front.wait().result.at("installed"), true);
}

TEST_F(NativeSetupTest, TellsOfAFailureInTheSnapshot) {
  FrontEnd front(std::string(64, '0'));
  front.setup.start(install());
  expect_failed(front.wait(), "native_install_trust", "This package is not the one this installer was built for");
  EXPECT_FALSE(std::filesystem::exists(place.data()));
}

TEST_F(NativeSetupTest, TellsOfAnotherExceptionToo) {
  // A relative folder has no absolute path where there is no current directory.
  const testing::WorkingDirectory working(place.root().directory("gone"));
  std::filesystem::remove(place.root() / "gone");
  std::string message;
  try {
    static_cast<void>(std::filesystem::absolute("relative"));
  } catch (const std::filesystem::filesystem_error& problem) {
    message = problem.what();
  }
  FrontEnd front(place.seal());
  SetupCommand relative = status();
  relative.data_root = "relative";
  front.setup.start(relative);
  const NativeSetup::View last = front.wait();
  EXPECT_NE(message, "");
  expect_failed(last, "setup_failed", message);
}

TEST_F(NativeSetupTest, StartsAfreshAfterARun) {
  FrontEnd front(place.seal());
  front.at_first = [&] { front.setup.cancel(); };
  front.setup.start(install());
  expect_failed(front.wait(), "cancelled", "Setup was cancelled");

  std::mutex gate;
  std::unique_lock closed(gate);
  front.forget();
  front.at_first = [&] { const std::lock_guard wait(gate); };
  front.setup.start(install());
  const NativeSetup::View fresh = front.setup.view();
  EXPECT_TRUE(fresh.running);
  EXPECT_EQ(fresh.error_code, "");
  EXPECT_EQ(fresh.error_message, "");
  closed.unlock();
  EXPECT_EQ(front.wait().result.at("installed"), true);

  front.forget();
  front.at_first = {};
  front.setup.start(install());
  EXPECT_EQ(front.wait().error_code, "already_installed");
  EXPECT_TRUE(front.setup.view().result.is_null());
}

TEST_F(NativeSetupTest, ForgetsACancellationFromBeforeTheStart) {
  FrontEnd front(place.seal());
  front.setup.cancel();
  front.setup.start(install());
  EXPECT_EQ(front.wait().result.at("installed"), true);
}

TEST_F(NativeSetupTest, CancelsARunAndLeavesNothing) {
  FrontEnd front(place.seal());
  front.at_first = [&] { front.setup.cancel(); };
  front.setup.start(install());
  const NativeSetup::View last = front.wait();
  expect_failed(last, "cancelled", "Setup was cancelled");
  EXPECT_EQ(last.phase, "verifying");
  EXPECT_FALSE(std::filesystem::exists(place.data()));
}

TEST_F(NativeSetupTest, UsesANewWakeUpFromTheNextChangeOn) {
  std::atomic<int> first = 0;
  std::atomic<int> second = 0;
  std::promise<void> ended;
  {
    NativeSetup setup(place.seal());
    setup.set_wakeup([&] {
      ++first;
      setup.set_wakeup([&] {
        ++second;
        if (!setup.view().running) {
          ended.set_value();
        }
      });
    });
    setup.start(install());
    ended.get_future().wait();
  }
  EXPECT_EQ(first, 1);
  EXPECT_GT(second, 1);
}

TEST_F(NativeSetupTest, RunsWithoutAWakeUp) {
  FrontEnd front(place.seal());
  front.at_first = [&] { front.setup.set_wakeup({}); };
  front.setup.start(install());
  while (front.setup.view().running) {
    std::this_thread::yield();
  }
  EXPECT_EQ(front.setup.view().result.at("installed"), true);
  EXPECT_EQ(front.views().size(), 1u);
}

TEST_F(NativeSetupTest, StopsTheRunWhenItIsDropped) {
  place.install();
  const testing::TreeState before = place.state();
  // The lock that a running client would hold, so that the removal waits.
  const NativeFileLock running(place.paths().bootstrap_lock, true, NativeLockSharing::none, LockMode::exclusive);
  NativeSetup::View last;
  {
    NativeSetup setup(place.seal());
    setup.set_wakeup([&] { last = setup.view(); });
    setup.start(command(SetupCommandKind::uninstall));
  }
  expect_failed(last, "cancelled", "Setup was cancelled");
  EXPECT_EQ(last.phase, "");
  EXPECT_EQ(testing::without(place.state(), {".ravok-setup.lock"}), testing::without(before, {".ravok-setup.lock"}));
}

}  // namespace
}  // namespace ravok
