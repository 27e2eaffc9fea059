#include "app/maintenance/maintenance_handoff.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>

#include "domain/error.hpp"
#include "platform/file/native_lock.hpp"
#include "support/companion.hpp"
#include "support/failure.hpp"
#include "support/fast_volume.hpp"
#include "support/install_place.hpp"
#include "support/launcher_place.hpp"
#include "support/no_threads.hpp"
#include "support/process.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"
#include "support/with_environment.hpp"
#include "support/working_directory.hpp"

namespace ravok::maintenance_handoff_test {
namespace {

using testing::Companion;
using testing::InstallPlace;
using testing::LauncherPlace;
using testing::TemporaryRoot;
using testing::WithEnvironment;

using Words = std::vector<std::string>;

constexpr const char* busy = "Maintenance is already running";

Json view_of_phase(const std::string& phase) {
  return {{"phase", phase},   {"cancellable", false}, {"completed_bytes", 0}, {"total_bytes", 0},
          {"owned_path", ""}, {"problem", nullptr},   {"result", nullptr}};
}

Json succeeded(const Json& result) {
  Json view = view_of_phase("succeeded");
  view["result"] = result;
  return view;
}

Json failed(const std::string& code, const std::string& message) {
  Json view = view_of_phase("failed");
  view["problem"] = {{"code", code}, {"message", message}};
  return view;
}

// Runs one task to its end and returns the last view.
Json view_after(MaintenanceHandoff& handoff, const std::function<Json()>& work) {
  handoff.begin(work);
  handoff.join();
  return handoff.view();
}

// Something that one thread waits for and another one opens.
class Gate {
 public:
  void open() { opened_.set_value(); }
  void wait() const { future_.wait(); }

