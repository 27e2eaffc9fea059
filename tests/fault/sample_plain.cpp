// A small program that calls the file system through every function that the fault library knows, and says so.
//
//   sample_plain steps DIR      calls each function once, printing its name after it worked; a failing call ends the
//                               program with code 1 after "NAME: ERRNO"
//   sample_plain elsewhere DIR  calls that do not count, and then two that do
//   sample_plain close DIR      closes a written file and tells whether the descriptor is gone
//   sample_plain unflushed DIR  writes two files, flushes one and looks at a third
//   sample_plain names DIR STEP...
//                               changes names in DIR and looks at it in the end. The steps are make:A, mkdir:A,
//                               link:A:B, symlink:A:B, unlink:A, remove:A, rmdir:A, rename:A:B, new:A:B for a move
//                               that replaces nothing, swap:A:B, flush:A, and change:A of a file's permissions
//   sample_plain threads DIR    looks at DIR 800 times from eight threads
//   sample_plain child DIR      runs this program's steps in a process of its own
//   sample_plain environment    prints the environment

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

// The C library's headers call these in the place of the plain functions when they check sizes.
extern "C" {
int __open_2(const char* path, int flags);
int __open64_2(const char* path, int flags);
int __openat_2(int directory, const char* path, int flags);
int __openat64_2(int directory, const char* path, int flags);
ssize_t __read_chk(int descriptor, void* bytes, size_t size, size_t room);
ssize_t __pread_chk(int descriptor, void* bytes, size_t size, off_t offset, size_t room);
ssize_t __pread64_chk(int descriptor, void* bytes, size_t size, off64_t offset, size_t room);
ssize_t __readlink_chk(const char* path, char* bytes, size_t size, size_t room) noexcept;
ssize_t __readlinkat_chk(int directory, const char* path, char* bytes, size_t size, size_t room) noexcept;
}

