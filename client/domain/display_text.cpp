#include "domain/display_text.hpp"

#include <cstddef>

namespace ravok {
namespace {

bool is_line_break(unsigned char c) { return c == '\t' || c == '\n' || c == '\r'; }

// The first byte of U+0080 to U+00BF in UTF-8; the second is the character's own number.
constexpr unsigned char latin_lead = 0xC2;

}  // namespace

bool is_displayable(std::string_view text, bool line_breaks) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte < 32 && !(line_breaks && is_line_break(byte))) || byte == 127) {
      return false;
    }
    if (byte == latin_lead && i + 1 < text.size()) {
      const auto next = static_cast<unsigned char>(text[i + 1]);
      if (next >= 0x80 && next <= 0x9F) {
        return false;
      }
    }
  }
  return true;
}

}  // namespace ravok
