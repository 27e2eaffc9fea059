// A helper, and a client that becomes one, as processes of their own.
//
//   attach [ready|wait]...     attaches to a hand-over, says so, and takes these steps: says that it is ready; says
//                              "waiting" and waits for the end of its input
//   end CODE                   ends
//   hang                       never ends by itself
//   open                       attaches, says that it is ready, and never ends by itself
//   late FILE                  does as "open" once the file is there
//   replace IMAGE ARGUMENT...  hands over to the program by becoming it
//   tell FILE ARGUMENT...      writes into the file how it was started, and ends with 7

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include "app/maintenance/maintenance_runtime.hpp"
#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/json.hpp"

namespace {

using ravok::MaintenanceRuntime;
using Arguments = std::vector<std::string>;

void say(const std::string& line) {
  std::puts(line.c_str());
  std::fflush(stdout);
}

[[noreturn]] void hang() {
  for (;;) {
    pause();
  }
}

int attach(const Arguments& steps) {
  const std::unique_ptr<MaintenanceRuntime> runtime = MaintenanceRuntime::attach("maintenance", "0.1.0");
  say(runtime ? "attached" : "alone");
  for (const std::string& step : steps) {
    if (step == "ready") {
      runtime->report_ready();
    } else if (step == "wait") {
      say("waiting");
      while (std::getchar() != EOF) {
      }
    }
  }
  return 0;
}

int tell(const Arguments& arguments) {
  ravok::Json told = {{"directory", std::filesystem::current_path().native()},
                      {"arguments", Arguments(arguments.begin() + 1, arguments.end())},
                      {"environment", ravok::Json::object()}};
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string text = *variable;
    const std::size_t end = text.find('=');
    told["environment"][text.substr(0, end)] = text.substr(end + 1);
  }
  std::ofstream(arguments.at(0), std::ios::binary) << told.dump();
  return 7;
}

int run(const std::string& command, const Arguments& arguments) {
  if (command == "attach") {
    return attach(arguments);
  }
  if (command == "open" || command == "late") {
    while (command == "late" && !std::filesystem::exists(arguments.at(0))) {
      usleep(1000);
    }
    MaintenanceRuntime::attach("maintenance-gui", "0.1.0")->report_ready();
    hang();
  }
  if (command == "replace") {
    MaintenanceRuntime(arguments.at(0)).replace(Arguments(arguments.begin() + 1, arguments.end()));
  }
  if (command == "tell") {
    return tell(arguments);
  }
  if (command == "end") {
    return std::stoi(arguments.at(0));
  }
  hang();
}

}  // namespace

int main(int argc, char** argv) {
  try {
    ravok::initialize_client_runtime();
    const Arguments all(argv + 1, argv + argc);
    return run(all.at(0), Arguments(all.begin() + 1, all.end()));
  } catch (const ravok::Error& error) {
    say(error.code + ": " + error.what());
    return 1;
  }
}