 private:
  std::promise<void> opened_;
  std::shared_future<void> future_ = opened_.get_future().share();
};

TEST(MaintenanceHandoffView, IsNothingBeforeTheFirstTask) {
  MaintenanceHandoff handoff;
  EXPECT_EQ(handoff.view(), Json(nullptr));
  handoff.cancel();
  handoff.join();
  EXPECT_EQ(handoff.view(), Json(nullptr));
}

TEST(MaintenanceHandoffView, TellsOfTheTasksDocument) {
  MaintenanceHandoff handoff;
  const Json document = {{"made", {1, 2}}};
  EXPECT_EQ(view_after(handoff, [&] { return document; }), succeeded(document));
  EXPECT_EQ(view_after(handoff, [] { return Json(); }), succeeded(nullptr));
}

TEST(MaintenanceHandoffView, TellsWhyATaskFailed) {
  MaintenanceHandoff handoff;
  EXPECT_EQ(view_after(handoff, []() -> Json { fail("some_code", "Some message", {"a hint"}); }),
            failed("some_code", "Some message"));
  EXPECT_EQ(view_after(handoff, []() -> Json { throw std::runtime_error("some text"); }),
            failed("maintenance_failed", "some text"));
  EXPECT_EQ(view_after(handoff, []() -> Json { throw std::bad_alloc(); }),
            failed("maintenance_failed", std::bad_alloc().what()));
  EXPECT_EQ(view_after(handoff, []() -> Json { throw 7; }), failed("maintenance_failed", "Unknown failure"));
  EXPECT_EQ(view_after(handoff, {}), failed("maintenance_failed", std::bad_function_call().what()));
}

TEST(MaintenanceHandoffView, CanAlwaysBeWrittenAsADocument) {
  MaintenanceHandoff handoff;
  const Json view = view_after(handoff, []() -> Json { fail("some_code", "not \xff UTF-8"); });
  EXPECT_EQ(view, failed("some_code", "not \\xff UTF-8"));
  EXPECT_NO_THROW(view.dump());
}

TEST(MaintenanceHandoffView, ForgetsTheTaskBefore) {
  MaintenanceHandoff handoff;
  std::vector<Json> views;
  handoff.set_wakeup([&] { views.push_back(handoff.view()); });
  view_after(handoff, []() -> Json { fail("some_code", "Some message"); });
  view_after(handoff, [] { return Json(1); });
  view_after(handoff, []() -> Json { fail("other_code", "Other message"); });
  EXPECT_EQ(views, (std::vector<Json>{view_of_phase("starting"), failed("some_code", "Some message"),
                                      view_of_phase("starting"), succeeded(1), view_of_phase("starting"),
                                      failed("other_code", "Other message")}));
}

TEST(MaintenanceHandoffView, IsWhateverWasPublished) {
  MaintenanceHandoff handoff;
  int woken = 0;
  handoff.publish({{"phase", "other"}});
  handoff.set_wakeup([&] { ++woken; });
  EXPECT_EQ(handoff.view(), (Json{{"phase", "other"}}));
  handoff.publish(7);
  EXPECT_EQ(handoff.view(), 7);
  EXPECT_EQ(woken, 1);
}

TEST(MaintenanceHandoffView, IsWholeWheneverItIsLookedAt) {
  MaintenanceHandoff handoff;
  std::atomic<bool> done = false;
  std::atomic<int> looks = 0;
  std::vector<Json> odd;
  std::thread reader([&] {
    while (!done || looks == 0) {
      const Json view = handoff.view();
      if (!view.is_null() && view != view_of_phase("starting") && view != succeeded("a result") &&
          view != failed("some_code", "Some message")) {
        odd.push_back(view);
      }
      handoff.cancel();
      ++looks;
    }
  });
  for (int task = 0; task < 100; ++task) {
    handoff.begin([task]() -> Json {
      require(task % 2 == 0, "some_code", "Some message");
      return "a result";
    });
  }
  handoff.join();
  done = true;
  reader.join();
  EXPECT_EQ(odd, std::vector<Json>{});
}

TEST(MaintenanceHandoffTasks, RunOneAfterTheOther) {
  MaintenanceHandoff handoff;
  std::atomic<int> running = 0;
  std::vector<int> order;
  for (int task = 0; task < 20; ++task) {
    handoff.begin([&, task]() -> Json {
      EXPECT_EQ(++running, 1);
      order.push_back(task);
      --running;
      return task;
    });
  }
  handoff.join();
  EXPECT_EQ(handoff.view(), succeeded(19));
  ASSERT_EQ(order.size(), 20u);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(MaintenanceHandoffTasks, WaitForTheOneBefore) {
  MaintenanceHandoff handoff;
  Gate gate;
  std::atomic<bool> first_ended = false;
  handoff.begin([&]() -> Json {
    gate.wait();
    first_ended = true;
    return 1;
  });
  std::thread opener([&] { gate.open(); });
  handoff.begin([&]() -> Json { return first_ended.load(); });
  EXPECT_TRUE(first_ended);
  handoff.join();
  opener.join();
  EXPECT_EQ(handoff.view(), succeeded(true));
}

TEST(MaintenanceHandoffTasks, DoNotBeginInATask) {
  MaintenanceHandoff handoff;
  const Json view = view_after(handoff, [&]() -> Json {
    EXPECT_FAILURE(handoff.begin([] { return Json(2); }), "busy", busy);
    EXPECT_FAILURE(handoff.create_shortcut("/data", "", {}, ""), "busy", busy);
    EXPECT_FAILURE(handoff.join(), "busy", busy);
    return handoff.view();
  });
  EXPECT_EQ(view, succeeded(view_of_phase("starting")));
}

TEST(MaintenanceHandoffTasks, DoNotBeginInAWakeUp) {
  MaintenanceHandoff handoff;
  int refused = 0;
  handoff.set_wakeup([&] {
    EXPECT_FAILURE(handoff.begin([] { return Json(2); }), "busy", busy);
    EXPECT_FAILURE(handoff.remove_shortcuts("/data"), "busy", busy);
    ++refused;
  });
  EXPECT_EQ(view_after(handoff, [] { return Json(1); }), succeeded(1));
  EXPECT_EQ(refused, 2);
  handoff.set_wakeup({});
  EXPECT_EQ(view_after(handoff, [] { return Json(2); }), succeeded(2));
}

TEST(MaintenanceHandoffTasks, AreNotWaitedForByTheirOwnWakeUp) {
  MaintenanceHandoff handoff;
  std::atomic<int> refused = 0;
  handoff.set_wakeup([&] {
    EXPECT_FAILURE(handoff.join(), "busy", busy);
    ++refused;
  });
  handoff.begin([] { return Json(1); });
  // This is another call than that of the wake-up.
  while (refused < 2) {
    std::this_thread::yield();
  }
  handoff.join();
  EXPECT_EQ(handoff.view(), succeeded(1));
}

#ifdef __linux__

TEST(MaintenanceHandoffTasks, FailWithoutAThreadAndLeaveNoneBegun) {
  MaintenanceHandoff handoff;
  bool ran = false;
  const std::system_error expected(EAGAIN, std::generic_category());
  {
    const testing::NoThreads none;
    try {
      handoff.begin([&]() -> Json { return ran = true; });
      FAIL() << "a thread was made";
    } catch (const std::system_error& problem) {
      EXPECT_EQ(problem.code(), expected.code());
    }
  }
  EXPECT_FALSE(ran);
  EXPECT_EQ(handoff.view(), failed("maintenance_failed", expected.what()));
  EXPECT_EQ(view_after(handoff, [] { return Json(1); }), succeeded(1));
}

#endif

TEST(MaintenanceHandoffTasks, EndBeforeTheObjectDoes) {
  // It is opened when the wake-up goes, which the end of the object drops before it waits for the task.
  const auto gate = std::make_shared<Gate>();
  std::atomic<int> woken = 0;
  std::atomic<bool> ended = false;
  {
    MaintenanceHandoff handoff;
    std::shared_ptr<void> opener(nullptr, [gate](void*) { gate->open(); });
    handoff.set_wakeup([opener = std::move(opener), &woken] { ++woken; });
    handoff.begin([&]() -> Json {
      gate->wait();
      ended = true;
      return 1;
    });
  }
  EXPECT_TRUE(ended);
  EXPECT_EQ(woken, 1) << "the beginning";
}

TEST(MaintenanceHandoffWakeUp, ComesAfterEachChangeWithNoLockHeld) {
  MaintenanceHandoff handoff;
  std::vector<std::pair<std::thread::id, Json>> calls;
  handoff.set_wakeup([&] {
    // Another thread gets at the snapshot meanwhile.
    const Json view = std::async(std::launch::async, [&] { return handoff.view(); }).get();
    calls.emplace_back(std::this_thread::get_id(), view);
  });
  std::thread::id worker;
  view_after(handoff, [&]() -> Json {
    worker = std::this_thread::get_id();
    return 1;
  });
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0], std::pair(std::this_thread::get_id(), view_of_phase("starting")));
  EXPECT_EQ(calls[1], std::pair(worker, succeeded(1)));
}

TEST(MaintenanceHandoffWakeUp, MayBeReplacedWhileATaskRuns) {
  MaintenanceHandoff handoff;
  std::atomic<int> first = 0;
  std::atomic<int> second = 0;
  handoff.set_wakeup([&] {
    ++first;
    handoff.set_wakeup([&] { ++second; });
  });
  view_after(handoff, [] { return Json(1); });
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 1);
  handoff.set_wakeup({});
  EXPECT_EQ(view_after(handoff, [] { return Json(2); }), succeeded(2));
  EXPECT_EQ(second, 1);
}

