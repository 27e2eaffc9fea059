// An initial package as it was shipped, perhaps long ago: what its clients begin with, and until when.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "app/install/appended_package.hpp"
#include "platform/snapshot/progress.hpp"
#include "tuf/tuf_time.hpp"

namespace ravok {

struct ShippedPackage {
  std::filesystem::path directory;                            // or the file of an installer that carries it
  std::shared_ptr<const AppendedPackage> appended = nullptr;  // the package in that file; null for one in a directory
  std::string seal;                                           // lower-case digest text of the descriptor
  std::string platform;
  std::string origin;     // of the repository
  std::string ca_bundle;  // PEM; empty for the system's own trust
  std::string root_text;  // the repository's root document that is sealed in
  std::uint64_t root_version = 0;
  TufTime root_expires;  // no installation is possible from this time on
};

// Whether a path is that of an initial package, of the folder of an installer with a package in it, or of an installer
// in one file. Fails with "content_mismatch" for such an installer whose slot was damaged, and as read_file does.
bool is_shipped_package(const std::filesystem::path& path);

// Reads what a package's descriptor says, and the parts of it that are here, each proved against the descriptor. Every
// installer beside or before the package must be sealed for it. Fails with "invalid_native_package",
// "unsupported_schema", "content_mismatch"; with "native_install_trust" for an installer that is sealed for another
// package; and as read_file, AppendedPackage::in_file, parse_json and TrustedSet do for the documents.
ShippedPackage read_shipped_package(const std::filesystem::path& path);

// Proves the whole package as an installer of this platform does. `progress`, which may be empty, is told of the bytes
// read. Fails as read_native_package does.
void prove_shipped_package(const ShippedPackage& package, const ProgressCallback& progress);

}  // namespace ravok
