// A private folder for what is needed for a while.
#pragma once

#include <filesystem>

namespace ravok {

// A new folder where the system keeps temporary files, which only this user may enter. Removed with all that it holds
// when the object goes.
class TemporaryFolder {
 public:
  // Fails as private_directory_new does, and with "file_system" where the system names no such place.
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace ravok
