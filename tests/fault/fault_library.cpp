// A library to preload into a program on Linux. It counts the program's calls to the file system and, at one chosen
// call, ends the process or fails the call.
//
// It is told what to do by variables of the environment:
//
//   RAVOK_FAULT_ROOT     An absolute path without links. Counting begins with the first call that concerns this
//                        directory, what lies below it or a directory above it; what the program does while it
//                        starts is thereby left out. Without this variable the library does nothing.
//   RAVOK_FAULT_CALL     The number of the call to spoil, the first being 1; 0, or no variable, only counts. With a "+"
//                        behind it, the first call from that number on is spoilt to which the mode can happen.
//   RAVOK_FAULT_MODE     What happens at that call:
//                          exit    the process ends by SIGKILL before the call
//                          power   the same, and what was written to a file and not flushed since is lost
//                          names   the same as power, and names are lost that were made, moved or removed since the
//                                  last flush of their directory; pending_names.hpp says which can be
//                          torn    the first half of the bytes is written, then the process ends by SIGKILL
//                          eio     the call fails with EIO
//                          enospc  the call fails with ENOSPC
//   RAVOK_FAULT_STORE    A directory on the volume of the root and not below it. It keeps what the program removes, so
//                        that a power cut can bring it back, and in the file "pending" what a power cut could still
//                        lose when the program ended. It is empty, or comes from the last program on the same root:
//                        then what that one has not flushed is not flushed at the start of this one either. The
//                        changes of names that it has made have the numbers from 1000001 on. Without a store, no name
//                        is lost, and the files of earlier programs are taken for flushed.
//   RAVOK_FAULT_LOST     Which names the mode "names" loses: "all"; "only N", the change that call N made; "but N",
//                        all but that one; "some N", each or not, as it comes out of the number N; "half N", that
//                        one alone, and with it the name that it has replaced.
//   RAVOK_FAULT_REPORT   A file that gets one line for every counted call, with a tab between the fields: the number,
//                        the function, the modes possible for this very call (separated by commas), the mode that
//                        was applied or "-", how many files were flushed before, the numbers of the calls whose
//                        changes of names a power cut could lose here (separated by commas; "-" for none, "=" for the
//                        same as in the line before), a number that is the same for two calls only where the last
//                        functions on the way to them are (0 while a call is to be spoilt), and the path. A last line
//                        stands for the end of a process that ends by itself, with the number that follows and "end" as
//                        its function.
//   RAVOK_FAULT_PROGRAM  The file name of the program to act in; any other passes the variables on to those that it
//                        starts. Without it the library acts in the first program.
//
// The library acts in one process. It takes its variables and LD_PRELOAD out of the environment, so that programs
// started by this one run without it. From its start on:
//
// - A mode is applied only where the call could meet it: ENOSPC needs a call that takes space, a torn write needs two
//   bytes, a failing close needs a writable file (and still closes it), lost bytes need an unflushed file.
// - Not counted are calls on standard input, output and error, on pipes, sockets and devices, and on /proc, /sys and
//   /dev unless the root lies there.
// - A power cut lets all last that it has not lost. Every other end of the program, and its replacement by another,
//   leaves what was not flushed to the next program that is run with the same store.
// - A flush is counted and not carried out: the end of a process loses nothing that was written, and hundreds of runs
//   shall not wait for a device.
// - A process that is still there after 300 seconds ends by SIGALRM.
// - Wrong settings end the process at once with code 125 and a line on standard error.
//
// Calls that the C library makes inside itself, such as those of stdio, cannot be seen.

// The checked forms of the C library are inline functions that would stand in the way of the plain ones.
#undef _FORTIFY_SOURCE

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <unwind.h>

#include "fault/pending_names.hpp"

namespace ravok::fault {

void refuse(const char* problem) {
  char line[256];
  const int size = std::snprintf(line, sizeof line, "fault library: %s\n", problem);
  syscall(SYS_write, STDERR_FILENO, line, static_cast<std::size_t>(size));
  syscall(SYS_exit_group, 125);
  std::abort();
}

}  // namespace ravok::fault

namespace {

using namespace ravok::fault;

// --- What the library is told ----------------------------------------------------------------

enum class Mode { none, exit, power, names, torn, eio, enospc };

constexpr const char* mode_names[] = {"-", "exit", "power", "names", "torn", "eio", "enospc"};
constexpr unsigned seconds_to_live = 300;
// The library's own descriptors lie above those that a program counts on.
constexpr int first_own_descriptor = 512;

// The failures that may happen to a call, besides the end of the process.
constexpr unsigned can_eio = 1;
constexpr unsigned can_enospc = 2;
constexpr unsigned can_tear = 4;

// Answers of spoil() besides an errno value.
constexpr int untouched = 0;
constexpr int tear = -1;

struct Control {
  bool active = false;
  pid_t process = 0;
  char root[4096] = {};
  std::size_t root_size = 0;
  std::uint64_t chosen = 0;
  bool or_later = false;
  bool done = false;  // whether a call was spoilt
  Mode mode = Mode::none;
  NameLoss loss;
  int report = -1;
  std::uint64_t reported_names = 0;  // names_version() at the last report
  std::atomic<bool> armed = false;
  std::atomic<std::uint64_t> count = 0;
  std::atomic<std::uint64_t> flushed_files = 0;
};

constinit Control control;
// The number of the call that this thread is in, or 0 for a call that is not counted.
constinit thread_local std::uint64_t current_call = 0;

class KeptErrno {
 public:
  KeptErrno() : value_(errno) {}
  ~KeptErrno() { errno = value_; }
  KeptErrno(const KeptErrno&) = delete;
  KeptErrno& operator=(const KeptErrno&) = delete;

