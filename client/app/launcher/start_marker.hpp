// The record of a windowed launcher that was started and has not opened yet. A version that is started again and again
// without opening is given up for another one.
#pragma once

#include <filesystem>

namespace ravok {

// Called by a windowed launcher once it has shown itself usable: removes the record, so that its start does not count
// against its version. No record is fine. Fails with "native_install_incomplete" for a data folder whose setup has not
// ended, with "unsafe_path" for one without a launcher store, and with "file_remove".
void confirm_launcher_start(const std::filesystem::path& data_root);

}  // namespace ravok
