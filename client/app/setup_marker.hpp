// The marker of a data folder that is being changed: while it is there, nothing in the folder starts.
#pragma once

#include "app/data_folder.hpp"

namespace ravok {

// Puts the marker up, durably. Fails as atomic_write does.
void write_setup_marker(const DataPaths& paths);

// Takes the marker away. Fails with "file_remove".
void remove_setup_marker(const DataPaths& paths);

}  // namespace ravok