 private:
  int value_;
};

bool status_of(int descriptor, struct stat& status) { return syscall(SYS_fstat, descriptor, &status) == 0; }

void save_state();

[[noreturn]] void end_process() {
  save_state();
  syscall(SYS_kill, control.process, SIGKILL);
  for (;;) {
    syscall(SYS_pause);
  }
}

// --- What was written and not flushed --------------------------------------------------------

struct WrittenFile {
  dev_t device = 0;
  ino_t inode = 0;
  int descriptor = -1;
  off_t flushed_size = 0;
  bool flushed = false;
};

constexpr std::size_t most_written_files = 256;
constinit WrittenFile written_files[most_written_files];
constinit std::size_t written_file_count = 0;
constinit std::atomic_flag written_files_taken = ATOMIC_FLAG_INIT;

class WrittenFilesLock {
 public:
  WrittenFilesLock() {
    while (written_files_taken.test_and_set(std::memory_order_acquire)) {
    }
  }
  ~WrittenFilesLock() { written_files_taken.clear(std::memory_order_release); }
  WrittenFilesLock(const WrittenFilesLock&) = delete;
  WrittenFilesLock& operator=(const WrittenFilesLock&) = delete;
};

WrittenFile* find_written(const struct stat& status) {
  for (std::size_t i = 0; i < written_file_count; ++i) {
    if (written_files[i].device == status.st_dev && written_files[i].inode == status.st_ino) {
      return &written_files[i];
    }
  }
  return nullptr;
}

bool anything_unflushed() {
  const WrittenFilesLock lock;
  for (std::size_t i = 0; i < written_file_count; ++i) {
    if (!written_files[i].flushed) {
      return true;
    }
  }
  return false;
}

// Opens the file anew: a description that is shared with the program would share the program's locks too.
int open_again(int descriptor) {
  char link[64];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
  const long opened = syscall(SYS_openat, AT_FDCWD, link, O_WRONLY | O_CLOEXEC);
  if (opened < 0) {
    return -1;
  }
  const long moved = syscall(SYS_fcntl, opened, F_DUPFD_CLOEXEC, first_own_descriptor);
  if (moved < 0) {
    return static_cast<int>(opened);
  }
  syscall(SYS_close, opened);
  return static_cast<int>(moved);
}

// Returns the place of one more file, which may be that of a file with nothing to lose.
WrittenFile& room_for_written() {
  if (written_file_count < most_written_files) {
    return written_files[written_file_count++];
  }
  for (WrittenFile& file : written_files) {
    if (file.flushed) {
      syscall(SYS_close, file.descriptor);
      return file;
    }
  }
  refuse("More files are written than the library can watch");
}

// Called before a file's content changes.
void note_write(int descriptor) {
  struct stat status;
  if (!control.active || !control.armed || descriptor <= STDERR_FILENO) {
    return;
  }
  const KeptErrno kept;
  if (!status_of(descriptor, status) || !S_ISREG(status.st_mode)) {
    return;
  }
  if (names_watched()) {
    touch_file(status.st_ino);
  }
  const WrittenFilesLock lock;
  WrittenFile* file = find_written(status);
  if (file == nullptr) {
    file = &room_for_written();
    *file = {status.st_dev, status.st_ino, open_again(descriptor), status.st_size, true};
  }
  file->flushed = false;
}

void note_flush(int descriptor) {
  struct stat status;
  const KeptErrno kept;
  if (!status_of(descriptor, status)) {
    return;
  }
  if (names_watched()) {
    flush_file(status.st_ino);
  }
  const WrittenFilesLock lock;
  if (WrittenFile* const file = find_written(status)) {
    file->flushed_size = status.st_size;
    file->flushed = true;
    ++control.flushed_files;
  }
}

void lose_unflushed() {
  const WrittenFilesLock lock;
  for (std::size_t i = 0; i < written_file_count; ++i) {
    const WrittenFile& file = written_files[i];
    struct stat status;
    if (!file.flushed && status_of(file.descriptor, status) && status.st_size > file.flushed_size) {
      syscall(SYS_ftruncate, file.descriptor, file.flushed_size);
    }
  }
  written_file_count = 0;
}

// --- From one program to the next ------------------------------------------------------------

struct SavedFile {
  WrittenFile file;
  char path[4096];
};

std::size_t unflushed_files() {
  const WrittenFilesLock lock;
  std::size_t count = 0;
  for (std::size_t i = 0; i < written_file_count; ++i) {
    count += written_files[i].flushed ? 0 : 1;
  }
  return count;
}

// The line with which the file of the state begins, for those who read it: how much of what may be lost.
struct StateLine {
  char text[64] = {};
};

void save_state() {
  if (!names_watched()) {
    return;
  }
  static SavedFile saved;
  const int state = open_state(true);
  const std::size_t files = unflushed_files();
  StateLine line;
  std::snprintf(line.text, sizeof line.text, "%zu names, %zu files\n", pending_names(), files);
  save_bytes(state, &line, sizeof line);
  save_names(state);
  save_bytes(state, &files, sizeof files);
  const WrittenFilesLock lock;
  for (std::size_t i = 0; i < written_file_count; ++i) {
    if (!written_files[i].flushed) {
      saved.file = written_files[i];
      char link[64];
      std::snprintf(link, sizeof link, "/proc/self/fd/%d", saved.file.descriptor);
      const long size = syscall(SYS_readlinkat, AT_FDCWD, link, saved.path, sizeof saved.path - 1);
      saved.path[size < 0 ? 0 : size] = '\0';
      save_bytes(state, &saved, sizeof saved);
    }
  }
  syscall(SYS_close, state);
}

// Opens a file again that an earlier program has written: below the root it may have got another name, elsewhere it is
// found by its path. One that is gone has nothing to lose.
int open_written(const SavedFile& saved) {
  struct stat status;
  for (const bool by_path : {true, false}) {
    const int found = by_path ? static_cast<int>(syscall(SYS_openat, AT_FDCWD, saved.path, O_PATH | O_CLOEXEC))
                              : find_object(saved.file.inode);
    const bool is_it = found >= 0 && status_of(found, status) && status.st_dev == saved.file.device &&
                       status.st_ino == saved.file.inode;
    const int opened = is_it ? open_again(found) : -1;
    if (found >= 0) {
      syscall(SYS_close, found);
    }
    if (is_it) {
      return opened;
    }
  }
  return -1;
}

void load_state() {
  const int state = open_state(false);
  if (state < 0) {
    return;
  }
  static SavedFile saved;
  StateLine line;
  std::size_t files = 0;
  load_bytes(state, &line, sizeof line);
  load_names(state);
  load_bytes(state, &files, sizeof files);
  for (std::size_t i = 0; i < files; ++i) {
    load_bytes(state, &saved, sizeof saved);
    saved.file.descriptor = open_written(saved);
    if (saved.file.descriptor >= 0) {
      room_for_written() = saved.file;
    }
  }
  syscall(SYS_close, state);
  // A program whose end is not seen shall not leave what an earlier one has left.
  remove_state();
}

// --- What a call concerns --------------------------------------------------------------------

struct Subject {
  int descriptor;    // the open file, or the directory that the path starts from
  const char* path;  // null for the open file itself
};

Subject of(int descriptor) { return {descriptor, nullptr}; }
Subject named(const char* path) { return {AT_FDCWD, path}; }
Subject at(int directory, const char* path) { return {directory, path}; }

struct Text {
  char bytes[8192];
  std::size_t size;
};

void append(Text& text, const char* bytes) {
  const std::size_t size = std::strlen(bytes);
  if (size < sizeof text.bytes - text.size) {
    std::memcpy(text.bytes + text.size, bytes, size + 1);
    text.size += size;
  }
}

bool append_link(Text& text, const char* link) {
  const long size = syscall(SYS_readlinkat, AT_FDCWD, link, text.bytes, sizeof text.bytes / 2);
  text.size = size < 0 ? 0 : static_cast<std::size_t>(size);
  text.bytes[text.size] = '\0';
  return size >= 0;
}

bool append_descriptor(Text& text, int descriptor) {
  if (descriptor == AT_FDCWD) {
    return append_link(text, "/proc/self/cwd");
  }
  struct stat status;
  if (descriptor <= STDERR_FILENO || !status_of(descriptor, status) ||
      (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode))) {
    return false;
  }
  char link[64];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
  return append_link(text, link);
}

