// The rule for the identifiers of games and builds, which become folder names.
#pragma once

#include <string_view>

namespace ravok {

// Accepts only 1 to 80 bytes of a-z, 0-9, "-" and ".", other than "." and "..", that are also a portable relative path.
// Fails with "invalid_identity" for the form, and with "unsafe_path" for a name that some platform reserves or that
// ends in a dot.
void validate_identifier(std::string_view identifier);

}  // namespace ravok
