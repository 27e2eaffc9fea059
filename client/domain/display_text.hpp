// Which text from outside may be shown to a user.
#pragma once

#include <string_view>

namespace ravok {

// Whether a UTF-8 text holds no control character: none of the first 32, DEL or U+0080 to U+009F.
// With `line_breaks` it may hold tab, line feed and carriage return.
bool is_displayable(std::string_view text, bool line_breaks);

}  // namespace ravok