namespace {

// Whether a call was done, or failed for reasons of the volume, which counts as done.
bool done_or_unsupported(long result) {
  return result >= 0 || errno == EOPNOTSUPP || errno == ENODATA || errno == ENOTTY || errno == EPERM ||
         errno == EINVAL || errno == EXDEV;
}

bool claimed(int problem) {
  errno = problem;
  return problem == 0 || problem == EOPNOTSUPP;
}

int run_steps(const std::string& root) {
  const std::string file = root + "/file";
  const std::string other = root + "/other";
  const std::string link_path = root + "/link";
  const char* const attribute = "user.sample";
  char bytes[64] = "sixty-three bytes and a nul, and it matters not what they say..";
  char room[64];
  struct iovec parts[] = {{bytes, 8}, {bytes, 8}};
  struct iovec places[] = {{room, 8}, {room, 8}};
  struct stat status;
  struct stat64 status64;
  struct statx statusx;
  struct statfs volume;
  struct statfs64 volume64;
  struct statvfs posix_volume;
  struct statvfs64 posix_volume64;
  const struct timespec times[] = {{1, 0}, {1, 0}};
  int directory = -1;
  int target = -1;
  int extra[12];
  DIR* list = nullptr;
  FILE* stream = nullptr;
  const uid_t user = geteuid();
  const gid_t group = getegid();

  const std::vector<std::pair<const char*, std::function<bool()>>> steps = {
      {"mkdir", [&] { return mkdir(root.c_str(), 0700) == 0; }},
      {"open", [&] { return (directory = open(root.c_str(), O_RDONLY | O_DIRECTORY)) >= 0; }},
      {"openat", [&] { return (target = openat(directory, "file", O_RDWR | O_CREAT | O_EXCL, 0600)) >= 0; }},
      {"write", [&] { return write(target, bytes, 64) == 64; }},
      {"pwrite", [&] { return pwrite(target, bytes, 64, 64) == 64; }},
      {"pwrite64", [&] { return pwrite64(target, bytes, 64, 128) == 64; }},
      {"writev", [&] { return writev(target, parts, 2) == 16; }},
      {"fsync", [&] { return fsync(target) == 0; }},
      {"pread", [&] { return pread(target, room, 64, 0) == 64 && std::memcmp(bytes, room, 64) == 0; }},
      {"pread64", [&] { return pread64(target, room, 64, 0) == 64; }},
      {"__pread_chk", [&] { return __pread_chk(target, room, 64, 0, 64) == 64; }},
      {"__pread64_chk", [&] { return __pread64_chk(target, room, 64, 0, 64) == 64; }},
      {"read", [&] { return read(target, room, 8) == 8; }},
      {"__read_chk", [&] { return __read_chk(target, room, 8, 64) == 8; }},
      {"readv", [&] { return readv(target, places, 2) == 16; }},
      {"ftruncate", [&] { return ftruncate(target, 100) == 0; }},
      {"ftruncate64", [&] { return ftruncate64(target, 90) == 0; }},
      {"fallocate", [&] { return done_or_unsupported(fallocate(target, 0, 0, 4096)); }},
      {"fallocate64", [&] { return done_or_unsupported(fallocate64(target, 0, 0, 4096)); }},
      {"posix_fallocate", [&] { return claimed(posix_fallocate(target, 0, 8192)); }},
      {"posix_fallocate64", [&] { return claimed(posix_fallocate64(target, 0, 8192)); }},
      {"fdatasync", [&] { return fdatasync(target) == 0; }},
      {"stat", [&] { return stat(file.c_str(), &status) == 0; }},
      {"stat64", [&] { return stat64(file.c_str(), &status64) == 0; }},
      {"lstat", [&] { return lstat(file.c_str(), &status) == 0; }},
      {"lstat64", [&] { return lstat64(file.c_str(), &status64) == 0; }},
      {"fstat", [&] { return fstat(target, &status) == 0; }},
      {"fstat64", [&] { return fstat64(target, &status64) == 0; }},
      {"fstatat", [&] { return fstatat(directory, "file", &status, AT_SYMLINK_NOFOLLOW) == 0; }},
      {"fstatat64", [&] { return fstatat64(directory, "file", &status64, 0) == 0; }},
      {"statx", [&] { return statx(directory, "file", 0, STATX_SIZE, &statusx) == 0; }},
      {"access", [&] { return access(file.c_str(), R_OK) == 0; }},
      {"faccessat", [&] { return faccessat(directory, "file", R_OK, 0) == 0; }},
      {"chmod", [&] { return chmod(file.c_str(), 0600) == 0; }},
      {"fchmod", [&] { return fchmod(target, 0600) == 0; }},
      {"fchmodat", [&] { return fchmodat(directory, "file", 0600, 0) == 0; }},
      {"chown", [&] { return chown(file.c_str(), user, group) == 0; }},
      {"fchown", [&] { return fchown(target, user, group) == 0; }},
      {"lchown", [&] { return lchown(file.c_str(), user, group) == 0; }},
      {"fchownat", [&] { return fchownat(directory, "file", user, group, 0) == 0; }},
      {"futimens", [&] { return futimens(target, times) == 0; }},
      {"utimensat", [&] { return utimensat(directory, "file", times, 0) == 0; }},
      {"setxattr", [&] { return done_or_unsupported(setxattr(file.c_str(), attribute, "1", 1, 0)); }},
      {"lsetxattr", [&] { return done_or_unsupported(lsetxattr(file.c_str(), attribute, "1", 1, 0)); }},
      {"fsetxattr", [&] { return done_or_unsupported(fsetxattr(target, attribute, "1", 1, 0)); }},
      {"getxattr", [&] { return done_or_unsupported(getxattr(file.c_str(), attribute, room, 64)); }},
      {"lgetxattr", [&] { return done_or_unsupported(lgetxattr(file.c_str(), attribute, room, 64)); }},
      {"fgetxattr", [&] { return done_or_unsupported(fgetxattr(target, attribute, room, 64)); }},
      {"listxattr", [&] { return done_or_unsupported(listxattr(file.c_str(), nullptr, 0)); }},
      {"llistxattr", [&] { return done_or_unsupported(llistxattr(file.c_str(), nullptr, 0)); }},
      {"flistxattr", [&] { return done_or_unsupported(flistxattr(target, nullptr, 0)); }},
      {"removexattr", [&] { return done_or_unsupported(removexattr(file.c_str(), attribute)); }},
      {"lremovexattr", [&] { return done_or_unsupported(lremovexattr(file.c_str(), attribute)); }},
      {"fremovexattr", [&] { return done_or_unsupported(fremovexattr(target, attribute)); }},
      {"flock", [&] { return flock(target, LOCK_EX | LOCK_NB) == 0; }},
      {"statfs", [&] { return statfs(file.c_str(), &volume) == 0; }},
      {"statfs64", [&] { return statfs64(file.c_str(), &volume64) == 0; }},
      {"fstatfs", [&] { return fstatfs(target, &volume) == 0; }},
      {"fstatfs64", [&] { return fstatfs64(target, &volume64) == 0; }},
      {"statvfs", [&] { return statvfs(file.c_str(), &posix_volume) == 0; }},
      {"statvfs64", [&] { return statvfs64(file.c_str(), &posix_volume64) == 0; }},
      {"fstatvfs", [&] { return fstatvfs(target, &posix_volume) == 0; }},
      {"fstatvfs64", [&] { return fstatvfs64(target, &posix_volume64) == 0; }},
      {"ioctl",
       [&] {
         int waiting = 0;
         return done_or_unsupported(ioctl(target, FIONREAD, &waiting));
       }},
      {"rename", [&] { return rename(file.c_str(), other.c_str()) == 0; }},
      {"renameat", [&] { return renameat(directory, "other", directory, "file") == 0; }},
      {"renameat2", [&] { return done_or_unsupported(renameat2(directory, "file", directory, "other", 1)); }},
      {"link", [&] { return link(other.c_str(), file.c_str()) == 0; }},
      {"unlink", [&] { return unlink(other.c_str()) == 0; }},
      {"linkat", [&] { return linkat(directory, "file", directory, "other", 0) == 0; }},
      {"unlinkat", [&] { return unlinkat(directory, "other", 0) == 0; }},
      {"symlink", [&] { return symlink("file", link_path.c_str()) == 0; }},
      {"readlink", [&] { return readlink(link_path.c_str(), room, 64) == 4; }},
      {"readlinkat", [&] { return readlinkat(directory, "link", room, 64) == 4; }},
      {"__readlink_chk", [&] { return __readlink_chk(link_path.c_str(), room, 64, 64) == 4; }},
      {"__readlinkat_chk", [&] { return __readlinkat_chk(directory, "link", room, 64, 64) == 4; }},
      {"remove", [&] { return remove(link_path.c_str()) == 0; }},
      {"symlinkat", [&] { return symlinkat("file", directory, "link") == 0; }},
      {"mkdirat", [&] { return mkdirat(directory, "folder", 0700) == 0; }},
      {"rmdir", [&] { return rmdir((root + "/folder").c_str()) == 0; }},
      {"open64", [&] { return (extra[0] = open64(file.c_str(), O_RDWR | O_CREAT, 0600)) >= 0; }},
      {"openat64", [&] { return (extra[1] = openat64(directory, "file", O_RDONLY)) >= 0; }},
      {"__open_2", [&] { return (extra[2] = __open_2(file.c_str(), O_RDONLY)) >= 0; }},
      {"__open64_2", [&] { return (extra[3] = __open64_2(file.c_str(), O_RDONLY)) >= 0; }},
      {"__openat_2", [&] { return (extra[4] = __openat_2(directory, "file", O_RDONLY)) >= 0; }},
      {"__openat64_2", [&] { return (extra[5] = __openat64_2(directory, "file", O_RDONLY)) >= 0; }},
      {"creat", [&] { return (extra[6] = creat((root + "/copy").c_str(), 0600)) >= 0; }},
      {"creat64", [&] { return (extra[7] = creat64((root + "/copy").c_str(), 0600)) >= 0; }},
      {"sendfile",
       [&] {
         off_t from = 0;
         return done_or_unsupported(sendfile(extra[6], target, &from, 16));
       }},
      {"copy_file_range",
       [&] {
         off64_t from = 0;
         return done_or_unsupported(copy_file_range(target, &from, extra[7], nullptr, 16, 0));
       }},
      {"fopen", [&] { return (stream = fopen((root + "/stream").c_str(), "w")) != nullptr; }},
      {"fopen64", [&] { return (stream = fopen64((root + "/stream").c_str(), "r")) != nullptr; }},
      {"opendir", [&] { return (list = opendir(root.c_str())) != nullptr; }},
      {"readdir", [&] { return readdir(list) != nullptr; }},
      {"readdir64", [&] { return readdir64(list) != nullptr; }},
      {"fdopendir", [&] { return fdopendir(directory) != nullptr; }},
      {"close", [&] { return close(target) == 0; }},
  };
  for (const auto& [name, step] : steps) {
    errno = 0;
    if (!step()) {
      std::printf("%s: %d\n", name, errno);
      return 1;
    }
    std::printf("%s\n", name);
  }
  return 0;
}

int call_elsewhere(const std::string& root) {
  struct stat status;
  char byte = 'x';
  int ends[2];
  const int null = open("/dev/null", O_WRONLY);
  bool done = stat("/usr", &status) == 0;  // before anything concerned the root
  done = done && fstat(STDOUT_FILENO, &status) == 0 && pipe(ends) == 0;
  done = done && stat(root.c_str(), &status) == 0;  // counted: 1
  done = done && write(null, &byte, 1) == 1 && write(ends[1], &byte, 1) == 1 && read(ends[0], &byte, 1) == 1;
  done = done && access("/proc/self/status", R_OK) == 0 && access("/dev/null", W_OK) == 0;
  done = done && write(STDOUT_FILENO, &byte, 1) == 1 && fsync(STDOUT_FILENO) == 0;
  done = done && stat("/usr", &status) == 0;  // counted: 2
  return done ? 0 : 1;
}

int close_written(const std::string& root) {
  const int file = open((root + "/file").c_str(), O_WRONLY | O_CREAT, 0600);
  const int result = close(file);
  const int problem = result == 0 ? 0 : errno;
  const bool gone = fcntl(file, F_GETFD) == -1 && errno == EBADF;
  std::printf("%d %s\n", problem, gone ? "gone" : "still there");
  return 0;
}

bool write_file(const std::string& path, bool flush) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  return write(file, "content", 7) == 7 && (!flush || fsync(file) == 0) && close(file) == 0;
}

