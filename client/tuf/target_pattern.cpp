#include "tuf/target_pattern.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <bitset>
#include <cstddef>
#include <cstdint>

#include "domain/error.hpp"
#include "domain/limits.hpp"

namespace ravok {
namespace {

constexpr std::size_t word_bits = 64;

// One bit for each place between the bytes of the longest path, and for both of its ends.
using Bits = std::array<std::uint64_t, maximum_path_bytes / word_bits + 1>;

constexpr std::uint64_t bit(std::size_t index) { return std::uint64_t{1} << index % word_bits; }

// The places of a path up to which the pattern can have matched so far. At first that is its beginning alone.
class ReachedPlaces {
 public:
  explicit ReachedPlaces(std::string_view path) : path_(path), words_(path.size() / word_bits + 1) {
    std::fill_n(reached_.begin(), words_, 0);
    reached_[0] = 1;
    std::fill_n(in_name_.begin(), words_, ~std::uint64_t{0});
    in_name_[words_ - 1] = bit(path.size()) - 1;
    for (std::size_t slash = path.find('/'); slash != std::string_view::npos; slash = path.find('/', slash + 1)) {
      in_name_[slash / word_bits] &= ~bit(slash);
    }
  }

  // Goes on over any run of bytes without "/". Adding a place to the places of a name carries a bit through the rest of
  // them, to the end of the name.
  void pass_run() {
    bool carry = false;
    for (std::size_t i = 0; i < words_; ++i) {
      const std::uint64_t first = in_name_[i] + (reached_[i] & in_name_[i]);
      const std::uint64_t sum = first + (carry ? 1 : 0);
      carry = first < in_name_[i] || sum < first;
      reached_[i] |= sum ^ in_name_[i];
    }
  }

  // Goes on over one byte that is not "/".
  void pass_any() {
    for (std::size_t i = 0; i < words_; ++i) {
      reached_[i] &= in_name_[i];
    }
    advance();
  }

  // Goes on over one byte that `fits`.
  template <typename Fits>
  void pass(Fits fits) {
    reached_[words_ - 1] &= ~bit(path_.size());
    for (std::size_t i = 0; i < words_; ++i) {
      for (std::uint64_t left = reached_[i]; left != 0; left &= left - 1) {
        const auto place = static_cast<std::size_t>(std::countr_zero(left));
        if (!fits(path_[i * word_bits + place])) {
          reached_[i] &= ~bit(place);
        }
      }
    }
    advance();
  }

  bool is_empty() const { return is_empty_; }
  bool has_end() const { return (reached_[words_ - 1] & bit(path_.size())) != 0; }

 private:
  // The last place is never among those that advance, so that no bit is lost.
  void advance() {
    std::uint64_t carried = 0;
    is_empty_ = true;
    for (std::size_t i = 0; i < words_; ++i) {
      const std::uint64_t word = reached_[i];
      reached_[i] = word << 1 | carried;
      carried = word >> (word_bits - 1);
      is_empty_ = is_empty_ && reached_[i] == 0;
    }
  }

  std::string_view path_;
  std::size_t words_;  // that the path needs; the others are not used
  Bits reached_;
  Bits in_name_;  // the bytes that are not "/"
  bool is_empty_ = false;
};

// The bytes that a class matches, given what stands between its brackets.
class ByteClass {
 public:
  explicit ByteClass(std::string_view text) {
    const bool negated = text.front() == '!' || text.front() == '^';
    text.remove_prefix(negated ? 1 : 0);
    while (!text.empty()) {
      const bool is_range = text.size() > 2 && text[1] == '-';
      add(text.front(), text[is_range ? 2 : 0]);
      text.remove_prefix(is_range ? 3 : 1);
    }
    if (negated) {
      bytes_.flip();
    }
    bytes_.reset('/');
  }

  bool has(char c) const { return bytes_[static_cast<unsigned char>(c)]; }

 private:
  void add(char first, char last) {
    for (unsigned byte = static_cast<unsigned char>(first); byte <= static_cast<unsigned char>(last); ++byte) {
      bytes_.set(byte);
    }
  }

  std::bitset<256> bytes_;
};

constexpr bool opens_element(char c) { return c == '*' || c == '?' || c == '['; }

// Takes from both what stands for itself at the beginning of the pattern, which is all that most patterns are compared
// by. Returns whether the path begins with that.
bool take_common_beginning(std::string_view& pattern, std::string_view& path) {
  std::size_t size = 0;
  for (; size < pattern.size() && !opens_element(pattern[size]); ++size) {
    if (size == path.size() || path[size] != pattern[size]) {
      return false;
    }
  }
  pattern.remove_prefix(size);
  path.remove_prefix(size);
  return true;
}

}  // namespace

bool path_pattern_matches(std::string_view pattern, std::string_view path) {
  require(pattern.size() <= maximum_path_bytes && path.size() <= maximum_path_bytes, "size_limit",
          "Delegation pattern exceeds path limit");
  if (!take_common_beginning(pattern, path)) {
    return false;
  }
  ReachedPlaces places(path);
  const std::size_t last_bracket = pattern.rfind(']');
  for (std::size_t i = 0; i < pattern.size() && !places.is_empty(); ++i) {
    const char element = pattern[i];
    // The first byte of a class is never its end.
    if (element == '[' && last_bracket != std::string_view::npos && i + 2 <= last_bracket) {
      const std::size_t class_end = pattern.find(']', i + 2);
      const ByteClass bytes(pattern.substr(i + 1, class_end - i - 1));
      places.pass([&](char c) { return bytes.has(c); });
      i = class_end;
    } else if (element == '*') {
      places.pass_run();
    } else if (element == '?') {
      places.pass_any();
    } else {
      places.pass([element](char c) { return c == element; });
    }
  }
  return places.has_end();
}

}  // namespace ravok
