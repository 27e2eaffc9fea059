// A place in which tests start children, and in which nothing of them may stay behind.
#pragma once

#include <cerrno>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/process/child_process.hpp"
#include "support/temporary_root.hpp"

namespace ravok::testing {

// Ends a child, however long this machine takes for it.
inline void end_at_last(ChildProcess& child) {
  while (!child.terminate(2000)) {
  }
}

// How a child is started; by default it ends at once.
struct ChildStart {
  std::filesystem::path image = RAVOK_CHILD_COMPANION;
  std::vector<std::string> arguments = {"end", "0"};
  std::filesystem::path directory = "/";
  ProcessEnvironment environment = {};
  ChildStreams streams = ChildStreams::joined;
  ChildEnvironment mode = ChildEnvironment::kept;
  std::function<void(std::uint64_t)> on_started = {};
  ChildGroup group = ChildGroup::shared;
  ChildControl control = ChildControl::none;
  std::vector<std::int64_t> handles = {};
};

// The start of a child that listens to requests.
inline ChildStart console_start(std::vector<std::string> arguments) {
  return {.arguments = std::move(arguments),
          .streams = ChildStreams::inherited,
          .group = ChildGroup::own,
          .control = ChildControl::interrupt};
}

inline std::unique_ptr<ChildProcess> start_child(const ChildStart& start) {
  return std::make_unique<ChildProcess>(start.image, start.arguments, start.directory, start.environment, start.streams,
                                        start.mode, start.on_started, start.group, start.control, start.handles);
}

// Waits for a child that ends by itself.
inline std::uint64_t end_of(ChildProcess& child) {
  std::optional<std::uint64_t> code = child.poll();
  while (!code) {
    usleep(500);
    code = child.poll();
  }
  return *code;
}

// Waits until a child has ended, and leaves its end for others to find.
inline void wait_until_ended(std::uint64_t pid) {
  siginfo_t end;
  while (waitid(P_PID, static_cast<id_t>(pid), &end, WEXITED | WNOWAIT) == -1 && errno == EINTR) {
  }
}

// Whether this process has any child, ended or not.
inline bool has_children() {
  siginfo_t end;
  return waitid(P_ALL, 0, &end, WEXITED | WNOHANG | WNOWAIT) == 0 || errno != ECHILD;
}

inline std::set<int> open_descriptors() {
  std::set<int> open;
  DIR* const listing = opendir("/proc/self/fd");
  while (const dirent* const entry = readdir(listing)) {
    const std::string name = entry->d_name;
    int descriptor = -1;
    std::from_chars(name.data(), name.data() + name.size(), descriptor);
    if (descriptor >= 0 && descriptor != dirfd(listing)) {
      open.insert(descriptor);
    }
  }
  closedir(listing);
  return open;
}

// Fails the test when it leaves a child or a descriptor behind.
class ChildPlace : public ::testing::Test {
 protected:
  ChildPlace() { EXPECT_EQ(mkfifo(pipe().c_str(), 0600), 0); }
  void TearDown() override {
    EXPECT_FALSE(has_children());
    EXPECT_EQ(open_descriptors(), descriptors_);
  }

  // Where a child says that it is ready.
  std::filesystem::path pipe() const { return root_ / "pipe"; }
  void wait_until_ready() const {
    std::string word;
    std::ifstream(pipe()) >> word;
    EXPECT_EQ(word, "ready");
  }

  // Where a child describes itself.
  std::filesystem::path description() const { return root_ / "description"; }
  std::vector<std::string> describing() const { return {"describe", description()}; }
  // What the child said of one thing, in its order.
  std::vector<std::string> described(const std::string& thing) const {
    const std::string text = root_.read("description");
    const std::string label = thing + ": ";
    std::vector<std::string> found;
    for (std::size_t at = 0, end = 0; (end = text.find('\0', at)) != std::string::npos; at = end + 1) {
      const std::string line = text.substr(at, end - at);
      if (line.starts_with(label)) {
        found.push_back(line.substr(label.size()));
      }
    }
    return found;
  }
  bool was_run() const { return std::filesystem::exists(description()); }

  const TemporaryRoot root_;

 private:
  const std::set<int> descriptors_ = open_descriptors();
};

}  // namespace ravok::testing
