// The one folder that holds a whole installation: how a user's choice of it is judged, and who is using it. The names
// below it are those of data_layout.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>

#include "app/brand/brand.hpp"
#include "app/install/setup_callbacks.hpp"
#include "domain/data_layout.hpp"
#include "platform/file/native_lock.hpp"

namespace ravok {

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
