// Which text from outside may be shown to a user, and how any other text is shown.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ravok {

// Whether a UTF-8 text holds no control character: none of the first 32, DEL or U+0080 to U+009F.
// With `line_breaks` it may hold tab, line feed and carriage return.
bool is_displayable(std::string_view text, bool line_breaks);

// Returns the text as a terminal may show it: \xNN, with two lower-case hexadecimal digits, stands for each byte
// of a control character (line breaks too, DEL, U+0080 to U+009F), of a character that turns the direction of
// writing (U+202A to U+202E, U+2066 to U+2069), and of what is not UTF-8. Every other text stays as it is.
std::string shown_text(std::string_view text);

// Returns a size in bytes as people read it: "512 bytes", "1.5 GiB".
std::string shown_size(std::uint64_t bytes);

// Returns a number of things: "1 file", "2 files". `one` is the word for one of them, which takes an "s" for more.
std::string shown_count(std::uint64_t number, std::string_view one);

}  // namespace ravok
