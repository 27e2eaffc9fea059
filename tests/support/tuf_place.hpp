// A repository, a client's trusted directory, and a client that is started anew as often as a test wants it.
#pragma once

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "platform/file/posix_files.hpp"
#include "support/fast_volume.hpp"
#include "support/temporary_root.hpp"
#include "support/tuf_repository.hpp"
#include "tuf/tuf.hpp"

namespace ravok::testing {

// The names of files and their bytes.
using StoredFiles = std::map<std::string, std::string>;

// The repository is published by `begin`, so that a test can shape its first documents.
struct TufPlace {
  TufPlace() { private_directory(directory); }

  // Publishes, and gives the directory its first root.
  void begin() {
    repository.publish();
    TufClient::initialize(directory, repository.root_text());
  }

  std::unique_ptr<TufClient> client() {
    return std::make_unique<TufClient>(directory, transport, transport, limits, [this] {
      ++clock_reads;
      return now;
    });
  }

  // A client of its own for one refresh.
  void refresh() { client()->refresh(); }

  // What the directory holds but for its lock. Something that is no file stands there as its kind.
  StoredFiles stored() const {
    StoredFiles files;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
      const std::string name = entry.path().filename().native();
      const auto type = entry.symlink_status().type();
      if (type == std::filesystem::file_type::regular) {
        std::ostringstream bytes;
        bytes << std::ifstream(entry.path(), std::ios::binary).rdbuf();
        files[name] = bytes.str();
      } else {
        files[name] = type == std::filesystem::file_type::directory ? "<directory>" : "<special>";
      }
    }
    files.erase(".lock");
    return files;
  }

  // The file of a delegated role.
  static std::string delegated_file(const std::string& role) { return TufClient::role_cache("/", role).filename(); }

  TemporaryRoot root{fast_volume()};
  const std::filesystem::path directory = root / "data/trust";
  TufRepository repository;
  RepositoryTransport transport{repository};
  TufLimits limits = {.root_bytes = 524'288,
                      .timestamp_bytes = 65'536,
                      .metadata_bytes = 1'048'576,
                      .root_rotations = 8,
                      .delegations = 32};
  TufTime now = parse_tuf_time("2030-01-01T00:00:00Z");
  int clock_reads = 0;
};

}  // namespace ravok::testing
