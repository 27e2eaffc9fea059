// A directory of a test's own, which ends with the test.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace ravok::testing {

class TemporaryRoot {
 public:
  // Makes the directory below `base`, by default where the system keeps temporary files.
  explicit TemporaryRoot(const std::filesystem::path& base = std::filesystem::temp_directory_path());
  ~TemporaryRoot();
  TemporaryRoot(const TemporaryRoot&) = delete;
  TemporaryRoot& operator=(const TemporaryRoot&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(std::string_view relative) const { return path_ / relative; }

  // Makes a file with this content, and the directories above it.
  std::filesystem::path write(std::string_view relative, std::string_view content) const;
  // Makes a directory, and those above it.
  std::filesystem::path directory(std::string_view relative) const;
  // The whole content of a file.
  std::string read(std::string_view relative) const;
  // The names below the root, sorted. A directory's ends in a slash, and a link's in "@".
  std::vector<std::string> names() const;

 private:
  std::filesystem::path path_;
};

// Whether the test runs as user 0.
bool is_root();

}  // namespace ravok::testing
