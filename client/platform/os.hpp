// The seam to the operating system: the few things that each system does in its own way, besides the operations on
// files and directories. The folders of the system that is built for define all of them; everything above is written
// once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ravok::os {

// --- The build and the process -------------------------------------------------------------

// The name of the platform that this build serves: "linux-x86_64" or "macos-aarch64".
std::string_view platform_name();

// The name of the operating system as messages spell it: "Linux" or "macOS".
std::string_view system_name();

// Whether programs for users are bundles here: folders that users see and start as one file.
bool programs_are_bundles();

// The relative path, below the user's home directory, of the folder that holds the client's data.
std::string_view data_root_below_home();

// The absolute path of the running image in at most `limit` bytes, without a link on the way, or
// nothing when it cannot be told: the image may have been removed since, or replaced.
std::optional<std::string> executable_path(std::size_t limit);

// The path that the running image had when it was started, although another file may have it now; nothing when it
// cannot be told.
std::optional<std::string> started_executable_path(std::size_t limit);

// Whether a stream of this process is a terminal: 0 for its input, 1 for its output, 2 for its errors.
bool is_terminal(int stream);

// The program that shows a directory to the user, by its path or by its name on the search path.
std::string_view directory_opener();

// The path of the program that signs the programs of this system, or an empty text on a system that starts them
// unsigned.
std::string_view program_signer();

// Makes a write to a pipe or a socket fail without a signal once its reader is gone, where the system can be told so.
// Returns whether that worked.
bool keep_quiet_when_reader_gone(int writer);

// --- Access lists --------------------------------------------------------------------------

// Empties every access list of a new node, inherited ones included. Returns whether that worked.
bool clear_access_lists(int descriptor, bool directory);

// Fails with "permissions" when the node's access lists cannot be read, hold more than 128
// entries, or grant anything to an identity other than the effective user. Never changes them.
void require_owner_only_access(int descriptor);

// --- Volumes and places --------------------------------------------------------------------

// The canonical path of an open file or directory, or nothing when it has none (any more).
std::optional<std::string> descriptor_path(int descriptor);

// The mounted volume that an open file or directory lies on.
struct Volume {
  std::string identity;       // text that tells the volume from every other, also after a restart
  std::uint64_t id = 0;       // tells mounted volumes apart while they are mounted
  std::string mount_path;     // where it is mounted
  std::string mounted_below;  // the path within the volume that is mounted there, "/" for all of it
};

// The volume of an open file or directory. Fails with "unsafe_path" when it is no local volume of
// a kind that setup may keep its state on, or cannot be told from others.
Volume local_volume(int descriptor);

// Whether an open directory is where a volume, or a part of one, is mounted. `parent_device` is the number of the
// device that holds the directory above it.
bool is_mounted(int directory, std::uint64_t parent_device);

// The places below a canonical path where something is mounted.
std::vector<std::string> mounts_below(const std::string& path);

// Whether names in an open directory are compared with their case. Fails with "unsafe_path" when
// that cannot be told.
bool compares_case(int directory);

// The first part of a place's key text: "linux-v1" or "macos-apfs-v1".
std::string_view path_key_form();

// The name as a directory compares it. Fails with "unsafe_path" for a name that the comparison
// cannot take, such as one that is not UTF-8 where names are normalised.
std::string compared_name(std::string_view name, bool case_sensitive);

// --- Shortcuts -----------------------------------------------------------------------------

// What a shortcut is: an entry of the desktop's menu, or a document that a registered program opens.
enum class ShortcutForm { desktop_entry, launch_document };
ShortcutForm shortcut_form();

// Registers an application bundle as the one that opens its documents. Returns whether that worked: never
// on a system without such documents.
bool register_application(const std::string& path);

}  // namespace ravok::os
