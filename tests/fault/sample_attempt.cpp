// A small bootstrap that runs the waiting candidate as the client's does. What it says first is "none" when it has run
// none, and otherwise the candidate's exit code. A refusal is printed as "CODE: MESSAGE" and ends it with code 1.
//
//   sample_attempt ROOT
//
// It makes the same calls each time: it looks for the candidate's word only once that is there or the candidate has
// ended, and asks the candidate to stop once it is the active version.

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "app/launcher/launcher_attempt.hpp"
#include "app/launcher/launcher_store.hpp"
#include "domain/data_layout.hpp"
#include "domain/launcher_contract.hpp"
#include "sample_main.hpp"
#include "support/patient_start.hpp"

namespace ravok {
namespace {

// Not by a function of the C library, whose calls would be counted, and are as many as the candidate is slow.
bool is_there(const std::filesystem::path& path) {
  struct stat status;
  return syscall(SYS_newfstatat, AT_FDCWD, path.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

LauncherChild start_and_wait(const LauncherProgram& program) {
  const LauncherChild child = testing::start_to_be_ended(program);
  const std::string& root = program.environment.at(std::string(startup_variable::data_root));
  const std::string& nonce = program.environment.at(std::string(startup_variable::health_nonce));
  const std::filesystem::path health = LauncherPaths(DataPaths(root).launcher).attempt_health(nonce);
  while (!is_there(health) && !child.poll()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return child;
}

int run(const std::vector<std::string>& arguments) {
  if (arguments.size() != 1) {
    return 64;
  }
  const LauncherStore store(arguments[0]);
  int looks = 0;
  const LauncherStart start = {"cli", {}, std::chrono::milliseconds(30'000), [&] { return ++looks > 1; }};
  const std::optional<int> code = run_launcher_attempt(store, start, start_and_wait);
  std::puts(code ? std::to_string(*code).c_str() : "none");
  return 0;
}

}  // namespace
}  // namespace ravok

int main(int argc, char** argv) { return ravok::testing::sample_main(argc, argv, ravok::run); }
