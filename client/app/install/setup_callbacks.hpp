// How long operations of setup report their progress, and learn that the user wants them to stop.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

namespace ravok {

struct NativeSetupCallbacks {
  // Told the phase ("verifying", "installing" or "removing"; "menu" where a front end's game gets its shortcut), and
  // how much of how much is done. May be empty.
  std::function<void(std::string_view phase, std::uint64_t done, std::uint64_t total)> progress;
  // Answers true once the user has asked to stop. May be empty.
  std::function<bool()> cancelled;
};

}  // namespace ravok
