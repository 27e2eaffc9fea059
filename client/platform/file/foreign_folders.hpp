// Folders in which root must not make anything: their user could neither use nor remove it.
#pragma once

#include <filesystem>
#include <optional>

namespace ravok {

// Returns what is at the path, or else the nearest folder above it, when this process acts for root and that
// belongs to another user; nothing otherwise, and always nothing for every user but root. A link stands for
// what it leads to.
std::optional<std::filesystem::path> foreign_folder(const std::filesystem::path& path);

// The same of the directory that HOME names; nothing where HOME names none.
std::optional<std::filesystem::path> foreign_home();

}  // namespace ravok
