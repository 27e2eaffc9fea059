// The installer with a window beside an empty window of its toolkit, and beside the installer on a console.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bare_digest.hpp"
#include "publisher/publish_installer.hpp"
#include "sample_product.hpp"
#include "scratch.hpp"
#include "support/bytes_of.hpp"
#include "support/display.hpp"

namespace {

using ravok::benchmarks::check;
using ravok::benchmarks::publish_sample;
using ravok::benchmarks::Scratch;
using ravok::testing::bytes_of;
using ravok::testing::Display;
using ravok::testing::ShownWindow;

// A product of 200 MB in 2,000 files, both its installers, and a display.
class Shown {
 public:
  Shown() {
    const std::string seal = publish_sample(scratch_.path(), {.bootstrap_files = 100, .launcher_files = 1900});
    for (const auto& [from, to] : {std::pair(RAVOK_INSTALL, console()), std::pair(RAVOK_INSTALL_GUI, windowed())}) {
      std::ofstream(to, std::ios::binary) << ravok::with_seal(bytes_of(from), seal);
      check(chmod(to.c_str(), 0755) == 0);
    }
    // The desktop's libraries find out about the fonts once.
    wait(start(windowed(), {"--package", package(), "--data-dir", data(), "--smoke"}));
  }

  std::filesystem::path console() const { return scratch_.path() / "ravok-install"; }
  std::filesystem::path windowed() const { return scratch_.path() / "ravok-install-gui"; }
  std::filesystem::path package() const { return scratch_.path() / "package"; }
  std::filesystem::path data() const { return scratch_.path() / "data"; }
  std::vector<std::string> where() const { return {"--package", package(), "--data-dir", data()}; }

  void clear() const {
    std::filesystem::remove_all(data());
    std::filesystem::remove_all(scratch_.path() / ".local");
    sync();
  }

  // Starts a program on the display.
  pid_t start(const std::filesystem::path& program, const std::vector<std::string>& arguments) const {
    std::vector<std::string> environment = {"DISPLAY=" + display.name(), "HOME=" + scratch_.path().native(),
                                            "PATH=/usr/bin:/bin"};
    std::vector<std::string> words = {program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    check(posix_spawn(&child, program.c_str(), &actions, nullptr, table_of(words).data(),
                      table_of(environment).data()) == 0);
    posix_spawn_file_actions_destroy(&actions);
    return child;
  }
  // Waits for its success.
  static void wait(pid_t child) {
    int status = 1;
    check(waitpid(child, &status, 0) == child && status == 0);
  }

  // Waits until a window shows this screen with this item.
  ShownWindow wait_for(const std::string& screen, const std::string& item) const {
    for (;;) {
      for (const ShownWindow& shown : display.windows()) {
        if (shown.screen == screen && shown.offers(item)) {
          return shown;
        }
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  const Display display;

 private:
  static std::vector<char*> table_of(std::vector<std::string>& texts) {
    std::vector<char*> table;
    for (std::string& text : texts) {
      table.push_back(text.data());
    }
    table.push_back(nullptr);
    return table;
  }

  Scratch scratch_;
};

const Shown& shown() {
  static const Shown made;
  return made;
}

void window_first_frame(benchmark::State& state) {
  std::vector<std::string> arguments = shown().where();
  arguments.emplace_back("--smoke");
  for (auto _ : state) {
    Shown::wait(shown().start(shown().windowed(), arguments));
  }
}

void window_first_frame_yardstick(benchmark::State& state) {
  for (auto _ : state) {
    Shown::wait(shown().start(RAVOK_BARE_WINDOW_PROGRAM, {}));
  }
}

// Presses the button of an installer that is ready, and calls `look` until it has installed. Then closes it.
template <typename Look>
void install_by_window(benchmark::State& state, Look look) {
  state.PauseTiming();
  shown().clear();
  const pid_t installer = shown().start(shown().windowed(), shown().where());
  const ShownWindow ready = shown().wait_for("choose", "install");
  shown().display.focus(ready.window);
  shown().display.watch(ready.window);
  // What is still to be read of windows before this one.
  shown().display.changes();
  state.ResumeTiming();
  shown().display.press("alt+i");
  for (bool done = false; !done;) {
    for (const ShownWindow& now : shown().display.windows()) {
      done = now.screen == "done";
    }
    look();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  state.PauseTiming();
  shown().display.ask_to_close(ready.window);
  Shown::wait(installer);
  state.ResumeTiming();
}

void window_install(benchmark::State& state) {
  for (auto _ : state) {
    install_by_window(state, [] {});
  }
}

void window_install_yardstick(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    shown().clear();
    state.ResumeTiming();
    Shown::wait(shown().start(shown().console(), shown().where()));
  }
}

// Processes that take all the time that they get.
class Load {
 public:
  explicit Load(unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
      const pid_t child = fork();
      check(child >= 0);
      if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (std::atomic<std::uint64_t> spins = 0;; ++spins) {
        }
      }
      children_.push_back(child);
    }
  }
  ~Load() {
    for (const pid_t child : children_) {
      kill(child, SIGKILL);
      waitpid(child, nullptr, 0);
    }
  }
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;

 private:
  std::vector<pid_t> children_;
};

// The longest time between two frames of an installation.
void measure_frames(benchmark::State& state, unsigned load) {
  shown();
  for (auto _ : state) {
    std::vector<std::uint32_t> frames;
    const Load others(load);
    install_by_window(state, [&] {
      const std::vector<std::uint32_t> more = shown().display.changes();
      frames.insert(frames.end(), more.begin(), more.end());
    });
    std::uint32_t longest = 0;
    for (std::size_t i = 1; i < frames.size(); ++i) {
      longest = std::max(longest, frames[i] - frames[i - 1]);
    }
    check(frames.size() > 2);
    state.SetIterationTime(longest / 1000.0);
  }
}

void window_frames(benchmark::State& state) { measure_frames(state, 0); }
void window_frames_loaded(benchmark::State& state) { measure_frames(state, std::thread::hardware_concurrency()); }

BENCHMARK(window_first_frame)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(window_first_frame_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(window_install)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(window_install_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(window_frames)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1);
BENCHMARK(window_frames_loaded)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1);

}  // namespace
