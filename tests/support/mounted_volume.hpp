// A small volume of a test's own, mounted for as long as it lives.
#pragma once

#include <filesystem>
#include <string>

namespace ravok::testing {

class MountedVolume {
 public:
  // Mounts an image file at a directory. An empty image stands for a volume of a kind that needs none, such as "tmpfs".
  MountedVolume(const std::filesystem::path& directory, const std::string& kind, const std::string& options,
                const std::filesystem::path& image = {});
  ~MountedVolume();
  MountedVolume(const MountedVolume&) = delete;
  MountedVolume& operator=(const MountedVolume&) = delete;

  // Whether the volume could be mounted. Only user 0 can do that, and only where the system allows it.
  bool mounted() const { return mounted_; }

  // Mounts the volume with other options, such as another size, and keeps what it holds. Returns whether that
  // succeeded.
  bool remount(const std::string& options) const;

 private:
  std::filesystem::path directory_;
  bool mounted_ = false;
};

// Runs a shell command quietly and returns whether it succeeded.
bool run_quietly(const std::string& command);

}  // namespace ravok::testing
