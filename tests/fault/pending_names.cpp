#include "fault/pending_names.hpp"

#undef _FORTIFY_SOURCE

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ravok::fault {
namespace {

constexpr int first_own_descriptor = 512;
constexpr std::size_t most_directories = 1024;
constexpr std::size_t most_changes = 8192;

struct Directory {
  dev_t device = 0;
  ino_t inode = 0;
  int descriptor = -1;
};

enum class Kind { make, remove, move, exchange };

struct Change {
  Kind kind = Kind::make;
  std::uint64_t call = 0;
  KnownName from;    // unused by one that makes a name
  KnownName to;      // unused by one that removes a name
  ino_t object = 0;  // what is removed or moved, or had the first name of an exchange
  ino_t other = 0;   // what had the second name of an exchange
  bool exclusive = false;
  bool may_be_half = false;
  Removing gone;  // what a removal or a move took away, or what an undone making had made
  bool to_is_flushed = false;
  bool from_is_flushed = false;
  bool lasts = false;
};

constinit Directory directories[most_directories];
constinit std::size_t directory_count = 0;
constinit Change changes[most_changes];
constinit std::size_t change_count = 0;
constinit std::size_t pending_count = 0;
constinit std::atomic<std::uint64_t> version = 0;
constinit int slot_count = 0;

// A file that the program has changed, and whether it has flushed it since.
struct TouchedFile {
  ino_t inode = 0;
  bool is_flushed = false;
};
constexpr std::size_t most_touched_files = 8192;
constinit TouchedFile touched_files[most_touched_files];
constinit std::size_t touched_file_count = 0;

constinit int store = -1;
constinit dev_t store_device = 0;
constinit char store_path[4096] = {};
constinit char root_path[4096] = {};
constinit std::atomic_flag taken = ATOMIC_FLAG_INIT;

// Keeps other threads out, and preserves the program's errno.
class Inside {
 public:
  Inside() : errno_(errno) {
    while (taken.test_and_set(std::memory_order_acquire)) {
    }
  }
  ~Inside() {
    taken.clear(std::memory_order_release);
    errno = errno_;
  }
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;

 private:
  int errno_;
};

// --- The system, past the functions that stand before those of the C library -----------------

int move_away(long descriptor) {
  const long moved = syscall(SYS_fcntl, descriptor, F_DUPFD_CLOEXEC, first_own_descriptor);
  if (moved < 0) {
    refuse("Watching names needs more open files than the limit allows");
  }
  syscall(SYS_close, descriptor);
  return static_cast<int>(moved);
}

bool look_at(int directory, const char* name, struct stat& status) {
  return syscall(SYS_newfstatat, directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0;
}

bool rename_exclusive(int from_directory, const char* from, int to_directory, const char* to) {
  return syscall(SYS_renameat2, from_directory, from, to_directory, to, RENAME_NOREPLACE) == 0;
}

bool path_of(int descriptor, char* path, std::size_t room) {
  char link[64];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
  const long size = syscall(SYS_readlinkat, AT_FDCWD, link, path, room - 1);
  path[size < 0 ? 0 : size] = '\0';
  return size >= 0;
}

bool lies_in(const char* inner, const char* outer) {
  const std::size_t size = std::strlen(outer);
  return std::strncmp(inner, outer, size) == 0 && (inner[size] == '\0' || inner[size] == '/');
}

bool is_empty(int directory, const char* name) {
  const long opened = syscall(SYS_openat, directory, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (opened < 0) {
    return false;
  }
  alignas(dirent64) char bytes[4096];
  long size = 0;
  bool empty = true;
  while (empty && (size = syscall(SYS_getdents64, opened, bytes, sizeof bytes)) > 0) {
    for (long offset = 0; offset < size;) {
      const auto* const entry = reinterpret_cast<const dirent64*>(bytes + offset);
      empty = empty && (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0);
      offset += entry->d_reclen;
    }
  }
  syscall(SYS_close, opened);
  return empty && size == 0;
}

// --- The store -------------------------------------------------------------------------------

struct SlotName {
  char text[16];
  explicit SlotName(int slot) { std::snprintf(text, sizeof text, "%d", slot); }
};

// Moves what has this name into the store. Returns its slot, or -1 with errno set.
int put_away(int directory, const char* name) {
  const int slot = slot_count++;
  return rename_exclusive(directory, name, store, SlotName(slot).text) ? slot : -1;
}

bool put_back(int slot, int directory, const char* name) {
  return rename_exclusive(store, SlotName(slot).text, directory, name);
}

// --- Places ----------------------------------------------------------------------------------

int descriptor_of(const KnownName& place) { return directories[place.directory].descriptor; }

// Returns the number of a directory among those that are known, or -1.
int known_directory(const struct stat& status) {
  for (std::size_t i = 0; i < directory_count; ++i) {
    if (directories[i].device == status.st_dev && directories[i].inode == status.st_ino) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

// Does so with an open directory, which becomes known, and takes over the descriptor.
int know_directory(long descriptor, const struct stat& status) {
  if (const int known = known_directory(status); known >= 0) {
    syscall(SYS_close, descriptor);
    return known;
  }
  if (directory_count == most_directories) {
    refuse("More directories are changed than the library can watch");
  }
  directories[directory_count] = {status.st_dev, status.st_ino, move_away(descriptor)};
  return static_cast<int>(directory_count++);
}

// Returns the last name of a path, and the directory that holds it. A place elsewhere, and one that the path does not
// lead to, is not watched.
KnownName known(int directory, const char* path) {
  KnownName place;
  char parent[4096];
  std::size_t size = std::strlen(path);
  while (size > 1 && path[size - 1] == '/') {
    --size;
  }
  std::size_t start = size;
  while (start > 0 && path[start - 1] != '/') {
    --start;
  }
  if (store < 0 || size == start || size - start >= sizeof place.name || start >= sizeof parent) {
    return place;
  }
  std::memcpy(place.name, path + start, size - start);
  std::memcpy(parent, path, start);
  parent[start] = '\0';
  const long opened = syscall(SYS_openat, directory, start == 0 ? "." : parent, O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (opened < 0) {
    return place;
  }
  struct stat status;
  char where[4096];
  if (syscall(SYS_fstat, opened, &status) != 0 || !path_of(static_cast<int>(opened), where, sizeof where) ||
      (!lies_in(where, root_path) && !lies_in(where, store_path))) {
    syscall(SYS_close, opened);
    return place;
  }
  if (status.st_dev != store_device) {
    refuse("The store of removed files lies on another volume");
  }
  place.directory = know_directory(opened, status);
  return place;
}

// Whether the directory still lies below the root, and is neither lost nor removed.
bool is_reachable(const KnownName& place) {
  char where[4096];
  return path_of(descriptor_of(place), where, sizeof where) && lies_in(where, root_path);
}

bool is_named(const KnownName& place, ino_t object) {
  struct stat status;
  return look_at(descriptor_of(place), place.name, status) && status.st_ino == object;
}

bool same_place(const KnownName& a, const KnownName& b) {
  return a.directory >= 0 && a.directory == b.directory && std::strcmp(a.name, b.name) == 0;
}

bool lies_in_directory(const KnownName& place, ino_t directory) {
  return place.directory >= 0 && directories[place.directory].inode == directory;
}

// Returns a descriptor of what has this name.
int keep(const KnownName& place) {
  const long opened = syscall(SYS_openat, descriptor_of(place), place.name, O_PATH | O_NOFOLLOW | O_CLOEXEC);
  return opened < 0 ? -1 : move_away(opened);
}

TouchedFile* touched(ino_t file) {
  for (std::size_t i = 0; i < touched_file_count; ++i) {
    if (touched_files[i].inode == file) {
      return &touched_files[i];
    }
  }
  return nullptr;
}

// Keeps what a move replaces: a file by a second name or a descriptor; an empty directory by moving it away before the
// call.
void make_way(const KnownName& place, const struct stat& target, bool for_directory, Removing& replaced) {
  replaced.place = place;
  replaced.is_directory = S_ISDIR(target.st_mode);
  if (replaced.is_directory != for_directory ||
      (replaced.is_directory && !is_empty(descriptor_of(place), place.name))) {
    // The call will fail.
    return;
  }
  if (replaced.is_directory) {
    replaced.slot = put_away(descriptor_of(place), place.name);
  } else if (target.st_nlink == 1) {
    const int slot = slot_count++;
    if (syscall(SYS_linkat, descriptor_of(place), place.name, store, SlotName(slot).text, 0) == 0) {
      replaced.slot = slot;
    }
  } else {
    replaced.kept = keep(place);
  }
  if (replaced.slot < 0 && replaced.kept < 0) {
    refuse("A replaced name cannot be kept");
  }
}

// --- Changes ---------------------------------------------------------------------------------

Change& add_change(Kind kind, std::uint64_t call) {
  if (change_count == most_changes) {
    refuse("More names are changed than the library can watch");
  }
  Change& change = changes[change_count++];
  change.kind = kind;
  change.call = call;
  ++pending_count;
  ++version;
  return change;
}

// Lets what is there last.
void forget_changes() {
  change_count = 0;
  pending_count = 0;
  ++version;
}

// Whether a change can only last together with an earlier one.
bool stands_on(const Change& change, const Change& earlier) {
  if (same_place(change.from, earlier.from) || same_place(change.from, earlier.to) ||
      same_place(change.to, earlier.from) || same_place(change.to, earlier.to)) {
    return true;
  }
  return change.gone.is_directory &&
         (lies_in_directory(earlier.from, change.gone.object) || lies_in_directory(earlier.to, change.gone.object));
}

void let_last(Change& change) {
  change.lasts = true;
  --pending_count;
  ++version;
  for (Change* earlier = changes; earlier != &change; ++earlier) {
    if (!earlier->lasts && stands_on(change, *earlier)) {
      let_last(*earlier);
    }
  }
}

// Whether the flush of this directory makes the change last.
bool is_flushed(Change& change, int directory) {
  switch (change.kind) {
    case Kind::make:
    case Kind::move:
      return change.to.directory == directory;
    case Kind::remove:
      return change.from.directory == directory;
    case Kind::exchange:
      change.to_is_flushed = change.to_is_flushed || change.to.directory == directory;
      change.from_is_flushed = change.from_is_flushed || change.from.directory == directory;
      return change.to_is_flushed && change.from_is_flushed;
  }
  return false;
}

// --- Losing ----------------------------------------------------------------------------------

void require_undone(bool undone) {
  if (!undone) {
    refuse("A change of a name cannot be taken back");
  }
}

bool move_back_and_forth(const KnownName& from, const KnownName& to, unsigned flags) {
  return syscall(SYS_renameat2, descriptor_of(from), from.name, descriptor_of(to), to.name, flags) == 0;
}

// Gives the thing that was taken away its name again.
void restore(const Removing& gone) {
  if (gone.slot >= 0) {
    require_undone(put_back(gone.slot, descriptor_of(gone.place), gone.place.name));
  } else if (gone.kept >= 0) {
    char link[64];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", gone.kept);
    require_undone(syscall(SYS_linkat, AT_FDCWD, link, descriptor_of(gone.place), gone.place.name, AT_SYMLINK_FOLLOW) ==
                   0);
  }
}

void undo(Change& change) {
  switch (change.kind) {
    case Kind::make:
      change.gone.slot = put_away(descriptor_of(change.to), change.to.name);
      require_undone(change.gone.slot >= 0);
      return;
    case Kind::remove:
      restore(change.gone);
      return;
    case Kind::move:
      require_undone(move_back_and_forth(change.to, change.from, RENAME_NOREPLACE));
      restore(change.gone);
      return;
    case Kind::exchange:
      require_undone(move_back_and_forth(change.to, change.from, RENAME_EXCHANGE));
      return;
  }
}

// Takes away what a lost move has replaced.
void lose_replaced(const Change& change) {
  if (is_named(change.to, change.gone.object) && is_reachable(change.to)) {
    require_undone(put_away(descriptor_of(change.to), change.to.name) >= 0);
  }
}

// Makes a change again where that is possible.
void redo(const Change& change) {
  switch (change.kind) {
    case Kind::make:
      put_back(change.gone.slot, descriptor_of(change.to), change.to.name);
      return;
    case Kind::remove:
      if (is_named(change.from, change.object) &&
          (!change.gone.is_directory || is_empty(descriptor_of(change.from), change.from.name))) {
        put_away(descriptor_of(change.from), change.from.name);
      }
      return;
    case Kind::move:
      if (is_named(change.from, change.object) && is_reachable(change.from) && is_reachable(change.to)) {
        move_back_and_forth(change.from, change.to, change.exclusive ? RENAME_NOREPLACE : 0);
      }
      return;
    case Kind::exchange:
      if (is_named(change.from, change.object) && is_named(change.to, change.other) && is_reachable(change.from) &&
          is_reachable(change.to)) {
        move_back_and_forth(change.from, change.to, RENAME_EXCHANGE);
      }
      return;
  }
}

// Mixes the bits of a number so that each of the result depends on all of them.
std::uint64_t mixed(std::uint64_t number) {
  number = (number ^ (number >> 30)) * 0xbf58476d1ce4e5b9;
  number = (number ^ (number >> 27)) * 0x94d049bb133111eb;
  return number ^ (number >> 31);
}

bool is_lost(const Change& change, const NameLoss& loss) {
  switch (loss.kind) {
    case NameLoss::Kind::all:
      return true;
    case NameLoss::Kind::only:
      return change.call == loss.change;
    case NameLoss::Kind::but:
      return change.call != loss.change;
    case NameLoss::Kind::some:
      return mixed(loss.change + change.call * 0x9e3779b97f4a7c15) % 2 == 0;
    case NameLoss::Kind::half:
      return change.call == loss.change;
  }
  return true;
}

// --- From one program to the next ------------------------------------------------------------

constexpr const char* state_name = "pending";

struct SavedNames {
  std::size_t directories = 0;
  std::size_t changes = 0;
  int slots = 0;
};

// Looks for a number in a directory and all that lies below it. Takes over the descriptor of the directory.
int find_below(long directory, ino_t object) {
  struct stat status;
  if (directory < 0) {
    return -1;
  }
  if (syscall(SYS_fstat, directory, &status) == 0 && status.st_ino == object) {
    return static_cast<int>(directory);
  }
  alignas(dirent64) char bytes[4096];
  long size = 0;
  long found = -1;
  while (found < 0 && (size = syscall(SYS_getdents64, directory, bytes, sizeof bytes)) > 0) {
    for (long offset = 0; offset < size && found < 0;) {
      const auto* const entry = reinterpret_cast<const dirent64*>(bytes + offset);
      offset += entry->d_reclen;
      if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0 ||
          !look_at(static_cast<int>(directory), entry->d_name, status)) {
        continue;
      }
      if (S_ISDIR(status.st_mode)) {
        found = find_below(
            syscall(SYS_openat, directory, entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC), object);
      } else if (status.st_ino == object) {
        found = syscall(SYS_openat, directory, entry->d_name, O_PATH | O_NOFOLLOW | O_CLOEXEC);
      }
    }
  }
  syscall(SYS_close, directory);
  return static_cast<int>(found);
}

// Opens what a saved change needs again.
int find_saved(ino_t object) {
  const int found = find_object(object);
  if (found < 0) {
    refuse("What an earlier program has changed cannot be found again");
  }
  return move_away(found);
}

// The places of a change.
struct Places {
  KnownName* all[3];
  explicit Places(Change& change) : all{&change.from, &change.to, &change.gone.place} {}
};

}  // namespace

void watch_names(const char* root, const char* path) {
  std::snprintf(root_path, sizeof root_path, "%s", root);
  std::snprintf(store_path, sizeof store_path, "%s", path);
  const long opened = syscall(SYS_openat, AT_FDCWD, path, O_PATH | O_DIRECTORY | O_CLOEXEC);
  struct stat status;
  if (opened < 0 || syscall(SYS_fstat, opened, &status) != 0) {
    refuse("RAVOK_FAULT_STORE must be a directory");
  }
  store_device = status.st_dev;
  store = move_away(opened);
}

bool names_watched() { return store >= 0; }

Making before_making(int directory, const char* path) {
  const Inside inside;
  Making making;
  making.place = known(directory, path);
  struct stat status;
  making.is_new = making.place.directory >= 0 && !look_at(descriptor_of(making.place), making.place.name, status);
  return making;
}

void made(const Making& making, std::uint64_t call) {
  const Inside inside;
  if (making.is_new) {
    add_change(Kind::make, call).to = making.place;
  }
}

Removing before_removing(int directory, const char* path, bool as_directory) {
  const Inside inside;
  Removing removing;
  removing.place = known(directory, path);
  const KnownName& place = removing.place;
  struct stat status;
  if (place.directory < 0 || !look_at(descriptor_of(place), place.name, status) ||
      S_ISDIR(status.st_mode) != as_directory || (as_directory && !is_empty(descriptor_of(place), place.name))) {
    // The call will fail.
    removing.place.directory = -1;
    return removing;
  }
  removing.object = status.st_ino;
  removing.is_directory = as_directory;
  if (as_directory || status.st_nlink == 1) {
    removing.slot = put_away(descriptor_of(place), place.name);
    removing.done = removing.slot >= 0;
  } else {
    // A name in the store would be one name more than the program expects of the file.
    removing.kept = keep(place);
  }
  return removing;
}

void removed(const Removing& removing, std::uint64_t call) {
  const Inside inside;
  if (removing.place.directory < 0) {
    return;
  }
  if (removing.slot < 0 && removing.kept < 0) {
    refuse("A removed name cannot be kept");
  }
  Change& change = add_change(Kind::remove, call);
  change.from = removing.place;
  change.object = removing.object;
  change.gone = removing;
}

Moving before_moving(int from_directory, const char* from, int to_directory, const char* to, unsigned flags) {
  const Inside inside;
  Moving moving;
  moving.from = known(from_directory, from);
  moving.to = known(to_directory, to);
  struct stat source;
  if (moving.from.directory < 0 && moving.to.directory < 0) {
    return moving;
  }
  if (moving.from.directory < 0 || moving.to.directory < 0) {
    refuse("A name is moved between the watched directory and others");
  }
  if (!look_at(descriptor_of(moving.from), moving.from.name, source)) {
    moving.from.directory = -1;
    return moving;
  }
  moving.object = source.st_ino;
  moving.exchanges = (flags & RENAME_EXCHANGE) != 0;
  moving.exclusive = (flags & RENAME_NOREPLACE) != 0;
  struct stat target;
  if (!look_at(descriptor_of(moving.to), moving.to.name, target)) {
    return moving;
  }
  if (target.st_ino == source.st_ino) {
    // The call will change nothing.
    moving.from.directory = -1;
    return moving;
  }
  moving.replaced.object = target.st_ino;
  if (!moving.exchanges && !moving.exclusive) {
    make_way(moving.to, target, S_ISDIR(source.st_mode), moving.replaced);
    const TouchedFile* const file = touched(moving.object);
    moving.may_be_half = !S_ISDIR(source.st_mode) && (file == nullptr || !file->is_flushed);
  }
  return moving;
}

void moved(const Moving& moving, std::uint64_t call, bool succeeded) {
  const Inside inside;
  if (moving.from.directory < 0) {
    return;
  }
  const Removing& replaced = moving.replaced;
  if (!succeeded) {
    if (replaced.slot >= 0 && replaced.is_directory) {
      require_undone(put_back(replaced.slot, descriptor_of(moving.to), moving.to.name));
    } else if (replaced.slot >= 0) {
      syscall(SYS_unlinkat, store, SlotName(replaced.slot).text, 0);
    }
    return;
  }
  Change& change = add_change(moving.exchanges ? Kind::exchange : Kind::move, call);
  change.from = moving.from;
  change.to = moving.to;
  change.object = moving.object;
  change.other = replaced.object;
  change.exclusive = moving.exclusive;
  change.may_be_half = moving.may_be_half;
  change.gone = replaced;
}

void touch_file(ino_t file) {
  const Inside inside;
  if (TouchedFile* const known = touched(file)) {
    known->is_flushed = false;
    return;
  }
  if (touched_file_count == most_touched_files) {
    refuse("More files are changed than the library can watch");
  }
  touched_files[touched_file_count++] = {file, false};
}

void flush_file(ino_t file) {
  const Inside inside;
  if (TouchedFile* const known = touched(file)) {
    known->is_flushed = true;
  }
}

void flush_names(const struct stat& directory) {
  const Inside inside;
  for (std::size_t known = 0; known < directory_count; ++known) {
    if (directories[known].device == directory.st_dev && directories[known].inode == directory.st_ino) {
      for (std::size_t i = 0; i < change_count; ++i) {
        if (!changes[i].lasts && is_flushed(changes[i], static_cast<int>(known))) {
          let_last(changes[i]);
        }
      }
    }
  }
}

bool names_pending() {
  const Inside inside;
  return pending_count > 0;
}

std::uint64_t names_version() { return version; }

void list_pending_names(char* text, std::size_t size) {
  const Inside inside;
  std::size_t used = static_cast<std::size_t>(std::snprintf(text, size, "%s", pending_count == 0 ? "-" : ""));
  for (std::size_t i = 0; i < change_count; ++i) {
    if (!changes[i].lasts && used + 24 < size) {
      used += static_cast<std::size_t>(std::snprintf(text + used, size - used, "%s%llu%s", used == 0 ? "" : ",",
                                                     static_cast<unsigned long long>(changes[i].call),
                                                     changes[i].may_be_half ? "~" : ""));
    } else if (!changes[i].lasts) {
      refuse("More changes are pending than the library can report");
    }
  }
}

void lose_names(const NameLoss& loss) {
  const Inside inside;
  for (std::size_t i = change_count; i > 0; --i) {
    if (!changes[i - 1].lasts) {
      undo(changes[i - 1]);
    }
  }
  for (std::size_t i = 0; i < change_count; ++i) {
    if (!changes[i].lasts && !is_lost(changes[i], loss)) {
      redo(changes[i]);
    } else if (!changes[i].lasts && loss.kind == NameLoss::Kind::half && changes[i].may_be_half) {
      lose_replaced(changes[i]);
    }
  }
  forget_changes();
}

void keep_names() {
  const Inside inside;
  forget_changes();
}

std::size_t pending_names() {
  const Inside inside;
  return pending_count;
}

int find_object(ino_t object) {
  for (const char* place : {root_path, store_path}) {
    const int found = find_below(syscall(SYS_openat, AT_FDCWD, place, O_RDONLY | O_DIRECTORY | O_CLOEXEC), object);
    if (found >= 0) {
      return found;
    }
  }
  return -1;
}

int open_state(bool for_writing) {
  const int flags = for_writing ? O_WRONLY | O_CREAT | O_TRUNC : O_RDONLY;
  const long opened = syscall(SYS_openat, store, state_name, flags | O_CLOEXEC, 0600);
  if (opened < 0 && (for_writing || errno != ENOENT)) {
    refuse("The file of what may be lost cannot be opened");
  }
  return static_cast<int>(opened);
}

void remove_state() { syscall(SYS_unlinkat, store, state_name, 0); }

void save_bytes(int file, const void* bytes, std::size_t size) {
  if (syscall(SYS_write, file, bytes, size) != static_cast<long>(size)) {
    refuse("What may be lost cannot be saved");
  }
}

void load_bytes(int file, void* bytes, std::size_t size) {
  if (syscall(SYS_read, file, bytes, size) != static_cast<long>(size)) {
    refuse("What may be lost cannot be read");
  }
}

void save_names(int file) {
  const Inside inside;
  const SavedNames saved = {directory_count, pending_count, slot_count};
  save_bytes(file, &saved, sizeof saved);
  save_bytes(file, directories, directory_count * sizeof *directories);
  for (std::size_t i = 0; i < change_count; ++i) {
    if (!changes[i].lasts) {
      save_bytes(file, &changes[i], sizeof changes[i]);
    }
  }
}

void load_names(int file) {
  const Inside inside;
  static Directory former[most_directories];
  SavedNames saved;
  load_bytes(file, &saved, sizeof saved);
  if (saved.directories > most_directories || saved.changes > most_changes) {
    refuse("What may be lost cannot be read");
  }
  load_bytes(file, former, saved.directories * sizeof *former);
  slot_count = saved.slots;
  for (std::size_t i = 0; i < saved.changes; ++i) {
    Change& change = add_change(Kind::make, 0);
    load_bytes(file, &change, sizeof change);
    change.call = first_carried_change + i;
    for (KnownName* const place : Places(change).all) {
      if (place->directory >= 0) {
        Directory& directory = former[place->directory];
        struct stat status {};
        status.st_dev = directory.device;
        status.st_ino = directory.inode;
        const int known = known_directory(status);
        place->directory = known >= 0 ? known : know_directory(find_saved(directory.inode), status);
      }
    }
    if (change.gone.kept >= 0) {
      change.gone.kept = find_saved(change.gone.object);
    }
  }
}

}  // namespace ravok::fault
