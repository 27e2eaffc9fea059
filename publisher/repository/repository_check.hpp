// What clients would meet in a signed repository at a given time: in a folder before it is uploaded, or on its server.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "app/download/installed_repository.hpp"
#include "platform/snapshot/progress.hpp"
#include "publisher/repository/release_manifest.hpp"
#include "publisher/repository/repository_walk.hpp"
#include "publisher/repository/served_files.hpp"
#include "tuf/tuf_time.hpp"

namespace ravok {

enum class CheckDepth {
  metadata,  // the signed documents
  quick,     // also the manifests, and of every other target that it is there and has its length
  whole,     // also every byte of every target
};

struct CheckOptions {
  std::string root_text;  // the root document that the clients have
  TufTime at;             // the time at which they come
  CheckDepth depth = CheckDepth::whole;
  TufLimits limits = installed_tuf_limits();
};

struct RepositoryCheck {
  TufTime at;
  CheckDepth depth = CheckDepth::whole;
  RepositoryWalk walk;             // with the problems and notices about targets too
  std::uint64_t target_files = 0;  // how many files the targets are, and their bytes
  std::uint64_t target_bytes = 0;
  std::vector<OfferedRelease> releases;
  bool is_listed = false;              // whether the files below were looked for: in a folder that was read to its end
  std::vector<ServedFile> superseded;  // metadata that newer versions have replaced
  std::vector<ServedFile> surplus;     // whatever else no client asks for

  // The role that expires first; null where no document was read.
  const WalkedRole* first_to_expire() const;

  // Whether a client that comes at the time of the check can work.
  bool works() const;
};

// Returns the folder that a server shows: that of a publisher's repository folder, or the folder itself. Fails with
// "unsafe_path" where there is no repository in it.
std::filesystem::path served_folder(const std::filesystem::path& directory);

// Returns the oldest root document that lies in a served folder. Fails with "missing_root" where there is none, with
// "size_limit" for one that is too long, and as FolderTransport does.
std::string first_root_in(const std::filesystem::path& served);

// Check a repository by going through it as a client does, and lastly by a client itself whose state lies in a
// temporary folder. What is wrong is told by the result; nothing is changed. `progress`, which may be empty, is told of
// the bytes of targets that were looked at. Fail with "cancelled", as FolderTransport and HttpsTransport do when they
// are made, and with what is_local_failure tells.
RepositoryCheck check_folder(const std::filesystem::path& served, const CheckOptions& options,
                             const ProgressCallback& progress);
// `origin` is that of a server. `ca_bundle` is a PEM file whose certificates alone are trusted, or empty for the
// system's own trust. Fails also as require_plain_origin does, and as read_file and require_certificates do for the
// file.
RepositoryCheck check_server(const std::string& origin, const std::filesystem::path& ca_bundle,
                             const CheckOptions& options, const ProgressCallback& progress);

}  // namespace ravok
