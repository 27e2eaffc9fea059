// Which format a program's image has, as far as it matters to whoever changes the image. The images of macOS are known,
// for one processor or for several; every other format counts as `other`.
#pragma once

#include <string_view>

namespace ravok {

enum class ProgramImage {
  other,           // of no format that is known here
  unsigned_macos,  // for macOS, without a code signature
  signed_macos,    // for macOS, with a code signature for at least one of its processors, which any change breaks
};

// Returns what the image is. Fails with "invalid_program" for an image that begins as one of macOS but whose headers do
// not lie within it.
ProgramImage inspect_program_image(std::string_view image);

}  // namespace ravok
