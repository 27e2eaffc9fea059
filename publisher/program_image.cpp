#include "publisher/program_image.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "domain/error.hpp"

namespace ravok {
namespace {

constexpr std::uint32_t magic_32 = 0xfeedface;
constexpr std::uint32_t magic_64 = 0xfeedfacf;
constexpr std::uint32_t several_magic_32 = 0xcafebabe;
constexpr std::uint32_t several_magic_64 = 0xcafebabf;
constexpr std::uint32_t code_signature_command = 0x1d;

// Where the fields of the headers lie, in bytes.
constexpr std::size_t command_count_at = 16;
constexpr std::size_t command_bytes_at = 20;
constexpr std::size_t header_bytes_32 = 28;
constexpr std::size_t header_bytes_64 = 32;
constexpr std::size_t least_command_bytes = 8;
constexpr std::uint32_t maximum_slices = 64;
constexpr std::size_t slice_count_at = 4;
constexpr std::size_t slices_at = 8;
constexpr std::size_t slice_entry_bytes_32 = 20;
constexpr std::size_t slice_entry_bytes_64 = 32;

constexpr const char* invalid = "invalid_program";
constexpr const char* damaged = "The headers of this program for macOS are damaged";

enum class Order { little, big };

// A part of an image. Reading beyond its end fails with "invalid_program".
class Bytes {
 public:
  Bytes(std::string_view bytes, Order order) : bytes_(bytes), order_(order) {}

  std::size_t size() const { return bytes_.size(); }

  std::uint64_t number(std::uint64_t at, std::size_t width) const {
    std::uint64_t value = 0;
    const std::string_view digits = part(at, width).bytes_;
    for (std::size_t i = 0; i < width; ++i) {
      const char digit = digits[order_ == Order::big ? i : width - 1 - i];
      value = value << 8 | static_cast<unsigned char>(digit);
    }
    return value;
  }

  std::uint32_t word(std::uint64_t at) const { return static_cast<std::uint32_t>(number(at, 4)); }

  Bytes part(std::uint64_t at, std::uint64_t length) const {
    require(at <= bytes_.size() && length <= bytes_.size() - at, invalid, damaged);
    return {bytes_.substr(static_cast<std::size_t>(at), static_cast<std::size_t>(length)), order_};
  }

  std::string_view text() const { return bytes_; }

 private:
  std::string_view bytes_;
  Order order_;
};

// The byte order of an image's numbers and whether they are those of a 64-bit system, as its first word says.
struct Form {
  Order order;
  bool wide;
};

std::optional<Form> form_of(std::string_view image, std::uint32_t narrow, std::uint32_t wide) {
  if (image.size() < sizeof(std::uint32_t)) {
    return std::nullopt;
  }
  for (const Order order : {Order::little, Order::big}) {
    const std::uint32_t magic = Bytes(image, order).word(0);
    if (magic == narrow || magic == wide) {
      return Form{order, magic == wide};
    }
  }
  return std::nullopt;
}

// Whether the image for one processor has a command that says where its signature is.
bool is_signed(std::string_view text, Form form) {
  const Bytes image(text, form.order);
  const std::uint32_t count = image.word(command_count_at);
  const Bytes commands = image.part(form.wide ? header_bytes_64 : header_bytes_32, image.word(command_bytes_at));
  std::uint64_t at = 0;
  bool found = false;
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint32_t length = commands.part(at, least_command_bytes).word(4);
    require(length >= least_command_bytes, invalid, damaged);
    found = found || commands.word(at) == code_signature_command;
    at += commands.part(at, length).size();
  }
  return found;
}

bool has_signed_slice(std::string_view text, Form form) {
  const Bytes image(text, form.order);
  const std::uint32_t count = image.word(slice_count_at);
  require(count <= maximum_slices, invalid, damaged);
  const std::size_t entry_bytes = form.wide ? slice_entry_bytes_64 : slice_entry_bytes_32;
  const std::size_t width = form.wide ? sizeof(std::uint64_t) : sizeof(std::uint32_t);
  bool found = false;
  std::uint64_t at = slices_at;
  for (std::uint32_t i = 0; i < count; ++i) {
    const Bytes entry = image.part(at, entry_bytes);
    const std::string_view slice = image.part(entry.number(8, width), entry.number(8 + width, width)).text();
    const std::optional<Form> slice_form = form_of(slice, magic_32, magic_64);
    found = found || (slice_form && is_signed(slice, *slice_form));
    at += entry_bytes;
  }
  return found;
}

}  // namespace

ProgramImage inspect_program_image(std::string_view image) {
  const std::optional<Form> one = form_of(image, magic_32, magic_64);
  const std::optional<Form> several = form_of(image, several_magic_32, several_magic_64);
  if (!one && !several) {
    return ProgramImage::other;
  }
  const bool is_signed_one = one ? is_signed(image, *one) : has_signed_slice(image, *several);
  return is_signed_one ? ProgramImage::signed_macos : ProgramImage::unsigned_macos;
}

}  // namespace ravok