int write_unflushed(const std::string& root) {
  struct stat status;
  const bool written = write_file(root + "/flushed", true) && write_file(root + "/unflushed", false);
  return written && stat(root.c_str(), &status) == 0 ? 0 : 1;
}

// Changes the permissions of a file to what they are.
bool change(const char* path) {
  const int file = open(path, O_RDONLY);
  struct stat status;
  return file >= 0 && fstat(file, &status) == 0 && fchmod(file, status.st_mode & 07777) == 0 && close(file) == 0;
}

bool flush(const char* path) {
  const int opened = open(path, O_RDONLY);
  return fsync(opened) == 0 && close(opened) == 0;
}

bool change_names(const std::string& step) {
  const std::size_t first = step.find(':');
  const std::size_t second = step.find(':', first + 1);
  const std::string what = step.substr(0, first);
  const std::string a = step.substr(first + 1, second == std::string::npos ? second : second - first - 1);
  const std::string b = second == std::string::npos ? "" : step.substr(second + 1);
  const std::pair<const char*, std::function<bool()>> kinds[] = {
      {"make", [&] { return write_file(a, true); }},
      {"mkdir", [&] { return mkdir(a.c_str(), 0700) == 0; }},
      {"link", [&] { return link(a.c_str(), b.c_str()) == 0; }},
      {"symlink", [&] { return symlink(a.c_str(), b.c_str()) == 0; }},
      {"unlink", [&] { return unlink(a.c_str()) == 0; }},
      {"remove", [&] { return remove(a.c_str()) == 0; }},
      {"rmdir", [&] { return rmdir(a.c_str()) == 0; }},
      {"rename", [&] { return rename(a.c_str(), b.c_str()) == 0; }},
      {"new", [&] { return renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_NOREPLACE) == 0; }},
      {"swap", [&] { return renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE) == 0; }},
      {"flush", [&] { return flush(a.c_str()); }},
      {"change", [&] { return change(a.c_str()); }},
  };
  for (const auto& [kind, change] : kinds) {
    if (what == kind) {
      return change();
    }
  }
  return false;
}