// Finds the absolute path that the call concerns. Returns false when that is no file or directory.
bool resolve(const Subject& subject, Text& text) {
  text.size = 0;
  text.bytes[0] = '\0';
  const bool absolute = subject.path != nullptr && subject.path[0] == '/';
  if (!absolute && !append_descriptor(text, subject.descriptor)) {
    return false;
  }
  if (subject.path != nullptr && subject.path[0] != '\0') {
    if (!absolute && std::strcmp(text.bytes, "/") != 0) {
      append(text, "/");
    }
    append(text, subject.path);
  }
  return true;
}

// Whether `inner` is `outer` or lies below it.
bool lies_in(const char* inner, const char* outer, std::size_t outer_size) {
  if (outer_size == 1) {
    return inner[0] == '/';
  }
  return std::strncmp(inner, outer, outer_size) == 0 && (inner[outer_size] == '\0' || inner[outer_size] == '/');
}

bool ends_with(const Text& text, const char* end) {
  const std::size_t size = std::strlen(end);
  return text.size >= size && std::strcmp(text.bytes + text.size - size, end) == 0;
}

bool is_counted(const Text& path) {
  const bool inside = lies_in(path.bytes, control.root, control.root_size);
  if (inside || lies_in(control.root, path.bytes, path.size)) {
    control.armed = true;
  }
  for (const char* place : {"/proc", "/sys", "/dev"}) {
    if (!inside && lies_in(path.bytes, place, std::strlen(place))) {
      return false;
    }
  }
  // The files of the coverage run-time are not written by the program itself.
  return control.armed && !ends_with(path, ".gcda");
}

// --- Counting and spoiling -------------------------------------------------------------------

// What could happen to a call.
struct Chances {
  unsigned faults = 0;
  bool unflushed = false;  // files
  bool names_pending = false;
  bool goes_on = true;  // false at the end of the process
};

bool is_possible(Mode mode, const Chances& chances) {
  const unsigned faults = chances.faults;
  switch (mode) {
    case Mode::none:
      return false;
    case Mode::exit:
      return chances.goes_on;
    case Mode::power:
      return chances.unflushed;
    case Mode::names:
      return chances.names_pending;
    case Mode::torn:
      return (faults & can_tear) != 0;
    case Mode::eio:
      return (faults & can_eio) != 0;
    case Mode::enospc:
      return (faults & can_enospc) != 0;
  }
  return false;
}

struct Callers {
  std::uint64_t hash = 0xcbf29ce484222325;
  int count = 0;
};

_Unwind_Reason_Code add_caller(_Unwind_Context* context, void* found) {
  constexpr int most = 8;  // this library's own among them
  Callers& callers = *static_cast<Callers*>(found);
  // FNV-1a over the addresses to which the functions will return.
  callers.hash = (callers.hash ^ static_cast<std::uint64_t>(_Unwind_GetIP(context))) * 0x100000001b3;
  return ++callers.count < most ? _URC_NO_REASON : _URC_END_OF_STACK;
}

// Returns a number for the last functions that have been called, within one run of a program.
std::uint64_t last_callers() {
  Callers callers;
  _Unwind_Backtrace(add_caller, &callers);
  return callers.hash;
}

void report(std::uint64_t number, const char* name, const Chances& chances, Mode applied, Text& path) {
  if (control.report < 0) {
    return;
  }
  char modes[64] = "";
  for (const Mode mode : {Mode::exit, Mode::power, Mode::names, Mode::torn, Mode::eio, Mode::enospc}) {
    if (is_possible(mode, chances)) {
      std::strcat(modes, modes[0] == '\0' ? "" : ",");
      std::strcat(modes, mode_names[static_cast<int>(mode)]);
    }
  }
  for (char* byte = path.bytes; *byte != '\0'; ++byte) {
    *byte = *byte == '\n' ? '?' : *byte;
  }
  static char pending[65536];
  std::strcpy(pending, number == 1 ? "-" : "=");
  if (names_version() != control.reported_names) {
    control.reported_names = names_version();
    list_pending_names(pending, sizeof pending);
  }
  static char line[sizeof path.bytes + sizeof pending + 256];
  const int size = std::snprintf(
      line, sizeof line, "%llu\t%s\t%s\t%s\t%llu\t%s\t%llu\t%s\n", static_cast<unsigned long long>(number), name, modes,
      mode_names[static_cast<int>(applied)], static_cast<unsigned long long>(control.flushed_files), pending,
      static_cast<unsigned long long>(control.chosen == 0 ? last_callers() : 0), path.bytes);
  syscall(SYS_write, control.report, line, static_cast<std::size_t>(size));
}

// Counts the call or the end, reports it, and returns whether it is to be spoilt. Ends the process here where the mode
// says so.
bool is_chosen(const char* name, Chances chances, Text& path) {
  static constinit std::atomic_flag counting = ATOMIC_FLAG_INIT;
  while (counting.test_and_set(std::memory_order_acquire)) {
  }
  const std::uint64_t number = ++control.count;
  current_call = number;
  chances.unflushed = anything_unflushed();
  chances.names_pending = names_pending();
  const bool is_there = control.or_later ? number >= control.chosen && !control.done : number == control.chosen;
  const bool chosen = is_there && control.chosen > 0 && is_possible(control.mode, chances);
  control.done = control.done || chosen;
  report(number, name, chances, chosen ? control.mode : Mode::none, path);
  counting.clear(std::memory_order_release);
  if (chosen && (control.mode == Mode::power || control.mode == Mode::names)) {
    lose_unflushed();
  }
  if (chosen && control.mode == Mode::names) {
    lose_names(control.loss);
  }
  if (chosen && control.mode == Mode::power) {
    keep_names();
  }
  if (chosen && (control.mode == Mode::power || control.mode == Mode::names || control.mode == Mode::exit)) {
    end_process();
  }
  return chosen;
}

