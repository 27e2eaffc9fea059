// What a run that was killed leaves in a folder of outputs, and how a living run keeps its own.
//
// An output is made beside its place, under its name with a dot, 32 hexadecimal characters and ".tmp" appended, and is
// locked while it is made. A lock goes with the process that holds it, so what has such a name and no lock belongs to
// no run any more.
#pragma once

#include <string>
#include <string_view>

namespace ravok {

// How the name of an output ends while it is made.
inline constexpr std::string_view temporary_ending = ".tmp";

// Whether a name has the form above.
bool is_temporary_name(std::string_view name);

// Lock a file that was just made, or a directory with this name in an open one, so that no other run takes it for a
// leftover. Return false when one has done so already, before the lock: then what was made is gone, and is to be made
// again.
bool hold_file(int file);
bool hold_folder(int parent, const std::string& name, int folder);

// Removes what runs that were killed have left in an open directory: files and directories of this user with a name of
// the form above that nobody has locked. A file has no other name, except that of its output: the run was killed
// between giving it that and taking this one away. Whatever cannot be looked at or removed stays.
void sweep_leftovers(int folder);

}  // namespace ravok