TEST(MaintenanceHandoffShortcuts, AreMadeAndRemoved) {
  const InstallPlace place;
  place.install();
  MaintenanceHandoff handoff;
  const std::filesystem::path chosen = place.home() / "chosen.desktop";
  const auto run = [&](const std::function<void()>& task) {
    task();
    handoff.join();
    return handoff.view();
  };
  EXPECT_EQ(run([&] { handoff.create_shortcut(place.data(), "first-game", chosen, "The First"); }),
            succeeded({{"created", {chosen}}}));
  EXPECT_NE(testing::bytes_of(chosen).find("Name=The First\n"), std::string::npos);
  EXPECT_EQ(run([&] { handoff.create_shortcut(place.data(), "", {}, ""); }), succeeded({{"created", {place.entry()}}}));
  testing::write_bytes(chosen, "of somebody");
  EXPECT_EQ(run([&] { handoff.remove_shortcuts(place.data()); }),
            succeeded({{"removed", {place.entry()}}, {"changed", {chosen}}}));
  EXPECT_EQ(testing::bytes_of(chosen), "of somebody");
  EXPECT_FALSE(std::filesystem::exists(place.entry()));
}

TEST(MaintenanceHandoffShortcuts, NeedAnInstallation) {
  const TemporaryRoot root;
  MaintenanceHandoff handoff;
  handoff.create_shortcut(root.path(), "", {}, "");
  handoff.join();
  EXPECT_EQ(handoff.view(), failed("not_installed", "Ravok is not installed in " + root.path().native()));
  handoff.remove_shortcuts(root.path());
  handoff.join();
  EXPECT_EQ(handoff.view(), failed("not_installed", "Ravok is not installed in " + root.path().native()));
  EXPECT_TRUE(root.names().empty());
}

// A version whose windowed entry and whose window's helper are the companion.
class HandoffWindow : public ::testing::Test {
 protected:
  std::string data_root() const { return place.root.path().native(); }
  std::string client() const { return place.store.payload(version) / "bin/window"; }

  // Ends a helper that goes on by itself.
  static void end_window(const std::string& line) {
    const std::string pid = line.substr(7, line.find(' ', 7) - 7);
    ASSERT_TRUE(line.starts_with("window ")) << line;
    EXPECT_EQ(kill(std::stoi(pid), SIGKILL), 0) << "the window has closed";
  }
  std::string shown(const std::string& line) const { return line.substr(line.find(" --")); }