// Counts the call and returns what is to be done to it: `untouched`, `tear`, or the errno value to fail with.
int spoil(const char* name, unsigned faults, const Subject& subject) {
  current_call = 0;
  if (!control.active) {
    return untouched;
  }
  const KeptErrno kept;
  Text path;
  if (!resolve(subject, path) || !is_counted(path) || syscall(SYS_getpid) != control.process) {
    return untouched;
  }
  if (!is_chosen(name, {.faults = faults}, path)) {
    return untouched;
  }
  switch (control.mode) {
    case Mode::torn:
      return tear;
    case Mode::eio:
      return EIO;
    case Mode::enospc:
      return ENOSPC;
    default:
      return untouched;
  }
}

// --- The functions behind ours ---------------------------------------------------------------

template <std::size_t size>
struct Name {
  char text[size];
  constexpr Name(const char (&literal)[size]) {  // NOLINT(google-explicit-constructor)
    for (std::size_t i = 0; i < size; ++i) {
      text[i] = literal[i];
    }
  }
};

template <Name name, typename Function>
Function* next() {
  static constinit std::atomic<void*> known = nullptr;
  void* symbol = known.load(std::memory_order_relaxed);
  if (symbol == nullptr) {
    const KeptErrno kept;
    symbol = dlsym(RTLD_NEXT, name.text);
    if (symbol == nullptr) {
      std::abort();
    }
    known.store(symbol, std::memory_order_relaxed);
  }
  return reinterpret_cast<Function*>(symbol);
}

// A function that answers -1 and sets errno when it fails.
template <Name name, typename Function, typename... Arguments>
auto counted(unsigned faults, const Subject& subject, Arguments... arguments)
    -> decltype(next<name, Function>()(arguments...)) {
  if (const int problem = spoil(name.text, faults, subject); problem != untouched) {
    errno = problem;
    return -1;
  }
  return next<name, Function>()(arguments...);
}

// A function that answers with a pointer, and with none when it fails.
template <Name name, typename Function, typename... Arguments>
auto counted_pointer(unsigned faults, const Subject& subject, Arguments... arguments)
    -> decltype(next<name, Function>()(arguments...)) {
  if (const int problem = spoil(name.text, faults, subject); problem != untouched) {
    errno = problem;
    return nullptr;
  }
  return next<name, Function>()(arguments...);
}

constexpr unsigned taking_space = can_eio | can_enospc;

bool succeeded(int result) { return result >= 0; }
bool succeeded(const void* result) { return result != nullptr; }

// Whether the names that the present call changes are watched.
bool is_watched() { return names_watched() && current_call != 0; }

// Carries out a call that may make a name, and notes the name with the number of the call.
template <typename Call>
auto making(const Subject& subject, Call call) -> decltype(call()) {
  if (!is_watched()) {
    return call();
  }
  const Making before = before_making(subject.descriptor, subject.path);
  const auto result = call();
  if (succeeded(result)) {
    made(before, current_call);
  }
  return result;
}

// A function that makes a name, answers -1 and sets errno when it fails.
template <Name name, typename Function, typename... Arguments>
int counted_making(const Subject& reported, const Subject& made, Arguments... arguments) {
  if (const int problem = spoil(name.text, taking_space, reported); problem != untouched) {
    errno = problem;
    return -1;
  }
  return making(made, [&] { return next<name, Function>()(arguments...); });
}

// A function that opens a file, and with O_CREAT makes it.
template <Name name, typename Function, typename... Arguments>
int counted_open(int flags, const Subject& subject, Arguments... arguments) {
  const bool may_make = (flags & O_CREAT) != 0;
  if (const int problem = spoil(name.text, may_make ? taking_space : can_eio, subject); problem != untouched) {
    errno = problem;
    return -1;
  }
  const auto call = [&] { return next<name, Function>()(arguments...); };
  return may_make ? making(subject, call) : call();
}

template <Name name, typename... Arguments>
FILE* counted_stream(const char* path, const char* mode) {
  const bool may_make = mode[0] != 'r';
  if (const int problem = spoil(name.text, may_make ? taking_space : can_eio, named(path)); problem != untouched) {
    errno = problem;
    return nullptr;
  }
  const auto call = [&] { return next<name, FILE*(const char*, const char*)>()(path, mode); };
  return may_make ? making(named(path), call) : call();
}

// A function that removes the name of a directory, or of anything else.
template <Name name, typename Function, typename... Arguments>
int counted_removal(const Subject& subject, bool of_directory, Arguments... arguments) {
  if (const int problem = spoil(name.text, can_eio, subject); problem != untouched) {
    errno = problem;
    return -1;
  }
  if (!is_watched()) {
    return next<name, Function>()(arguments...);
  }
  const Removing before = before_removing(subject.descriptor, subject.path, of_directory);
  const int result = before.done ? 0 : next<name, Function>()(arguments...);
  if (result == 0) {
    removed(before, current_call);
  }
  return result;
}

template <Name name, typename Function, typename... Arguments>
int counted_move(const Subject& from, const Subject& to, unsigned flags, Arguments... arguments) {
  if (const int problem = spoil(name.text, taking_space, from); problem != untouched) {
    errno = problem;
    return -1;
  }
  if (!is_watched()) {
    return next<name, Function>()(arguments...);
  }
  const Moving before = before_moving(from.descriptor, from.path, to.descriptor, to.path, flags);
  const int result = next<name, Function>()(arguments...);
  moved(before, current_call, result == 0);
  return result;
}

bool is_directory(const char* path) {
  const KeptErrno kept;
  struct stat status;
  return syscall(SYS_newfstatat, AT_FDCWD, path, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode);
}

bool takes_mode(int flags) { return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE; }

unsigned faults_of_write(std::size_t size) { return size < 2 ? taking_space : taking_space | can_tear; }

template <Name name, typename Function, typename... Arguments>
ssize_t counted_write(int descriptor, const void* bytes, std::size_t size, Arguments... arguments) {
  const int problem = spoil(name.text, faults_of_write(size), of(descriptor));
  if (problem == untouched || problem == tear) {
    note_write(descriptor);
    const std::size_t part = problem == tear ? size / 2 : size;
    const ssize_t written = next<name, Function>()(descriptor, bytes, part, arguments...);
    if (problem == tear) {
      end_process();
    }
    return written;
  }
  errno = problem;
  return -1;
}

