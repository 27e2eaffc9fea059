// Another working directory for a part of a test.
#pragma once

#include <filesystem>
#include <system_error>

namespace ravok::testing {

// Makes the directory the working one for as long as the object lives.
class WorkingDirectory {
 public:
  explicit WorkingDirectory(const std::filesystem::path& path) : before_(std::filesystem::current_path()) {
    std::filesystem::current_path(path);
  }
  ~WorkingDirectory() {
    std::error_code ignored;
    std::filesystem::current_path(before_, ignored);
  }
  WorkingDirectory(const WorkingDirectory&) = delete;
  WorkingDirectory& operator=(const WorkingDirectory&) = delete;

 private:
  std::filesystem::path before_;
};

}  // namespace ravok::testing
