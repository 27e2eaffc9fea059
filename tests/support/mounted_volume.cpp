#include "support/mounted_volume.hpp"

#include <cstdlib>

#include <sys/mount.h>

namespace ravok::testing {

MountedVolume::MountedVolume(const std::filesystem::path& directory, const std::string& kind,
                             const std::string& options, const std::filesystem::path& image)
    : directory_(directory) {
  if (image.empty()) {
    mounted_ = mount(kind.c_str(), directory.c_str(), kind.c_str(), 0, options.c_str()) == 0;
  } else {
    // The system's own command sets up the loop device.
    mounted_ = run_quietly("mount -t " + kind + " -o loop" + (options.empty() ? "" : "," + options) + " '" +
                           image.string() + "' '" + directory.string() + "'");
  }
}

MountedVolume::~MountedVolume() {
  if (mounted_) {
    umount2(directory_.c_str(), MNT_DETACH);
  }
}

bool MountedVolume::remount(const std::string& options) const {
  return mounted_ && mount(nullptr, directory_.c_str(), nullptr, MS_REMOUNT, options.c_str()) == 0;
}

bool run_quietly(const std::string& command) { return std::system((command + " >/dev/null 2>&1").c_str()) == 0; }

}  // namespace ravok::testing
