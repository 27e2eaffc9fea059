// The least that unpacking an archive takes, for yardsticks; and content to pack.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zstd.h>

#include "bare_digest.hpp"
#include "domain/manifest.hpp"

namespace ravok::benchmarks {

// Writes content of which about a half compresses away.
inline void write_content(const std::filesystem::path& path, std::uint64_t length, std::uint32_t seed) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary);
  std::uint32_t state = seed * 2654435761u + 1;
  std::string piece(4096, '\0');
  for (std::uint64_t written = 0; written < length; written += piece.size()) {
    for (std::size_t i = 0; i < piece.size(); i += 2) {
      state = state * 1664525u + 1013904223u;
      piece[i] = static_cast<char>(state >> 24);
    }
    file.write(piece.data(), static_cast<std::streamsize>(piece.size()));
  }
  file.close();
  check(file.good() && chmod(path.c_str(), 0644) == 0);
}

// Returns the paths of the files of a manifest below a root.
inline std::vector<std::string> file_paths(const SnapshotManifest& manifest, const std::filesystem::path& root) {
  std::vector<std::string> paths;
  for (const auto& [path, file] : manifest.files) {
    paths.push_back(root / path);
  }
  return paths;
}

// The bytes of an archive's only frame, decoded as they are asked for.
class BareDecoder {
 public:
  explicit BareDecoder(const std::filesystem::path& archive) : file_(open(archive.c_str(), O_RDONLY | O_CLOEXEC)) {}
  ~BareDecoder() { close(file_); }
  BareDecoder(const BareDecoder&) = delete;
  BareDecoder& operator=(const BareDecoder&) = delete;

  // Returns at most `most` of the next bytes.
  std::string_view next(std::size_t most) {
    while (taken_ == decoded_) {
      if (input_.pos == input_.size) {
        const ssize_t count = read(file_, in_.data(), in_.size());
        check(count > 0);
        input_ = {in_.data(), static_cast<std::size_t>(count), 0};
      }
      ZSTD_outBuffer output = {out_.data(), out_.size(), 0};
      check(ZSTD_isError(ZSTD_decompressStream(context_.get(), &output, &input_)) == 0);
      taken_ = 0;
      decoded_ = output.pos;
    }
    const std::size_t size = std::min(most, decoded_ - taken_);
    taken_ += size;
    return {out_.data() + taken_ - size, size};
  }

  void take(char* bytes, std::size_t size) {
    while (size > 0) {
      const std::string_view piece = next(size);
      piece.copy(bytes, piece.size());
      bytes += piece.size();
      size -= piece.size();
    }
  }

 private:
  struct Release {
    void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
  };
  int file_;
  std::unique_ptr<ZSTD_DCtx, Release> context_{ZSTD_createDCtx()};
  std::vector<char> in_ = std::vector<char>(piece_bytes);
  std::vector<char> out_ = std::vector<char>(piece_bytes);
  ZSTD_inBuffer input_ = {nullptr, 0, 0};
  std::size_t taken_ = 0;
  std::size_t decoded_ = 0;
};

inline void write_whole(int file, std::string_view bytes) {
  check(write(file, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
}

// Does only what cannot be left out: digests and decodes the archive, writes and flushes each file, and digests it
// twice.
inline void extract_bare(const std::filesystem::path& archive, const std::filesystem::path& staging,
                         const std::vector<std::string>& files, BareDigest& digest) {
  digest.file(archive.c_str());
  BareDecoder decoder(archive);
  check(mkdir(staging.c_str(), 0700) == 0);
  std::array<char, 512> header;
  for (;;) {
    decoder.take(header.data(), header.size());
    if (header[0] == '\0') {
      break;
    }
    const std::filesystem::path path = staging / header.data();
    std::uint64_t left = std::strtoull(std::string(header.data() + 124, 12).c_str(), nullptr, 8);
    const std::uint64_t padding = (512 - left % 512) % 512;
    if (mkdir(path.parent_path().c_str(), 0700) != 0) {
      std::filesystem::create_directories(path.parent_path());
    }
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    while (left > 0) {
      const std::string_view bytes = decoder.next(std::min<std::uint64_t>(left, piece_bytes));
      write_whole(file, bytes);
      left -= bytes.size();
    }
    check(fsync(file) == 0 && close(file) == 0);
    digest.file(path.c_str());
    decoder.take(header.data(), padding);
  }
  for (const std::string& path : files) {
    digest.file(path.c_str());
  }
}

}  // namespace ravok::benchmarks
