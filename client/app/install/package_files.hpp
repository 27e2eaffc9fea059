// The files of an initial package, wherever they lie: in a directory of their own, or behind the program of an
// installer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/install/appended_package.hpp"
#include "platform/snapshot/progress.hpp"

namespace ravok {

class PackageFiles {
 public:
  explicit PackageFiles(std::filesystem::path directory);
  explicit PackageFiles(std::shared_ptr<const AppendedPackage> appended);

  // Null for files in a directory.
  const std::shared_ptr<const AppendedPackage>& appended() const { return appended_; }

  // The directory, or the installer's file.
  const std::filesystem::path& place() const { return place_; }

  // Accepts an installer's file, and only a place that is itself a directory. Fails with "invalid_native_package".
  void require_place() const;

  // Returns a whole file of at most `limit` bytes. Fails as read_file does, and with "file_read" for a name that the
  // package does not have.
  std::string read(const std::string& name, std::uint64_t limit) const;

  // Returns the names of at most `limit` entries, whatever they are. Fails as names_in does.
  std::vector<std::string> names(std::size_t limit) const;

  // Returns the size of a plain file, in bytes, or nothing where the name is that of anything else.
  std::optional<std::uint64_t> size(const std::string& name) const;

  // Returns the SHA-256 of a file. Fails as digest_file_progress does.
  std::string sha256(const std::string& name, const ProgressCallback& progress) const;

 private:
  FileRange range(const std::string& name) const;

  std::filesystem::path place_;
  std::shared_ptr<const AppendedPackage> appended_;
};

}  // namespace ravok