  static testing::LauncherPrograms programs() {
    const std::string companion = testing::bytes_of(RAVOK_HANDOFF_COMPANION);
    return {"#!program", companion, "#!helper", companion + " "};
  }

  const LauncherPlace place{testing::fast_volume()};
  const Json version = place.add_version("build-1", programs());
  const TemporaryRoot temporary{testing::fast_volume()};
  const WithEnvironment folder{"TMPDIR", temporary.path()};
};

const Json ready = succeeded({{"phase", "ready"}});
const Json not_opened = failed("maintenance_startup", "The uninstall window did not open");

TEST_F(HandoffWindow, IsOpenAndStaysWhenTheClientEnds) {
  const WithEnvironment behaviour("HANDOFF_WINDOW", "open");
  Companion client_process(client(), {"patient", "start", data_root()});
  const std::string window = client_process.read_line();
  EXPECT_EQ(shown(window), " --data-dir " + data_root());
  EXPECT_EQ(Json::parse(client_process.read_line()), ready);
  EXPECT_EQ(client_process.wait(), 0);
  // The helper removes the name under which it wrote its file after it has said that it is ready.
  for (const std::string& name : temporary.names()) {
    EXPECT_TRUE(name.ends_with(".tmp")) << name;
  }
  while (!temporary.names().empty()) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(testing::is_lock_busy(place.version_lease_path(version))) << "the window took over a lease";
  end_window(window);
}

TEST_F(HandoffWindow, IsToldAnAbsoluteFolder) {
  const testing::WorkingDirectory working(place.root.path().parent_path());
  const WithEnvironment behaviour("HANDOFF_WINDOW", "open");
  Companion client_process(client(), {"patient", "start", place.root.path().filename()});
  const std::string window = client_process.read_line();
  EXPECT_EQ(shown(window), " --data-dir " + data_root());
  EXPECT_EQ(client_process.wait(), 0);
  end_window(window);
}

TEST_F(HandoffWindow, MayBeOpenedTwice) {
  const WithEnvironment behaviour("HANDOFF_WINDOW", "open");
  Companion client_process(client(), {"patient", "start", data_root(), "again"});
  const std::string first = client_process.read_line();
  EXPECT_EQ(Json::parse(client_process.read_line()), ready);
  const std::string second = client_process.read_line();
  EXPECT_EQ(Json::parse(client_process.read_line()), ready);
  EXPECT_EQ(client_process.wait(), 0);
  EXPECT_NE(first, second);
  end_window(first);
  end_window(second);
}

TEST_F(HandoffWindow, IsMissedAtOnceWhenTheHelperEnds) {
  const WithEnvironment behaviour("HANDOFF_WINDOW", "end");
  Companion client_process(client(), {"start", data_root()});
  EXPECT_EQ(shown(client_process.read_line()), " --data-dir " + data_root());
  EXPECT_EQ(Json::parse(client_process.read_line()), not_opened);
  EXPECT_EQ(client_process.wait(), 0);
  EXPECT_TRUE(temporary.names().empty());
}

TEST_F(HandoffWindow, IsGivenUpWithTheHelperThatDoesNotOpenIt) {
  const testing::ProgramResult result = testing::run_program(
      {client(), {"still", "start", data_root()}, {{"HANDOFF_WINDOW", "hang"}, {"TMPDIR", temporary.path()}}, ""});
  // The helper has ended, or this program would still wait for the end of what it says.
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_NE(result.output.find(not_opened.dump() + "\n"), std::string::npos) << result.output;
  EXPECT_TRUE(temporary.names().empty());
}

TEST_F(HandoffWindow, IsNotOpenedOnceTheUserNoLongerWants) {
  Companion client_process(client(), {"cancelled", "start", data_root()});
  EXPECT_EQ(Json::parse(client_process.read_line()), failed("cancelled", "Uninstall cancelled"));
  EXPECT_EQ(client_process.wait(), 0);
  EXPECT_FALSE(testing::is_lock_busy(place.version_lease_path(version)));
}

TEST_F(HandoffWindow, IsNotOpenedByAProgramThatNoStoreManages) {
  MaintenanceHandoff handoff;
  handoff.start(place.root.path(), {});
  handoff.join();
  EXPECT_EQ(handoff.view(), failed("maintenance_unavailable",
                                   "Start the installed Ravok GUI or use the external installer to review removal"));
}

}  // namespace
}  // namespace ravok::maintenance_handoff_test
