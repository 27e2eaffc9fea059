// Builds whole snapshots for tests: an archive on the disk and the manifest that names it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "domain/crypto.hpp"
#include "domain/manifest.hpp"
#include "support/manifest_builder.hpp"
#include "support/tar_builder.hpp"
#include "support/temporary_root.hpp"

namespace ravok::testing {

// A file of a snapshot, of mode 0644 or 0755.
struct SampleFile {
  std::string path;
  std::string content = {};
  unsigned mode = 0644;
};

// Bytes without a pattern, which do not compress.
inline std::string noise(std::size_t size, std::uint32_t seed = 1) {
  std::string bytes(size, '\0');
  for (char& byte : bytes) {
    seed = seed * 1664525u + 1013904223u;
    byte = static_cast<char>(seed >> 24);
  }
  return bytes;
}

// The members of these files as an archiver would write them.
inline std::vector<TarMember> members_of(const std::vector<SampleFile>& files) {
  std::vector<TarMember> members;
  for (const SampleFile& file : files) {
    members.push_back({.path = file.path, .content = file.content, .mode = file.mode});
  }
  return members;
}

// The manifest of these files, the first of which must be executable, in this archive.
inline SnapshotManifest manifest_of(const std::vector<SampleFile>& files, std::string_view archive) {
  Json list = Json::array();
  std::uint64_t total = 0;
  for (const SampleFile& file : files) {
    list.push_back({{"path", file.path},
                    {"length", file.content.size()},
                    {"mode", file.mode},
                    {"sha256", digest(file.content, "sha256")}});
    total += file.content.size();
  }
  Json document = manifest_document();
  document["executable"] = files.at(0).path;
  document["files"] = list;
  document["archive"]["length"] = archive.size();
  document["archive"]["sha256"] = digest(archive, "sha256");
  document["archive"]["expanded_length"] = total;
  return SnapshotManifest::parse(document);
}

struct Sample {
  SnapshotManifest manifest;
  std::filesystem::path archive;
};

// Writes the archive, whatever it holds, and returns the manifest that has exactly these files.
inline Sample write_sample(const TemporaryRoot& root, const std::vector<SampleFile>& files, std::string_view archive) {
  return {manifest_of(files, archive), root.write("archive", archive)};
}

// The same for a tar archive, in one frame.
inline Sample write_tar_sample(const TemporaryRoot& root, const std::vector<SampleFile>& files, std::string_view tar) {
  return write_sample(root, files, zstd_frame(tar));
}

}  // namespace ravok::testing
