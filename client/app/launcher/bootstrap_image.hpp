// The installed bootstrap as a program: which data folder it belongs to, and the lock that it holds for as long as it
// runs, so that nobody replaces or removes what it uses.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>

#include "platform/file/native_lock.hpp"

namespace ravok {

// The variable that marks a bootstrap that is started only to learn whether it starts. Whatever its value, unless it is
// empty, the program ends with exit code 0 before it does anything.
inline constexpr std::string_view bootstrap_start_check_variable = "RAVOK_BOOTSTRAP_START_CHECK";

// Whether this process is such a start. Fails with "environment_limit" for a value beyond 8192 bytes.
bool is_bootstrap_start_check();

// Returns the data folder that an installed bootstrap belongs to, by the place of its image. Fails with "unsafe_path"
// for a path that is not absolute and normal, and with "native_install_trust" for an image in any other place.
std::filesystem::path installed_data_root(const std::filesystem::path& image);

// Whether the image is that of an installed bootstrap, by its place.
bool is_installed_bootstrap(const std::filesystem::path& image);

// Returns the lock of a running bootstrap, shared with others that run, for the data folder that the image belongs to.
// Fails as installed_data_root and bootstrap_lifetime_in do.
std::unique_ptr<NativeFileLock> bootstrap_lifetime(const std::filesystem::path& image);

// Returns that lock of a data folder. Waits at most 15 seconds for a setup or an update that holds it. Fails with
// "native_install_incomplete" for a folder whose setup has not ended, with "not_installed" for one from which the
// installation was removed meanwhile, with "busy" when the time is over, and as NativeFileLock does.
std::unique_ptr<NativeFileLock> bootstrap_lifetime_in(const std::filesystem::path& data_root);

// A bootstrap that runs, and the data folder that it runs on.
struct RunningBootstrap {
  std::filesystem::path data_root;
  std::unique_ptr<NativeFileLock> lifetime;        // of the data folder
  std::unique_ptr<NativeFileLock> image_lifetime;  // of the image's own data folder, where that is another one
};

// Takes the locks of a bootstrap for the data folder that the user has named, or else for the one that the image
// belongs to. A bootstrap that is installed nowhere runs on the named one alone. Fails with "not_installed" for a named
// folder without an installation, with "file_system" for one that the system cannot resolve, and as
// installed_data_root, ordinary_root and bootstrap_lifetime_in do.
RunningBootstrap run_bootstrap_in(const std::optional<std::filesystem::path>& data_dir,
                                  const std::filesystem::path& image);

}  // namespace ravok
