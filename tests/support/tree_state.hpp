// Everything below a folder, so that a test can show that it has stayed the same byte for byte.
#pragma once

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>

#include "platform/file/status.hpp"

namespace ravok::testing {

// The paths below the folder, each with its kind and mode, and with a file's bytes or a link's target.
using TreeState = std::map<std::string, std::string>;

inline TreeState tree_state(const std::filesystem::path& root) {
  TreeState state;
  std::error_code missing;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root, missing)) {
    const auto status = link_status_of(entry.path());
    std::ostringstream node;
    node << std::oct << (status ? status->permissions : 0);
    if (entry.is_symlink()) {
      node.str("link " + std::filesystem::read_symlink(entry.path()).native());
    } else if (entry.is_directory()) {
      node << " directory";
    } else if (entry.is_regular_file()) {
      std::ifstream file(entry.path(), std::ios::binary);
      node << " file " << file.rdbuf();
    }
    state.emplace(entry.path().lexically_relative(root).native(), node.str());
  }
  return state;
}

// Returns the state without these paths and what lies below them.
inline TreeState without(TreeState state, const std::vector<std::string>& paths) {
  std::erase_if(state, [&](const auto& node) {
    for (const std::string& path : paths) {
      if (node.first == path || node.first.starts_with(path + "/")) {
        return true;
      }
    }
    return false;
  });
  return state;
}

// Returns only this path and what lies below it.
inline TreeState only(TreeState state, const std::string& path) {
  std::erase_if(state, [&](const auto& node) { return node.first != path && !node.first.starts_with(path + "/"); });
  return state;
}

// Succeeds when both states are the same, and otherwise names what differs.
inline ::testing::AssertionResult same_tree(const TreeState& actual, const TreeState& expected) {
  std::string differences;
  const auto look = [&](const TreeState& first, const TreeState& second, const char* words) {
    for (const auto& [path, node] : first) {
      const auto other = second.find(path);
      if (other == second.end() || other->second != node) {
        differences += "\n" + std::string(words) + path + ": " + node.substr(0, 200);
      }
    }
  };
  look(actual, expected, "is       ");
  look(expected, actual, "expected ");
  return differences.empty() ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << differences;
}

}  // namespace ravok::testing
