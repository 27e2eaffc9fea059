// A chain of directories, each in the one before, so deep that no path can name the last.
#pragma once

#include <filesystem>
#include <stdexcept>

#include <fcntl.h>
#include <sys/stat.h>

#include "platform/file/handle.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/tree_removal.hpp"

namespace ravok::testing {

class DeepTree {
 public:
  static constexpr const char* name = "d";
  static constexpr int walk_flags = O_RDONLY | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC;

  // Makes the chain in a directory, with a file in the last.
  DeepTree(const std::filesystem::path& root, int levels) : root_(open(root.c_str(), walk_flags)) {
    Handle last(openat(root_.get(), ".", walk_flags));
    for (int i = 0; i < levels; ++i) {
      if (mkdirat(last.get(), name, 0700) != 0) {
        throw std::runtime_error("Cannot make a deep tree for a test");
      }
      last = Handle(openat(last.get(), name, walk_flags));
    }
    if (!Handle(openat(last.get(), "file", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600))) {
      throw std::runtime_error("Cannot make a deep tree for a test");
    }
  }
  // The standard library could not remove what is left.
  ~DeepTree() { remove_tree_quietly_at(root_.get(), name); }
  DeepTree(const DeepTree&) = delete;
  DeepTree& operator=(const DeepTree&) = delete;

 private:
  Handle root_;
};

}  // namespace ravok::testing
