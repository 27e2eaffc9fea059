// Builds snapshot manifests for tests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "domain/json.hpp"

namespace ravok::testing {

struct ManifestFile {
  std::string path;
  std::uint64_t length = 1;
  int mode = 0644;
  std::string sha256 = std::string(64, 'a');
};

// A valid document that names these files and, before them, the executable "bin/program" of 10
// bytes.
inline Json manifest_document(const std::vector<ManifestFile>& files = {}) {
  Json list = Json::array();
  std::uint64_t total = 0;
  const auto add = [&](const ManifestFile& file) {
    list.push_back({{"path", file.path}, {"length", file.length}, {"mode", file.mode}, {"sha256", file.sha256}});
    total += file.length;
  };
  add({"bin/program", 10, 0755});
  for (const ManifestFile& file : files) {
    add(file);
  }
  return {{"schema_version", 1},
          {"build_id", "build-1"},
          {"platform", "linux-x86_64"},
          {"executable", "bin/program"},
          {"archive",
           {{"format", "tar.zst-v1"},
            {"target", "builds/build-1.tar.zst"},
            {"length", 100},
            {"sha256", std::string(64, 'b')},
            {"expanded_length", total}}},
          {"files", list}};
}

}  // namespace ravok::testing
