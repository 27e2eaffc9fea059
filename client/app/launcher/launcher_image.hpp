// Which installed version a program's file belongs to, by where it lies.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace ravok {

// A version of the launcher, and the data root of the store that holds it.
struct ManagedVersion {
  std::filesystem::path root;
  std::string manifest_sha256;
};

// Fails with "launcher_staging" for a program in a store's staging area, which is not installed yet; as
// require_maintenance_runtime_image ("maintenance_copy") and require_complete_native_install_image
// ("native_install_incomplete") do; and with "unsafe_path" or "launcher_identity" for one below more than 256 folders.
void reject_staged_image(const std::filesystem::path& image);

// Returns the version whose folder the program lies below, or nothing where there is none. Fails with "launcher_state"
// for a folder of 64 characters in a version's place that are no SHA-256, and with "launcher_identity" for a program
// below more than 256 folders.
std::optional<ManagedVersion> managed_version(const std::filesystem::path& image);

// Whether both paths lead to one folder, which is there. Two written forms of a data root may do that.
bool is_same_folder(const std::filesystem::path& first, const std::filesystem::path& second);

}  // namespace ravok
