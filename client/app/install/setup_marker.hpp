// The marker of a data folder that is being changed: while it is there, nothing in the folder starts.
#pragma once

#include "platform/file/held_directory.hpp"

namespace ravok {

// Puts the marker of a data folder up, durably. Fails with "insufficient_space", "file_write" or "file_sync" as
// HeldDirectory::write does.
void write_setup_marker(const HeldDirectory& root);

// Takes the marker away. Fails with "file_remove".
void remove_setup_marker(const HeldDirectory& root);

}  // namespace ravok
