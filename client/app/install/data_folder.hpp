// The one folder that holds a whole installation: how a user's choice of it is judged, and who is using it. The names
// below it are those of data_layout.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "app/brand/brand.hpp"
#include "app/install/setup_callbacks.hpp"
#include "domain/data_layout.hpp"
#include "platform/file/native_lock.hpp"

namespace ravok {

// Asks whether the user wants the running operation to stop. The callbacks must outlive the object.
class Cancellation {
 public:
  explicit Cancellation(const NativeSetupCallbacks& callbacks) : callbacks_(callbacks) {}
  // Fails with "cancelled" when the user wants that.
  void check() const;

 private:
  const NativeSetupCallbacks& callbacks_;
};

// Returns a user's choice of a data folder in absolute, normal form; it need not exist. Fails with "unsafe_path" for an
// empty or too long path, a file system's root, a path with a separator at its end, and a link.
std::filesystem::path data_folder(const std::filesystem::path& path);

// Returns the folder of an installation for which the user names no other: the user's data root or, for a brand, a
// folder of its name beside it. Fails with "user_path" as user_data_root does.
std::filesystem::path default_install_folder(const std::optional<Brand>& brand);

// Returns the message for a folder that holds no installation.
std::string not_installed_in(const std::filesystem::path& root);

// Whether `path` is `base` or lies below it, by the text alone.
bool within(const std::filesystem::path& path, const std::filesystem::path& base);

// Waits until nothing runs from the folder, which is when nobody holds the lock of the bootstrap or the lease of a
// version. Returns the lock of the bootstrap, which keeps it so. Asks every 100 milliseconds, for at most `timeout`.
// Fails with "ravok_running" when the time is over, with "cancelled", and as NativeFileLock and FileLock do for a lock
// that cannot be used ("lock_failed").
std::unique_ptr<NativeFileLock> wait_for_ravok_closed(const DataPaths& paths, std::chrono::milliseconds timeout,
                                                      const Cancellation& cancellation);

}  // namespace ravok
