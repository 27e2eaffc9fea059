// A small launcher, for the entry of a version: attaches, says that it is ready, and runs until its bootstrap asks it
// to stop or is gone. A refusal is printed as "CODE: MESSAGE" and ends it with code 1.
//
//   sample_candidate --data-dir ROOT

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "app/launcher/launcher_runtime.hpp"
#include "domain/crypto.hpp"
#include "platform/process/interrupt.hpp"
#include "sample_main.hpp"

namespace ravok {
namespace {

int run(const std::vector<std::string>& arguments) {
  const pid_t bootstrap = getppid();
  initialize_client_runtime();
  const ConsoleInterrupt interrupt(true);
  const std::unique_ptr<LauncherRuntime> runtime = LauncherRuntime::attach("new", "cli", arguments.at(1));
  report_launcher_health(runtime.get());
  while (getppid() == bootstrap && !interrupt.requested()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return 0;
}

}  // namespace
}  // namespace ravok

int main(int argc, char** argv) { return ravok::testing::sample_main(argc, argv, ravok::run); }
