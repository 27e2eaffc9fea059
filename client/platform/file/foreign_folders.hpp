// Folders in which root must not make anything: their user could neither use nor remove it.
#pragma once

#include <filesystem>
#include <optional>

namespace ravok {

// Looks at what is at the path or, where nothing is, at the nearest folder above it. Returns its path when this process
// acts for root and another user owns it, and nothing otherwise. For every user but root it returns nothing. Links are
// followed.
std::optional<std::filesystem::path> foreign_folder(const std::filesystem::path& path);

// The same for the directory that HOME names; nothing when HOME is empty or not set.
std::optional<std::filesystem::path> foreign_home();

}  // namespace ravok
