// The images in an icon file (.ico). Desktops read menu icons as PNG files, and such a file can lie whole within an
// icon file.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace ravok {

// The most pixels that an image for a menu may have on each side.
inline constexpr std::uint32_t maximum_icon_side = 1024;

// Returns the PNG image with the most pixels among those in the bytes of an icon file, the first of equals: a part of
// the bytes that is a PNG file by itself, from its signature to its last chunk, each chunk with the right checksum, and
// of at most 1024 by 1024 pixels. Images in other forms and damaged ones are passed over. Returns nothing where none
// is left, and for bytes that are no icon file, whose directory leads out of them, or that hold more than 64 images.
std::optional<std::string_view> largest_png_image(std::string_view icon);

}  // namespace ravok
