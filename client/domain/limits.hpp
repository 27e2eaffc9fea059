// The bounds that several units keep to.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ravok {

// The longest path that is taken from outside or given to the system, in bytes.
inline constexpr std::size_t maximum_path_bytes = 4096;

// How many levels below the root of the file system a path that is walked level by level may have.
inline constexpr std::size_t maximum_path_levels = 128;

// How many entries a managed tree, or a directory in which setup works, may have.
inline constexpr std::size_t maximum_tree_entries = 250'000;

// The largest record that setup keeps of an installation, as text, in bytes.
inline constexpr std::uint64_t maximum_setup_record_bytes = 65'536;

// The largest manifest of a snapshot or a launcher, as text, in bytes.
inline constexpr std::uint64_t maximum_manifest_bytes = 524'288;

// The largest archive of a snapshot, and the most that its files may hold together, in bytes.
inline constexpr std::uint64_t maximum_snapshot_bytes = std::uint64_t{1} << 42;

// How much of a file is read, hashed or written in one step, in bytes.
inline constexpr std::size_t piece_bytes = 65'536;

// The longest value of an environment variable that names a folder, in bytes.
inline constexpr std::size_t maximum_environment_bytes = 8192;

}  // namespace ravok
