// Publishing an initial package: one sealed directory from which a client can be installed without any network. The
// client's own reader has accepted every package that is published.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "app/install/native_package.hpp"
#include "platform/snapshot/progress.hpp"
#include "tuf/tuf_time.hpp"

namespace ravok {

// A product's own name, icon and theme.
struct BrandPublication {
  std::string name;
  std::string id;
  std::string publisher;
  std::filesystem::path icon;   // an .ico file, for Linux with a PNG image in it; empty for none
  std::filesystem::path theme;  // a directory with "theme.json" and the files that it names; empty for none
};

struct PackagePublication {
  std::filesystem::path output;              // the directory to make
  std::filesystem::path bootstrap_manifest;  // as publish_snapshot wrote it, with the archive beside it
  std::filesystem::path launcher_manifest;   // the same
  std::filesystem::path root;                // the repository's first root document
  std::string origin;                        // such as "https://updates.example.com"
  std::filesystem::path ca_bundle;           // PEM certificates; empty for the system's own trust
  std::optional<BrandPublication> brand;
  std::optional<FeaturedGame> featured_game;
};

struct PublishedPackage {
  std::filesystem::path directory;
  std::string seal;          // lower-case digest text of the descriptor
  std::uint64_t length = 0;  // bytes of all files
  TufTime root_expires;      // nobody can install the package from this time on
};

// Writes the package and reads it back whole; then the directory appears under its name. After a failure nothing is
// left behind. `progress`, which may be empty, is told of the bytes copied and then read back. Whatever the client
// would refuse in a single input is refused before the archives are copied, and so is what would only fail its users:
// an origin that nobody can reach, a CA bundle that is not one of certificates, an icon that no menu could show. Fails
// with "output_exists", "content_mismatch" for an archive that is not the one of its manifest, "file_read",
// "insufficient_space", "file_write", "file_sync", "cancelled", "invalid_ca_bundle", and as the readers of each input
// and read_native_package do ("invalid_json", "invalid_manifest", "invalid_theme", "invalid_origin",
// "expired_metadata"). A message about an input begins with that file's path.
PublishedPackage publish_package(const PackagePublication& publication, const ProgressCallback& progress);

}  // namespace ravok
