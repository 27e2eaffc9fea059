#include "app/install/data_folder.hpp"

#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/held_directory.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/status.hpp"

namespace ravok {
namespace {

constexpr std::chrono::milliseconds pause(100);

using Clock = std::chrono::steady_clock;

// How long one operation waits for others: until its deadline.
class Patience {
 public:
  Patience(std::chrono::milliseconds timeout, const Cancellation& cancellation)
      : deadline_(Clock::now() + timeout), cancellation_(cancellation) {}

  // Takes a lock as soon as nobody else holds it.
  template <typename Take>
  auto take(Take take_lock) const {
    for (;;) {
      try {
        return take_lock();
      } catch (const Error& error) {
        if (error.code != "busy") {
          throw;
        }
      }
      wait();
    }
  }

 private:
  void wait() const {
    require(Clock::now() < deadline_, "ravok_running",
            "Ravok or a game from this folder is still running; close it and try again");
    cancellation_.check();
    std::this_thread::sleep_for(pause);
  }

  Clock::time_point deadline_;
  const Cancellation& cancellation_;
};

// Returns the names of the leases of versions: none where their folder, or one above it, is missing or not a plain
// directory.
std::vector<std::string> lease_names(const DataPaths& paths) {
  const LauncherPaths launcher(paths.launcher);
  std::optional<HeldDirectory> directory = HeldDirectory::open(paths.root);
  try {
    for (const std::filesystem::path& folder : {launcher.store, launcher.leases}) {
      directory = directory->find_directory(name_of(folder));
      if (!directory) {
        return {};
      }
    }
  } catch (const Error&) {
    // A folder that may not be opened counts as one without leases.
    return {};
  }
  directory = directory->find_directory(name_of(launcher.version_leases));
  return directory ? directory->names() : std::vector<std::string>();
}

}  // namespace

void Cancellation::check() const {
  require(!callbacks_.cancelled || !callbacks_.cancelled(), "cancelled", "Setup was cancelled");
}

std::filesystem::path data_folder(const std::filesystem::path& path) {
  const std::string text = path_utf8(path);
  require(is_bounded_path_text(text), "unsafe_path", "Choose a data folder");
  std::filesystem::path root = std::filesystem::absolute(path).lexically_normal();
  require(root != root.root_path() && root.has_filename(), "unsafe_path",
          "The data folder cannot be a filesystem root");
  const auto status = link_status_of(root);
  require(!status || !is_link(*status), "unsafe_path", "The data folder cannot be a symbolic link");
  return root;
}

std::filesystem::path default_install_folder(const std::optional<Brand>& brand) {
  const std::filesystem::path root = user_data_root();
  return brand ? root.parent_path() / path_from_utf8(brand->name) : root;
}

std::string not_installed_in(const std::filesystem::path& root) {
  return "Ravok is not installed in " + path_utf8(root);
}

bool within(const std::filesystem::path& path, const std::filesystem::path& base) {
  const std::filesystem::path relative = path.lexically_relative(base);
  return !relative.empty() && *relative.begin() != "..";
}

std::unique_ptr<NativeFileLock> wait_for_ravok_closed(const DataPaths& paths, std::chrono::milliseconds timeout,
                                                      const Cancellation& cancellation) {
  const Patience patience(timeout, cancellation);
  auto lock = patience.take([&] {
    return std::make_unique<NativeFileLock>(paths.bootstrap_lock, true, NativeLockSharing::none, LockMode::exclusive);
  });
  const std::filesystem::path leases = LauncherPaths(paths.launcher).version_leases;
  for (const std::string& name : lease_names(paths)) {
    patience.take([&] { return FileLock(leases / name, false, LockMode::exclusive); });
  }
  return lock;
}

}  // namespace ravok
