// The names that a program has made, moved or removed, for as long as a power cut may take each change back.
//
// A change lasts from the next flush of its directory on. A move is one step in two directories: the new name never
// stands beside the old one, and never are both missing. But a move in place of another file may be half lost: that one
// is gone, and the moved one still has its old name. Btrfs does so, whose log has the removal from a directory that it
// knows already, and has the addition only of a file that it knows too; it knows those that were flushed since its last
// commit, which it does only to files that have changed since. So a move of a file that the same program has changed
// and then flushed is never half lost here. A move lasts from
// the flush of the directory that it leads into. ext4, XFS and Btrfs let it last from a flush of the other directory
// too, and a new file's name from a flush of the file; no program should build on that. An exchange lasts from the
// flush of both directories. These file systems write what belongs together in its order, so a change that lasts makes
// all changes last that it stands on: the earlier changes of the same names and, when a directory is removed, all
// changes in it.
//
// A power cut may take back any of the other changes. What is there afterwards is what comes of making the kept changes
// again, in their order, on what lasts. A kept change that cannot be made then is lost as well: its directory is lost,
// the name that it takes away is missing or another's, the name that it gives is taken, or the directory that it
// removes is not empty.
//
// What a program removes or replaces is kept in a store, so that it can come back as what it was. The changes that may
// be lost when a program ends can be saved there, and the next program on the same directory begins with them.
#pragma once

#include <cstddef>
#include <cstdint>

#include <sys/stat.h>
#include <sys/types.h>

namespace ravok::fault {

// Ends the program with a message about what the library cannot do.
[[noreturn]] void refuse(const char* problem);

// The changes that an earlier program has made have the numbers from here on, in their order.
inline constexpr std::uint64_t first_carried_change = 1'000'001;

// Which of the changes that may be lost are lost.
struct NameLoss {
  enum class Kind { all, only, but, some, half };
  Kind kind = Kind::all;
  // The call whose change is lost alone, kept alone, or half lost alone; for some, what decides about each change by
  // itself.
  std::uint64_t change = 0;
};

// A name in a directory that is known.
struct KnownName {
  int directory = -1;  // -1 for a name that is not watched
  char name[256] = {};
};

// What a call is about to do. Each of these is made before the call and passed back after it.
struct Making {
  KnownName place;
  bool is_new = false;
};

struct Removing {
  KnownName place;
  ino_t object = 0;
  bool is_directory = false;
  int slot = -1;      // where the object lies in the store
  int kept = -1;      // a descriptor of it, where it has other names
  bool done = false;  // whether the call has nothing left to do
};

struct Moving {
  KnownName from;
  KnownName to;
  ino_t object = 0;
  bool exchanges = false;
  bool exclusive = false;
  bool may_be_half = false;
  Removing replaced;
};

// Watches the changes below `root` from now on. The store must be a directory of the same volume that does not lie
// below it, empty or as the last program on this root has left it. Both are absolute paths without links.
void watch_names(const char* root, const char* store);
bool names_watched();

Making before_making(int directory, const char* path);
void made(const Making& making, std::uint64_t call);

Removing before_removing(int directory, const char* path, bool as_directory);
void removed(const Removing& removing, std::uint64_t call);

Moving before_moving(int from_directory, const char* from, int to_directory, const char* to, unsigned flags);
void moved(const Moving& moving, std::uint64_t call, bool succeeded);

// Remembers that a file has been changed, and that it was flushed, of which only a flush after a change counts.
void touch_file(ino_t file);
void flush_file(ino_t file);

// Makes the changes in this directory last.
void flush_names(const struct stat& directory);

// Whether any change may be lost, and a number that grows whenever the changes that may be lost are others.
bool names_pending();
std::uint64_t names_version();

// Writes the numbers of the calls whose changes may be lost, with a "~" behind those that may be half lost: "3,5~,6",
// or
// "-" for none.
void list_pending_names(char* text, std::size_t size);

// Takes changes back as a power cut does. What is left then lasts.
void lose_names(const NameLoss& loss);

// Lets all changes last, which a restart of the machine does with those that it has not lost.
void keep_names();

// How many changes may be lost.
std::size_t pending_names();

// Opens the file of the store that carries over what may be lost: anew for writing, or for reading. Returns -1 where
// there is none to read.
int open_state(bool for_writing);
// Removes that file.
void remove_state();

// Writes the changes that may be lost to a file, and begins with those that are read from it.
void save_names(int file);
void load_names(int file);

// Write bytes to a file, or read exactly as many; what cannot be done ends the program.
void save_bytes(int file, const void* bytes, std::size_t size);
void load_bytes(int file, void* bytes, std::size_t size);

// Finds a file or directory below the root or in the store by its number. Returns a descriptor that only names it and
// belongs to the caller, or -1.
int find_object(ino_t object);

}  // namespace ravok::fault