// A function that changes a file's content or length other than by writing bytes.
template <Name name, typename Function, typename... Arguments>
int counted_change(unsigned faults, int descriptor, Arguments... arguments) {
  if (const int problem = spoil(name.text, faults, of(descriptor)); problem != untouched) {
    errno = problem;
    return -1;
  }
  note_write(descriptor);
  return next<name, Function>()(descriptor, arguments...);
}

// These answer with the errno value itself.
template <Name name, typename Function, typename Offset>
int counted_claim(int descriptor, Offset offset, Offset length) {
  if (const int problem = spoil(name.text, taking_space, of(descriptor)); problem != untouched) {
    return problem;
  }
  note_write(descriptor);
  return next<name, Function>()(descriptor, offset, length);
}

template <Name name, typename Function>
int counted_flush(int descriptor) {
  if (const int problem = spoil(name.text, taking_space, of(descriptor)); problem != untouched) {
    errno = problem;
    return -1;
  }
  struct stat status;
  if (!control.active || !control.armed || !status_of(descriptor, status)) {
    return next<name, Function>()(descriptor);
  }
  if (S_ISDIR(status.st_mode)) {
    flush_names(status);
  } else {
    note_flush(descriptor);
  }
  return 0;
}

// --- The start -------------------------------------------------------------------------------

bool is_this_program(const char* name) {
  Text path{};
  if (!append_link(path, "/proc/self/exe")) {
    return false;
  }
  const char* const slash = std::strrchr(path.bytes, '/');
  return slash != nullptr && std::strcmp(slash + 1, name) == 0;
}

Mode mode_called(const char* name) {
  for (const Mode mode : {Mode::exit, Mode::power, Mode::names, Mode::torn, Mode::eio, Mode::enospc}) {
    if (std::strcmp(name, mode_names[static_cast<int>(mode)]) == 0) {
      return mode;
    }
  }
  refuse("RAVOK_FAULT_MODE must be exit, power, names, torn, eio or enospc");
}

void take_root(const char* root) {
  control.root_size = std::strlen(root);
  if (root[0] != '/' || control.root_size >= sizeof control.root ||
      (control.root_size > 1 && root[control.root_size - 1] == '/')) {
    refuse("RAVOK_FAULT_ROOT must be an absolute path without a slash at its end");
  }
  std::memcpy(control.root, root, control.root_size + 1);
}

void take_call(const char* call, const char* mode) {
  char* end = nullptr;
  errno = 0;
  control.chosen = std::strtoull(call, &end, 10);
  control.or_later = *end == '+';
  if (call[0] < '0' || call[0] > '9' || end[control.or_later ? 1 : 0] != '\0' || errno != 0) {
    refuse("RAVOK_FAULT_CALL must be a decimal number");
  }
  if (control.chosen > 0) {
    control.mode = mode_called(mode == nullptr ? "" : mode);
  }
}

void take_loss(const char* loss) {
  const struct {
    const char* word;
    NameLoss::Kind kind;
  } kinds[] = {{"only ", NameLoss::Kind::only},
               {"but ", NameLoss::Kind::but},
               {"some ", NameLoss::Kind::some},
               {"half ", NameLoss::Kind::half}};
  for (const auto& [word, kind] : kinds) {
    const std::size_t size = std::strlen(word);
    if (std::strncmp(loss, word, size) == 0 && loss[size] >= '0' && loss[size] <= '9') {
      char* end = nullptr;
      control.loss = {kind, std::strtoull(loss + size, &end, 10)};
      if (*end == '\0') {
        return;
      }
    }
  }
  if (std::strcmp(loss, "all") != 0) {
    refuse("RAVOK_FAULT_LOST must be all, only N, but N, some N or half N");
  }
}

void take_report(const char* path) {
  const long opened = syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (opened < 0) {
    refuse("RAVOK_FAULT_REPORT cannot be opened");
  }
  const long moved = syscall(SYS_fcntl, opened, F_DUPFD_CLOEXEC, first_own_descriptor);
  if (moved < 0) {
    refuse("RAVOK_FAULT_REPORT needs a limit of more than 512 open files");
  }
  syscall(SYS_close, opened);
  control.report = static_cast<int>(moved);
}

__attribute__((constructor)) void start() {
  const char* const root = std::getenv("RAVOK_FAULT_ROOT");
  const char* const program = std::getenv("RAVOK_FAULT_PROGRAM");
  if (root == nullptr || (program != nullptr && !is_this_program(program))) {
    return;
  }
  const KeptErrno kept;
  take_root(root);
  if (const char* const call = std::getenv("RAVOK_FAULT_CALL")) {
    take_call(call, std::getenv("RAVOK_FAULT_MODE"));
  }
  if (const char* const loss = std::getenv("RAVOK_FAULT_LOST")) {
    take_loss(loss);
  }
  if (const char* const store = std::getenv("RAVOK_FAULT_STORE")) {
    watch_names(root, store);
    load_state();
  }
  if (const char* const path = std::getenv("RAVOK_FAULT_REPORT")) {
    take_report(path);
  }
  for (const char* variable : {"RAVOK_FAULT_ROOT", "RAVOK_FAULT_CALL", "RAVOK_FAULT_MODE", "RAVOK_FAULT_LOST",
                               "RAVOK_FAULT_STORE", "RAVOK_FAULT_REPORT", "RAVOK_FAULT_PROGRAM", "LD_PRELOAD"}) {
    unsetenv(variable);
  }
  alarm(seconds_to_live);
  control.process = getpid();
  control.active = true;
}

// The end of a program does not make durable what it has done.
__attribute__((destructor)) void finish() {
  Text path{};
  if (control.active && control.armed && syscall(SYS_getpid) == control.process) {
    append(path, control.root);
    is_chosen("end", {.goes_on = false}, path);
  }
  if (control.active && syscall(SYS_getpid) == control.process) {
    save_state();
  }
}

}  // namespace

// --- The functions that stand before those of the C library ----------------------------------

