// Serves a repository that lies in a folder, for sample programs. Its reading is none of the calls that are spoilt
// where the folder lies elsewhere.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>

#include "transport/transport.hpp"
#include "tuf/tuf.hpp"

namespace ravok::testing {

class FolderTransport : public Transport {
 public:
  // The folder holds the folders "metadata" and "targets".
  explicit FolderTransport(std::filesystem::path folder) : folder_(std::move(folder)) {}

  TransportResponse get(std::string_view path, std::uint64_t) override {
    const std::filesystem::path file = folder_ / "metadata" / path;
    return std::filesystem::exists(file) ? TransportResponse{200, read(file)} : TransportResponse{404, {}};
  }
  // Writes the file as it is. Only what its receiver does with it is of interest.
  void download(std::string_view path, const std::filesystem::path& destination, std::uint64_t size,
                const ProgressCallback&) override {
    AllocatedFile file(destination, size, nullptr);
    file.write(read(folder_ / "targets" / path));
    file.finish(true);
  }
  bool supports_resumption() const override { return true; }
  void download_into(std::string_view path, AllocatedFile& file, std::uint64_t offset, const ProgressCallback&,
                     const std::function<void(std::string_view)>& on_bytes, const std::function<void()>&) override {
    constexpr std::size_t piece = 1000;
    const std::string content = read(folder_ / "targets" / path);
    for (std::size_t place = offset; place < content.size(); place += piece) {
      const std::string bytes = content.substr(place, piece);
      file.write(bytes);
      on_bytes(bytes);
    }
  }

 private:
  static std::string read(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  std::filesystem::path folder_;
};

// The bounds and the time with which sample programs read such a repository.
inline constexpr TufLimits sample_limits = {
    .root_bytes = 524'288, .timestamp_bytes = 65'536, .metadata_bytes = 65'536, .root_rotations = 1, .delegations = 1};
inline TufTime sample_time() { return parse_tuf_time("2030-01-01T00:00:00Z"); }

}  // namespace ravok::testing
