// An installer in one file, as ravok-publish writes it, for tests of those who read it.
#pragma once

#include <algorithm>
#include <filesystem>
#include <string>

#include "app/install/appended_package.hpp"
#include "publisher/publish_files.hpp"
#include "publisher/single_file_installer.hpp"

namespace ravok::testing {

// A slot as the compiler leaves it.
inline std::string empty_appended_slot() {
  return std::string(appended_package_mark) + std::string(appended_place_characters, '-');
}

// Writes bytes that stand for a program, and the package in a directory behind them. Returns where it lies.
inline AppendedPlace write_single_file(const std::filesystem::path& package, const std::filesystem::path& installer) {
  OutputFile output(installer);
  const AppendedPlace place =
      write_single_file_installer("image " + empty_appended_slot() + " end", package, output, {});
  output.commit();
  output.keep();
  return place;
}

}  // namespace ravok::testing
