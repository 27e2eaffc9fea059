#include "app/launcher/bootstrap_image.hpp"

#include <chrono>
#include <optional>
#include <thread>

#include "app/install/data_folder.hpp"
#include "app/install/system_failures.hpp"
#include "app/launcher/launcher_store.hpp"
#include "domain/bootstrap_contract.hpp"
#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/process/process.hpp"
#include "platform/snapshot/complete_install.hpp"

namespace ravok {
namespace {

constexpr std::chrono::seconds lifetime_patience(15);
constexpr std::chrono::milliseconds lifetime_pause(20);

// Returns the path without this tail, or nothing where it ends otherwise.
std::optional<std::filesystem::path> without_tail(std::filesystem::path path, const std::filesystem::path& tail) {
  for (auto part = tail.end(); part != tail.begin();) {
    --part;
    if (path.filename() != *part) {
      return std::nullopt;
    }
    path = path.parent_path();
  }
  return path;
}

// Returns the data folder that the image belongs to, or nothing for one that is installed nowhere.
std::optional<std::filesystem::path> find_data_root(const std::filesystem::path& image) {
  for (const std::string_view entry : bootstrap_entries) {
    std::optional<std::filesystem::path> root = without_tail(image, DataPaths({}).bootstrap_directory / entry);
    if (root) {
      return root;
    }
  }
  return std::nullopt;
}

}  // namespace

bool is_bootstrap_start_check() {
  return !process_environment(bootstrap_start_check_variable, maximum_environment_bytes).value_or("").empty();
}

std::filesystem::path installed_data_root(const std::filesystem::path& image) {
  // As paths, two that differ only in repeated separators are equal.
  require(image.is_absolute() && image.native() == image.lexically_normal().native(), "unsafe_path",
          "Bootstrap image path must be absolute and normalized");
  std::optional<std::filesystem::path> root = find_data_root(image);
  require(root.has_value(), "native_install_trust", "Unknown installed bootstrap entry");
  return *std::move(root);
}

bool is_installed_bootstrap(const std::filesystem::path& image) { return find_data_root(image).has_value(); }

std::unique_ptr<NativeFileLock> bootstrap_lifetime(const std::filesystem::path& image) {
  return bootstrap_lifetime_in(installed_data_root(image));
}

std::unique_ptr<NativeFileLock> bootstrap_lifetime_in(const std::filesystem::path& data_root) {
  require_complete_native_install(data_root);
  const std::filesystem::path path = DataPaths(data_root).bootstrap_lock;
  const auto deadline = std::chrono::steady_clock::now() + lifetime_patience;
  for (bool was_busy = false;; was_busy = true) {
    try {
      // A lock that somebody held is not made again. An uninstall removes its file in the end, and the folder with it.
      auto lock = std::make_unique<NativeFileLock>(path, !was_busy, NativeLockSharing::others, LockMode::shared);
      // The setup that held the lock may have been killed.
      require_complete_native_install(data_root);
      return lock;
    } catch (const Error& error) {
      require(!was_busy || is_there(path), "not_installed", not_installed_in(data_root));
      if (error.code != "busy" || std::chrono::steady_clock::now() >= deadline) {
        throw;
      }
    }
    std::this_thread::sleep_for(lifetime_pause);
  }
}

RunningBootstrap run_bootstrap_in(const std::optional<std::filesystem::path>& data_dir,
                                  const std::filesystem::path& image) {
  RunningBootstrap bootstrap;
  if (!data_dir) {
    bootstrap.data_root = installed_data_root(image);
  } else {
    bootstrap.data_root = with_system_failures([&] { return ordinary_root(*data_dir); });
    const DataPaths paths(bootstrap.data_root);
    // A lock makes its file, which belongs into no other folder.
    require(is_there(paths.native) || is_there(paths.launcher), "not_installed", not_installed_in(paths.root));
    const std::optional<std::filesystem::path> own_root = find_data_root(image);
    if (own_root && *own_root != bootstrap.data_root) {
      bootstrap.image_lifetime = bootstrap_lifetime_in(*own_root);
    }
  }
  bootstrap.lifetime = bootstrap_lifetime_in(bootstrap.data_root);
  return bootstrap;
}

}  // namespace ravok
