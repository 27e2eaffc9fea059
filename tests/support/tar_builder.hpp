// Builds tar archives byte by byte, including some that no archiver would write, and Zstandard frames around them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ravok::testing {

// One member of an archive as its header describes it.
struct TarMember {
  std::string path;  // at most 100 bytes
  std::string content = {};
  unsigned mode = 0644;
  char type = '0';
  std::string link_target = {};
  // The size that the header gives, where that is not the size of the content.
  std::optional<std::int64_t> size = {};
  // Records of an extended header before the member's own.
  std::vector<std::pair<std::string, std::string>> extended = {};
  // Put the path, or the link's target, into a member of its own before this one, as GNU tar does for a long one.
  bool gnu_long_path = false;
  bool gnu_long_link = false;
};

// Header, content and padding.
std::string tar_member(const TarMember& member);

// Two blocks of zeros.
std::string tar_end();

// The members and the end of the archive.
std::string tar_archive(const std::vector<TarMember>& members);

// Writes the checksum of the header that begins at `offset` again.
void tar_reseal(std::string& archive, std::size_t offset);

// Options of one frame that the library makes. With a window log, the frame asks for a window of 2^log bytes; without,
// the library chooses. Without `content_size` the header does not say how long the content is.
struct ZstdOptions {
  int window_log = 0;
  bool content_size = true;
  bool checksum = false;
};
std::string zstd_frame(std::string_view content, const ZstdOptions& options = {});

// A frame of uncompressed blocks. It is 9 bytes longer than content of up to 65,536 bytes, and 3 bytes longer for each
// 65,536 bytes more. The window descriptor is that of the format.
std::string raw_zstd_frame(std::string_view content, std::uint8_t window_descriptor = 0x38);

// A frame that decoders skip.
std::string skippable_frame(std::string_view content);

}  // namespace ravok::testing
