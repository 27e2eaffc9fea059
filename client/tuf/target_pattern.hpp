// The patterns of target paths by which one role of a repository delegates to another.
#pragma once

#include <string_view>

namespace ravok {

// Whether the whole path has the form of the pattern. Both are compared byte by byte, and may have up to 4,096 bytes.
//
//   *       any run of bytes without "/", also an empty one
//   ?       any one byte but "/"
//   [a-c_]  one byte of the class: of the ranges and bytes up to the next "]". A "]" right behind the "[" is one of its
//           bytes, as is a "-" without a byte on both of its sides. A range of which the ends are reversed is empty.
//   [!a-c]  one byte that is not of the class, and not "/". "^" stands for "!".
//
// A class never has "/". Any other byte stands for itself, as does a "[" without a "]" behind it; nothing escapes
// another. Takes no memory, and at most as many steps as the product of both lengths. Fails with "size_limit" for more
// bytes.
bool path_pattern_matches(std::string_view pattern, std::string_view path);

}  // namespace ravok
