// An installer in one file: a program that was given its seal, and behind it the package that it is sealed for.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "app/install/appended_package.hpp"
#include "platform/snapshot/progress.hpp"
#include "publisher/publish_files.hpp"

namespace ravok {

// Returns an installer's image with this place in its slot. Fails with "invalid_installer" for an image that does not
// have exactly one slot.
std::string with_appended_place(std::string image, const AppendedPlace& place);

// Accepts only such an image. Fails with "invalid_installer".
void require_place_for_package(std::string_view image);

// Returns where an installer's file carries a package, of which `front` is the beginning with all of the program; or
// nothing if it carries none. Fails as place_in_slot does.
std::optional<AppendedPlace> find_appended_place(std::string_view front);

// Accepts only a program that carries no package of its own yet. Fails with "invalid_installer".
void require_bare_program(std::string_view image);

// Writes the program and the files of a package that was proved, in the order of their names, and makes the output a
// program. Returns where the package lies in it. `progress`, which may be empty, is told of each piece that was copied.
// Fails with "invalid_installer" for a program without a place for this, with "content_mismatch" for a file that
// changes meanwhile, and with "file_read", "insufficient_space", "file_write" and "cancelled". The caller commits the
// output.
AppendedPlace write_single_file_installer(const std::string& program, const std::filesystem::path& package,
                                          OutputFile& output, const ProgressCallback& progress);

}  // namespace ravok
