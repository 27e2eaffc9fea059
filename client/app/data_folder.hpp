// The one folder that holds a whole installation: its names, how a user's choice of it is judged, and who is
// using it.
#pragma once

#include <array>
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>

#include "app/brand.hpp"
#include "app/setup_callbacks.hpp"
#include "platform/complete_install.hpp"
#include "platform/native_lock.hpp"

namespace ravok {

// The places below a data folder, all absolute.
struct DataPaths {
  // `root` as data_folder returns it. Touches no file.
  explicit DataPaths(const std::filesystem::path& root);

  std::filesystem::path root;
  std::filesystem::path native;               // all that belongs to the native installation
  std::filesystem::path incomplete_marker;    // there while a commit has begun and not ended
  std::filesystem::path setup_lock;           // of setup operations
  std::filesystem::path bootstrap_lock;       // held by whoever runs from this folder
  std::filesystem::path installation_record;  // of a finished installation
  std::filesystem::path status_record;        // of the last setup operation
  std::filesystem::path bootstrap_directory;  // the unpacked bootstrap
  std::filesystem::path bootstrap_manifest;   // its snapshot manifest
  std::filesystem::path staging;              // of an install or repair; absent at rest
  std::filesystem::path launcher;             // the launcher store
  std::filesystem::path trust;                // of the repository
  std::filesystem::path repository_record;    // origin and CA bundle of the repository
  std::filesystem::path repository_ca;        // the CA bundle, where the package brought one
};

// The entries that mark a folder as an earlier data folder.
inline constexpr std::array<std::string_view, 4> ravok_entries = {"native", "launcher", "userdata", "settings.json"};
// Those of them that an uninstall keeps unless it is told otherwise.
inline constexpr std::array<std::string_view, 2> player_data = {"userdata", "settings.json"};

// Asks whether the running operation is to stop. The callbacks must outlive it.
class Cancellation {
 public:
  explicit Cancellation(const NativeSetupCallbacks& callbacks) : callbacks_(callbacks) {}
  // Fails with "cancelled" when it is.
  void check() const;

 private:
  const NativeSetupCallbacks& callbacks_;
};

// Returns a user's choice of a data folder in absolute, normal form; it need not exist. Fails with
// "unsafe_path" for a file system's root, a path with a separator at its end, and a link.
std::filesystem::path data_folder(const std::filesystem::path& path);

// Returns the folder of an installation that is not told another: the user's data root or, for a brand, a
// folder of its name beside it. Fails as user_data_root does.
std::filesystem::path default_install_folder(const std::optional<Brand>& brand);

// Whether `path` is `base` or lies below it, by the text alone.
bool within(const std::filesystem::path& path, const std::filesystem::path& base);

// Waits until nothing runs from the folder and returns the lock that keeps it so: that of the bootstrap, with
// no lease of a version held by anybody. Asks every 100 milliseconds, for at most `timeout`. Fails with
// "ravok_running", "cancelled", and as the locks do.
std::unique_ptr<NativeFileLock> wait_for_ravok_closed(const DataPaths& paths, std::chrono::milliseconds timeout,
                                                      const Cancellation& cancellation);

}  // namespace ravok
