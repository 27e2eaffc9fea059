// A small program that sets a data folder up as the installer does. A refusal is printed as "CODE: MESSAGE" and ends it
// with code 1.
//
//   sample_setup install DATA PACKAGE SEAL
//   sample_setup repair DATA PACKAGE SEAL
//   sample_setup uninstall DATA             keeps the player's data
//   sample_setup remove DATA                removes the player's data too
//   sample_setup cancel DATA PACKAGE SEAL   installs until nearly everything is prepared and is then told to stop;
//                                           ends with 0 if it does
//   sample_setup fail DATA PACKAGE SEAL     installs until everything is prepared and then finds a part of that gone;
//                                           ends with 0 if it tells

#include <chrono>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "app/install/native_install.hpp"
#include "domain/data_layout.hpp"
#include "domain/error.hpp"

namespace ravok {
namespace {

NativeSetupCallbacks told_to_stop_at_the_end(std::uint64_t& phases_ended) {
  NativeSetupCallbacks callbacks;
  callbacks.progress = [&](std::string_view phase, std::uint64_t done, std::uint64_t total) {
    if (phase == "installing" && done == total) {
      ++phases_ended;
    }
  };
  callbacks.cancelled = [&] { return phases_ended > 0; };
  return callbacks;
}

int fail(const NativeInstallRequest& request, const std::string& seal) {
  const std::filesystem::path last_prepared = StagingPaths(DataPaths(request.data_root).staging).trust;
  NativeSetupCallbacks callbacks;
  // What is asked behind the last preparation is asked right before the commit, which moves that last.
  callbacks.cancelled = [&] {
    std::error_code problem;
    std::filesystem::remove_all(last_prepared, problem);
    require(!problem, "file_remove", "Cannot remove what was prepared");
    return false;
  };
  try {
    NativeInstaller::install(request, seal, callbacks);
  } catch (const Error& error) {
    if (error.code == "file_write") {
      return 0;
    }
    throw;
  }
  return 4;
}

int cancel(const NativeInstallRequest& request, const std::string& seal) {
  std::uint64_t phases_ended = 0;
  try {
    NativeInstaller::install(request, seal, told_to_stop_at_the_end(phases_ended));
  } catch (const Error& error) {
    if (error.code == "cancelled") {
      return 0;
    }
    throw;
  }
  return 4;
}

int run(const std::vector<std::string>& arguments) {
  const std::string action = arguments.empty() ? "" : arguments[0];
  if (arguments.size() == 4) {
    const NativeInstallRequest request = {arguments[2], arguments[1], action == "repair", true};
    if (action == "cancel") {
      return cancel(request, arguments[3]);
    }
    if (action == "fail") {
      return fail(request, arguments[3]);
    }
    NativeInstaller::install(request, arguments[3], {});
  } else if (arguments.size() == 2) {
    NativeInstaller::uninstall({arguments[1], action == "remove", std::chrono::milliseconds(0)}, {});
  } else {
    return 64;
  }
  return 0;
}

}  // namespace
}  // namespace ravok

int main(int argc, char** argv) {
  try {
    return ravok::run({argv + 1, argv + argc});
  } catch (const ravok::Error& error) {
    std::cerr << error.code << ": " << error.what() << '\n';
    return 1;
  } catch (const std::exception& error) {
    std::cerr << "not an Error: " << error.what() << '\n';
    return 3;
  }
}