extern "C" {

// Opening and closing.

int open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if (takes_mode(flags)) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  return counted_open<"open", int(const char*, int, ...)>(flags, named(path), path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  mode_t mode = 0;
  if (takes_mode(flags)) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  return counted_open<"open64", int(const char*, int, ...)>(flags, named(path), path, flags, mode);
}

int openat(int directory, const char* path, int flags, ...) {
  mode_t mode = 0;
  if (takes_mode(flags)) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  return counted_open<"openat", int(int, const char*, int, ...)>(flags, at(directory, path), directory, path, flags,
                                                                 mode);
}

int openat64(int directory, const char* path, int flags, ...) {
  mode_t mode = 0;
  if (takes_mode(flags)) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  return counted_open<"openat64", int(int, const char*, int, ...)>(flags, at(directory, path), directory, path, flags,
                                                                   mode);
}

int __open_2(const char* path, int flags) {
  return counted<"__open_2", int(const char*, int)>(can_eio, named(path), path, flags);
}

int __open64_2(const char* path, int flags) {
  return counted<"__open64_2", int(const char*, int)>(can_eio, named(path), path, flags);
}

int __openat_2(int directory, const char* path, int flags) {
  return counted<"__openat_2", int(int, const char*, int)>(can_eio, at(directory, path), directory, path, flags);
}

int __openat64_2(int directory, const char* path, int flags) {
  return counted<"__openat64_2", int(int, const char*, int)>(can_eio, at(directory, path), directory, path, flags);
}

int creat(const char* path, mode_t mode) {
  return counted_open<"creat", int(const char*, mode_t)>(O_CREAT, named(path), path, mode);
}

int creat64(const char* path, mode_t mode) {
  return counted_open<"creat64", int(const char*, mode_t)>(O_CREAT, named(path), path, mode);
}

FILE* fopen(const char* path, const char* mode) { return counted_stream<"fopen">(path, mode); }

FILE* fopen64(const char* path, const char* mode) { return counted_stream<"fopen64">(path, mode); }

int close(int descriptor) {
  const bool writable = control.active && (syscall(SYS_fcntl, descriptor, F_GETFL) & O_ACCMODE) != O_RDONLY;
  const int problem = spoil("close", writable ? taking_space : 0, of(descriptor));
  const int result = next<"close", int(int)>()(descriptor);
  if (problem == untouched) {
    return result;
  }
  errno = problem;
  return -1;
}

// Bytes.

ssize_t read(int descriptor, void* bytes, size_t size) {
  return counted<"read", ssize_t(int, void*, size_t)>(can_eio, of(descriptor), descriptor, bytes, size);
}

ssize_t __read_chk(int descriptor, void* bytes, size_t size, size_t room) {
  return counted<"__read_chk", ssize_t(int, void*, size_t, size_t)>(can_eio, of(descriptor), descriptor, bytes, size,
                                                                    room);
}

ssize_t pread(int descriptor, void* bytes, size_t size, off_t offset) {
  return counted<"pread", ssize_t(int, void*, size_t, off_t)>(can_eio, of(descriptor), descriptor, bytes, size, offset);
}

ssize_t pread64(int descriptor, void* bytes, size_t size, off64_t offset) {
  return counted<"pread64", ssize_t(int, void*, size_t, off64_t)>(can_eio, of(descriptor), descriptor, bytes, size,
                                                                  offset);
}

ssize_t __pread_chk(int descriptor, void* bytes, size_t size, off_t offset, size_t room) {
  return counted<"__pread_chk", ssize_t(int, void*, size_t, off_t, size_t)>(can_eio, of(descriptor), descriptor, bytes,
                                                                            size, offset, room);
}

ssize_t __pread64_chk(int descriptor, void* bytes, size_t size, off64_t offset, size_t room) {
  return counted<"__pread64_chk", ssize_t(int, void*, size_t, off64_t, size_t)>(can_eio, of(descriptor), descriptor,
                                                                                bytes, size, offset, room);
}

ssize_t readv(int descriptor, const struct iovec* parts, int count) {
  return counted<"readv", ssize_t(int, const struct iovec*, int)>(can_eio, of(descriptor), descriptor, parts, count);
}

ssize_t write(int descriptor, const void* bytes, size_t size) {
  return counted_write<"write", ssize_t(int, const void*, size_t)>(descriptor, bytes, size);
}

ssize_t pwrite(int descriptor, const void* bytes, size_t size, off_t offset) {
  return counted_write<"pwrite", ssize_t(int, const void*, size_t, off_t)>(descriptor, bytes, size, offset);
}

ssize_t pwrite64(int descriptor, const void* bytes, size_t size, off64_t offset) {
  return counted_write<"pwrite64", ssize_t(int, const void*, size_t, off64_t)>(descriptor, bytes, size, offset);
}

// A torn write of several parts ends within the first of them.
ssize_t writev(int descriptor, const struct iovec* parts, int count) {
  const int problem = spoil("writev", faults_of_write(count > 0 ? parts[0].iov_len : 0), of(descriptor));
  if (problem == tear) {
    note_write(descriptor);
    syscall(SYS_write, descriptor, parts[0].iov_base, parts[0].iov_len / 2);
    end_process();
  }
  if (problem != untouched) {
    errno = problem;
    return -1;
  }
  note_write(descriptor);
  return next<"writev", ssize_t(int, const struct iovec*, int)>()(descriptor, parts, count);
}

ssize_t sendfile(int to, int from, off_t* offset, size_t size) {
  const ssize_t problem = spoil("sendfile", taking_space, of(to));
  if (problem != untouched) {
    errno = static_cast<int>(problem);
    return -1;
  }
  note_write(to);
  return next<"sendfile", ssize_t(int, int, off_t*, size_t)>()(to, from, offset, size);
}

ssize_t copy_file_range(int from, off64_t* from_offset, int to, off64_t* to_offset, size_t size, unsigned flags) {
  const int problem = spoil("copy_file_range", taking_space, of(to));
  if (problem != untouched) {
    errno = problem;
    return -1;
  }
  note_write(to);
  return next<"copy_file_range", ssize_t(int, off64_t*, int, off64_t*, size_t, unsigned)>()(from, from_offset, to,
                                                                                            to_offset, size, flags);
}

// Lengths, blocks and flushes.

int ftruncate(int descriptor, off_t length) noexcept {
  return counted_change<"ftruncate", int(int, off_t)>(can_eio, descriptor, length);
}

int ftruncate64(int descriptor, off64_t length) noexcept {
  return counted_change<"ftruncate64", int(int, off64_t)>(can_eio, descriptor, length);
}

int fallocate(int descriptor, int mode, off_t offset, off_t length) {
  return counted_change<"fallocate", int(int, int, off_t, off_t)>(taking_space, descriptor, mode, offset, length);
}

int fallocate64(int descriptor, int mode, off64_t offset, off64_t length) {
  return counted_change<"fallocate64", int(int, int, off64_t, off64_t)>(taking_space, descriptor, mode, offset, length);
}

int posix_fallocate(int descriptor, off_t offset, off_t length) {
  return counted_claim<"posix_fallocate", int(int, off_t, off_t)>(descriptor, offset, length);
}

int posix_fallocate64(int descriptor, off64_t offset, off64_t length) {
  return counted_claim<"posix_fallocate64", int(int, off64_t, off64_t)>(descriptor, offset, length);
}

int fsync(int descriptor) { return counted_flush<"fsync", int(int)>(descriptor); }

int fdatasync(int descriptor) { return counted_flush<"fdatasync", int(int)>(descriptor); }

// Names.

int rename(const char* from, const char* to) noexcept {
  return counted_move<"rename", int(const char*, const char*)>(named(from), named(to), 0, from, to);
}

int renameat(int from_directory, const char* from, int to_directory, const char* to) noexcept {
  return counted_move<"renameat", int(int, const char*, int, const char*)>(
      at(from_directory, from), at(to_directory, to), 0, from_directory, from, to_directory, to);
}

int renameat2(int from_directory, const char* from, int to_directory, const char* to, unsigned flags) noexcept {
  return counted_move<"renameat2", int(int, const char*, int, const char*, unsigned)>(
      at(from_directory, from), at(to_directory, to), flags, from_directory, from, to_directory, to, flags);
}

int link(const char* from, const char* to) noexcept {
  return counted_making<"link", int(const char*, const char*)>(named(from), named(to), from, to);
}

int linkat(int from_directory, const char* from, int to_directory, const char* to, int flags) noexcept {
  return counted_making<"linkat", int(int, const char*, int, const char*, int)>(
      at(from_directory, from), at(to_directory, to), from_directory, from, to_directory, to, flags);
}

int symlink(const char* target, const char* path) noexcept {
  return counted_making<"symlink", int(const char*, const char*)>(named(path), named(path), target, path);
}

int symlinkat(const char* target, int directory, const char* path) noexcept {
  return counted_making<"symlinkat", int(const char*, int, const char*)>(at(directory, path), at(directory, path),
                                                                         target, directory, path);
}

int unlink(const char* path) noexcept { return counted_removal<"unlink", int(const char*)>(named(path), false, path); }

int unlinkat(int directory, const char* path, int flags) noexcept {
  return counted_removal<"unlinkat", int(int, const char*, int)>(at(directory, path), (flags & AT_REMOVEDIR) != 0,
                                                                 directory, path, flags);
}

int remove(const char* path) noexcept {
  return counted_removal<"remove", int(const char*)>(named(path), is_directory(path), path);
}

int mkdir(const char* path, mode_t mode) noexcept {
  return counted_making<"mkdir", int(const char*, mode_t)>(named(path), named(path), path, mode);
}

int mkdirat(int directory, const char* path, mode_t mode) noexcept {
  return counted_making<"mkdirat", int(int, const char*, mode_t)>(at(directory, path), at(directory, path), directory,
                                                                  path, mode);
}

int rmdir(const char* path) noexcept { return counted_removal<"rmdir", int(const char*)>(named(path), true, path); }

ssize_t readlink(const char* path, char* bytes, size_t size) noexcept {
  return counted<"readlink", ssize_t(const char*, char*, size_t)>(can_eio, named(path), path, bytes, size);
}

ssize_t readlinkat(int directory, const char* path, char* bytes, size_t size) noexcept {
  return counted<"readlinkat", ssize_t(int, const char*, char*, size_t)>(can_eio, at(directory, path), directory, path,
                                                                         bytes, size);
}

ssize_t __readlink_chk(const char* path, char* bytes, size_t size, size_t room) noexcept {
  return counted<"__readlink_chk", ssize_t(const char*, char*, size_t, size_t)>(can_eio, named(path), path, bytes, size,
                                                                                room);
}

ssize_t __readlinkat_chk(int directory, const char* path, char* bytes, size_t size, size_t room) noexcept {
  return counted<"__readlinkat_chk", ssize_t(int, const char*, char*, size_t, size_t)>(
      can_eio, at(directory, path), directory, path, bytes, size, room);
}

// Attributes.

int stat(const char* path, struct stat* status) noexcept {
  return counted<"stat", int(const char*, struct stat*)>(can_eio, named(path), path, status);
}

int stat64(const char* path, struct stat64* status) noexcept {
  return counted<"stat64", int(const char*, struct stat64*)>(can_eio, named(path), path, status);
}

int lstat(const char* path, struct stat* status) noexcept {
  return counted<"lstat", int(const char*, struct stat*)>(can_eio, named(path), path, status);
}

int lstat64(const char* path, struct stat64* status) noexcept {
  return counted<"lstat64", int(const char*, struct stat64*)>(can_eio, named(path), path, status);
}

int fstat(int descriptor, struct stat* status) noexcept {
  return counted<"fstat", int(int, struct stat*)>(can_eio, of(descriptor), descriptor, status);
}

int fstat64(int descriptor, struct stat64* status) noexcept {
  return counted<"fstat64", int(int, struct stat64*)>(can_eio, of(descriptor), descriptor, status);
}

int fstatat(int directory, const char* path, struct stat* status, int flags) noexcept {
  return counted<"fstatat", int(int, const char*, struct stat*, int)>(can_eio, at(directory, path), directory, path,
                                                                      status, flags);
}

int fstatat64(int directory, const char* path, struct stat64* status, int flags) noexcept {
  return counted<"fstatat64", int(int, const char*, struct stat64*, int)>(can_eio, at(directory, path), directory, path,
                                                                          status, flags);
}

int statx(int directory, const char* path, int flags, unsigned mask, struct statx* status) noexcept {
  return counted<"statx", int(int, const char*, int, unsigned, struct statx*)>(can_eio, at(directory, path), directory,
                                                                               path, flags, mask, status);
}

int access(const char* path, int mode) noexcept {
  return counted<"access", int(const char*, int)>(can_eio, named(path), path, mode);
}

int faccessat(int directory, const char* path, int mode, int flags) noexcept {
  return counted<"faccessat", int(int, const char*, int, int)>(can_eio, at(directory, path), directory, path, mode,
                                                               flags);
}

int chmod(const char* path, mode_t mode) noexcept {
  return counted<"chmod", int(const char*, mode_t)>(can_eio, named(path), path, mode);
}

int fchmod(int descriptor, mode_t mode) noexcept {
  const int result = counted<"fchmod", int(int, mode_t)>(can_eio, of(descriptor), descriptor, mode);
  struct stat status;
  if (result == 0 && control.active && names_watched() && status_of(descriptor, status) && S_ISREG(status.st_mode)) {
    touch_file(status.st_ino);
  }
  return result;
}

int fchmodat(int directory, const char* path, mode_t mode, int flags) noexcept {
  return counted<"fchmodat", int(int, const char*, mode_t, int)>(can_eio, at(directory, path), directory, path, mode,
                                                                 flags);
}

int chown(const char* path, uid_t owner, gid_t group) noexcept {
  return counted<"chown", int(const char*, uid_t, gid_t)>(can_eio, named(path), path, owner, group);
}

int fchown(int descriptor, uid_t owner, gid_t group) noexcept {
  return counted<"fchown", int(int, uid_t, gid_t)>(can_eio, of(descriptor), descriptor, owner, group);
}

int lchown(const char* path, uid_t owner, gid_t group) noexcept {
  return counted<"lchown", int(const char*, uid_t, gid_t)>(can_eio, named(path), path, owner, group);
}

int fchownat(int directory, const char* path, uid_t owner, gid_t group, int flags) noexcept {
  return counted<"fchownat", int(int, const char*, uid_t, gid_t, int)>(can_eio, at(directory, path), directory, path,
                                                                       owner, group, flags);
}

int futimens(int descriptor, const struct timespec* times) noexcept {
  return counted<"futimens", int(int, const struct timespec*)>(can_eio, of(descriptor), descriptor, times);
}

int utimensat(int directory, const char* path, const struct timespec* times, int flags) noexcept {
  return counted<"utimensat", int(int, const char*, const struct timespec*, int)>(can_eio, at(directory, path),
                                                                                  directory, path, times, flags);
}

// Extended attributes.

ssize_t getxattr(const char* path, const char* name, void* value, size_t size) noexcept {
  return counted<"getxattr", ssize_t(const char*, const char*, void*, size_t)>(can_eio, named(path), path, name, value,
                                                                               size);
}

ssize_t lgetxattr(const char* path, const char* name, void* value, size_t size) noexcept {
  return counted<"lgetxattr", ssize_t(const char*, const char*, void*, size_t)>(can_eio, named(path), path, name, value,
                                                                                size);
}

ssize_t fgetxattr(int descriptor, const char* name, void* value, size_t size) noexcept {
  return counted<"fgetxattr", ssize_t(int, const char*, void*, size_t)>(can_eio, of(descriptor), descriptor, name,
                                                                        value, size);
}

int setxattr(const char* path, const char* name, const void* value, size_t size, int flags) noexcept {
  return counted<"setxattr", int(const char*, const char*, const void*, size_t, int)>(taking_space, named(path), path,
                                                                                      name, value, size, flags);
}

int lsetxattr(const char* path, const char* name, const void* value, size_t size, int flags) noexcept {
  return counted<"lsetxattr", int(const char*, const char*, const void*, size_t, int)>(taking_space, named(path), path,
                                                                                       name, value, size, flags);
}

int fsetxattr(int descriptor, const char* name, const void* value, size_t size, int flags) noexcept {
  return counted<"fsetxattr", int(int, const char*, const void*, size_t, int)>(taking_space, of(descriptor), descriptor,
                                                                               name, value, size, flags);
}

int removexattr(const char* path, const char* name) noexcept {
  return counted<"removexattr", int(const char*, const char*)>(can_eio, named(path), path, name);
}

int lremovexattr(const char* path, const char* name) noexcept {
  return counted<"lremovexattr", int(const char*, const char*)>(can_eio, named(path), path, name);
}

int fremovexattr(int descriptor, const char* name) noexcept {
  return counted<"fremovexattr", int(int, const char*)>(can_eio, of(descriptor), descriptor, name);
}

ssize_t listxattr(const char* path, char* list, size_t size) noexcept {
  return counted<"listxattr", ssize_t(const char*, char*, size_t)>(can_eio, named(path), path, list, size);
}

ssize_t llistxattr(const char* path, char* list, size_t size) noexcept {
  return counted<"llistxattr", ssize_t(const char*, char*, size_t)>(can_eio, named(path), path, list, size);
}

ssize_t flistxattr(int descriptor, char* list, size_t size) noexcept {
  return counted<"flistxattr", ssize_t(int, char*, size_t)>(can_eio, of(descriptor), descriptor, list, size);
}

// The end of the program, where it becomes another one.

int execve(const char* path, char* const* arguments, char* const* environment) noexcept {
  if (control.active && syscall(SYS_getpid) == control.process) {
    const KeptErrno kept;
    save_state();
  }
  return next<"execve", int(const char*, char* const*, char* const*)>()(path, arguments, environment);
}

// Locks, volumes and devices.

int flock(int descriptor, int operation) noexcept {
  return counted<"flock", int(int, int)>(can_eio, of(descriptor), descriptor, operation);
}

int statfs(const char* path, struct statfs* volume) noexcept {
  return counted<"statfs", int(const char*, struct statfs*)>(can_eio, named(path), path, volume);
}

int statfs64(const char* path, struct statfs64* volume) noexcept {
  return counted<"statfs64", int(const char*, struct statfs64*)>(can_eio, named(path), path, volume);
}

int fstatfs(int descriptor, struct statfs* volume) noexcept {
  return counted<"fstatfs", int(int, struct statfs*)>(can_eio, of(descriptor), descriptor, volume);
}

int fstatfs64(int descriptor, struct statfs64* volume) noexcept {
  return counted<"fstatfs64", int(int, struct statfs64*)>(can_eio, of(descriptor), descriptor, volume);
}

int statvfs(const char* path, struct statvfs* volume) noexcept {
  return counted<"statvfs", int(const char*, struct statvfs*)>(can_eio, named(path), path, volume);
}

int statvfs64(const char* path, struct statvfs64* volume) noexcept {
  return counted<"statvfs64", int(const char*, struct statvfs64*)>(can_eio, named(path), path, volume);
}

int fstatvfs(int descriptor, struct statvfs* volume) noexcept {
  return counted<"fstatvfs", int(int, struct statvfs*)>(can_eio, of(descriptor), descriptor, volume);
}

int fstatvfs64(int descriptor, struct statvfs64* volume) noexcept {
  return counted<"fstatvfs64", int(int, struct statvfs64*)>(can_eio, of(descriptor), descriptor, volume);
}

int ioctl(int descriptor, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return counted<"ioctl", int(int, unsigned long, ...)>(can_eio, of(descriptor), descriptor, request, argument);
}

// Directories.

DIR* opendir(const char* path) { return counted_pointer<"opendir", DIR*(const char*)>(can_eio, named(path), path); }

DIR* fdopendir(int descriptor) { return counted_pointer<"fdopendir", DIR*(int)>(can_eio, of(descriptor), descriptor); }

struct dirent* readdir(DIR* directory) {
  return counted_pointer<"readdir", struct dirent*(DIR*)>(can_eio, of(dirfd(directory)), directory);
}

struct dirent64* readdir64(DIR* directory) {
  return counted_pointer<"readdir64", struct dirent64*(DIR*)>(can_eio, of(dirfd(directory)), directory);
}

}  // extern "C"