int run_names(int count, char** steps, const std::string& root) {
  if (chdir(root.c_str()) != 0) {
    return 1;
  }
  for (int i = 0; i < count; ++i) {
    if (!change_names(steps[i])) {
      std::printf("%s: %d\n", steps[i], errno);
      return 1;
    }
  }
  struct stat status;
  return stat(root.c_str(), &status) == 0 ? 0 : 1;
}

int look_from_threads(const std::string& root) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&root] {
      struct stat status;
      for (int round = 0; round < 100; ++round) {
        if (stat(root.c_str(), &status) != 0) {
          std::printf("%d\n", errno);
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return 0;
}

int run_child(std::string program, std::string root) {
  struct stat status;
  stat("/", &status);  // counted
  std::string action = "steps";
  char* arguments[] = {program.data(), action.data(), root.data(), nullptr};
  pid_t child = 0;
  int ending = 0;
  return posix_spawn(&child, program.c_str(), nullptr, nullptr, arguments, environ) == 0 &&
                 waitpid(child, &ending, 0) == child && ending == 0
             ? 0
             : 1;
}

int print_environment() {
  for (char** variable = environ; *variable != nullptr; ++variable) {
    std::printf("%s\n", *variable);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // Nothing that was printed may be lost when the process ends.
  std::setvbuf(stdout, nullptr, _IONBF, 0);
  const std::string action = argc > 1 ? argv[1] : "";
  const std::string root = argc > 2 ? argv[2] : "";
  if (action == "steps") {
    return run_steps(root);
  }
  if (action == "elsewhere") {
    return call_elsewhere(root);
  }
  if (action == "close") {
    return close_written(root);
  }
  if (action == "unflushed") {
    return write_unflushed(root);
  }
  if (action == "names") {
    return run_names(argc - 3, argv + 3, root);
  }
  if (action == "threads") {
    return look_from_threads(root);
  }
  if (action == "child") {
    return run_child(argv[0], root);
  }
  if (action == "environment") {
    return print_environment();
  }
  return 64;
}
