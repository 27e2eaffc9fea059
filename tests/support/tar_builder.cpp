#include "support/tar_builder.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <stdexcept>

#include <zstd.h>

namespace ravok::testing {
namespace {

constexpr std::size_t block_bytes = 512;
constexpr std::size_t name_bytes = 100;
constexpr std::size_t checksum_offset = 148;
constexpr std::size_t checksum_bytes = 8;
constexpr std::size_t raw_block_bytes = 65536;

void put(std::string& header, std::size_t offset, std::string_view text) { header.replace(offset, text.size(), text); }

std::string octal(std::uint64_t value, int digits) {
  std::array<char, 24> text{};
  std::snprintf(text.data(), text.size(), "%0*llo", digits, static_cast<unsigned long long>(value));
  return text.data();
}

// Returns the twelve bytes of a size: octal digits or, for a number that has too many, the number itself.
std::string size_field(std::int64_t size) {
  if (size >= 0 && size < std::int64_t{1} << 33) {
    return octal(static_cast<std::uint64_t>(size), 11);
  }
  std::string field(12, size < 0 ? '\xff' : '\0');
  for (std::size_t i = 0; i < 8; ++i) {
    field[11 - i] = static_cast<char>(static_cast<std::uint64_t>(size) >> (8 * i));
  }
  field[0] = static_cast<char>(static_cast<unsigned char>(field[0]) | 0x80);
  return field;
}

std::string padded(std::string content) {
  content.resize((content.size() + block_bytes - 1) / block_bytes * block_bytes, '\0');
  return content;
}

std::string header_of(const TarMember& member, bool gnu) {
  if (member.path.size() > name_bytes || member.link_target.size() > name_bytes) {
    throw std::length_error("A name is too long for its field");
  }
  std::string header(block_bytes, '\0');
  put(header, 0, member.path);
  put(header, 100, octal(member.mode, 7));
  put(header, 108, octal(0, 7));
  put(header, 116, octal(0, 7));
  put(header, 124, size_field(member.size.value_or(static_cast<std::int64_t>(member.content.size()))));
  put(header, 136, octal(0, 11));
  header[156] = member.type;
  put(header, 157, member.link_target);
  put(header, 257, gnu ? std::string("ustar  ") : std::string("ustar\0", 6) + "00");
  tar_reseal(header, 0);
  return header;
}

// A record counts its own length.
std::string extended_record(const std::string& key, const std::string& value) {
  const std::size_t rest = key.size() + value.size() + 3;
  std::size_t length = rest + 1;
  while (std::to_string(length).size() + rest != length) {
    ++length;
  }
  return std::to_string(length) + " " + key + "=" + value + "\n";
}

std::string long_text(const std::string& text, char type) {
  return tar_member({.path = "././@LongLink", .content = text + std::string(1, '\0'), .type = type});
}

void append_number(std::string& bytes, std::uint64_t value, int count) {
  for (int i = 0; i < count; ++i) {
    bytes += static_cast<char>(value >> (8 * i));
  }
}

struct FreeContext {
  void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
};

std::size_t checked(std::size_t answer) {
  if (ZSTD_isError(answer) != 0) {
    throw std::runtime_error(ZSTD_getErrorName(answer));
  }
  return answer;
}

}  // namespace

void tar_reseal(std::string& archive, std::size_t offset) {
  archive.replace(offset + checksum_offset, checksum_bytes, std::string(checksum_bytes, ' '));
  unsigned sum = 0;
  for (std::size_t i = 0; i < block_bytes; ++i) {
    sum += static_cast<unsigned char>(archive[offset + i]);
  }
  put(archive, offset + checksum_offset, octal(sum, 6) + std::string(1, '\0') + " ");
}

std::string tar_member(const TarMember& member) {
  std::string bytes;
  if (!member.extended.empty()) {
    TarMember extension{.path = "PaxHeaders/x", .type = 'x'};
    for (const auto& [key, value] : member.extended) {
      extension.content += extended_record(key, value);
    }
    bytes += tar_member(extension);
  }
  TarMember shortened = member;
  if (member.gnu_long_link) {
    bytes += long_text(member.link_target, 'K');
    shortened.link_target.resize(std::min(member.link_target.size(), name_bytes));
  }
  if (member.gnu_long_path) {
    bytes += long_text(member.path, 'L');
    shortened.path.resize(std::min(member.path.size(), name_bytes));
  }
  const bool gnu =
      member.gnu_long_link || member.gnu_long_path || member.type == 'S' || member.type == 'L' || member.type == 'K';
  return bytes + header_of(shortened, gnu) + padded(member.content);
}

std::string tar_end() { return std::string(2 * block_bytes, '\0'); }

std::string tar_archive(const std::vector<TarMember>& members) {
  std::string bytes;
  for (const TarMember& member : members) {
    bytes += tar_member(member);
  }
  return bytes + tar_end();
}

std::string zstd_frame(std::string_view content, const ZstdOptions& options) {
  const std::unique_ptr<ZSTD_CCtx, FreeContext> context(ZSTD_createCCtx());
  checked(ZSTD_CCtx_setParameter(context.get(), ZSTD_c_compressionLevel, 1));
  checked(ZSTD_CCtx_setParameter(context.get(), ZSTD_c_windowLog, options.window_log));
  checked(ZSTD_CCtx_setParameter(context.get(), ZSTD_c_checksumFlag, options.checksum ? 1 : 0));
  if (options.content_size) {
    checked(ZSTD_CCtx_setPledgedSrcSize(context.get(), content.size()));
  }
  std::string frame(ZSTD_compressBound(content.size()) + 64, '\0');
  ZSTD_inBuffer input = {content.data(), content.size(), 0};
  ZSTD_outBuffer output = {frame.data(), frame.size(), 0};
  // The end is announced by a call of its own: a library that sees it in the first call knows the size of the content.
  while (input.pos < input.size) {
    checked(ZSTD_compressStream2(context.get(), &output, &input, ZSTD_e_continue));
  }
  while (checked(ZSTD_compressStream2(context.get(), &output, &input, ZSTD_e_end)) > 0) {
  }
  frame.resize(output.pos);
  return frame;
}

std::string raw_zstd_frame(std::string_view content, std::uint8_t window_descriptor) {
  std::string frame("\x28\xb5\x2f\xfd\x00", 5);
  frame += static_cast<char>(window_descriptor);
  for (;;) {
    const std::string_view block = content.substr(0, raw_block_bytes);
    content.remove_prefix(block.size());
    append_number(frame, block.size() << 3 | (content.empty() ? 1 : 0), 3);
    frame += block;
    if (content.empty()) {
      return frame;
    }
  }
}

std::string skippable_frame(std::string_view content) {
  std::string frame("\x50\x2a\x4d\x18", 4);
  append_number(frame, content.size(), 4);
  return frame.append(content);
}

}  // namespace ravok::testing
