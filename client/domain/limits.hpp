// The bounds that several units keep to.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ravok {

// The longest path that is taken from outside or given to the system, in bytes.
inline constexpr std::size_t maximum_path_bytes = 4096;

// The largest manifest of a snapshot or a launcher, as text, in bytes.
inline constexpr std::uint64_t maximum_manifest_bytes = 524'288;

// How much of a file is read, hashed or written in one step, in bytes.
inline constexpr std::size_t piece_bytes = 65'536;

}  // namespace ravok
