// A script that stands for an installer's program with a window where no window is wanted: it has the places for a seal
// and for a package, and can be started.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "app/install/package_seal.hpp"
#include "support/single_file.hpp"

namespace ravok::testing {

inline std::string window_program(std::string_view commands) {
  return "#!/bin/sh\n# " + std::string(package_seal_mark) + std::string(seal_characters, '-') + "\n# " +
         empty_appended_slot() + "\n" + std::string(commands) + "\nexit\n";
}

}  // namespace ravok::testing
