#include "domain/identifier.hpp"

#include <algorithm>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"

namespace ravok {
namespace {

bool is_identifier_character(char c) { return is_lower_letter(c) || is_digit(c) || c == '-' || c == '.'; }

}  // namespace

void validate_identifier(std::string_view identifier) {
  require(!identifier.empty() && identifier.size() <= 80 && identifier != "." && identifier != ".." &&
              std::all_of(identifier.begin(), identifier.end(), is_identifier_character),
          "invalid_identity", "Game and build IDs use lower-case letters, digits, dots and hyphens");
  validate_relative_path(identifier, true);
}

}  // namespace ravok
