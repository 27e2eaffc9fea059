#include "platform/process/program_start.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <functional>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/file/handle.hpp"
#include "platform/posix/native.hpp"
#include "support/temporary_root.hpp"

namespace ravok {
namespace {

struct End {
  int exit_code = -1;
  int signal = 0;
};

// How a process ends that does this and returns its exit code, with its signals as a program is usually given them.
End end_of(const std::function<int()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    for (const int signal : {SIGPIPE, SIGXFSZ}) {
      if (std::signal(signal, SIG_DFL) == SIG_ERR) {
        _exit(90);
      }
    }
    _exit(work());
  }
  int status = 0;
  EXPECT_EQ(posix::retry_interrupted([&] { return waitpid(child, &status, 0); }), child);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, WIFSIGNALED(status) ? WTERMSIG(status) : 0};
}

bool is_null_device(int descriptor, int mode) {
  struct stat opened;
  struct stat null;
  return fstat(descriptor, &opened) == 0 && stat("/dev/null", &null) == 0 && opened.st_rdev == null.st_rdev &&
         S_ISCHR(opened.st_mode) && (fcntl(descriptor, F_GETFL) & O_ACCMODE) == mode;
}

// Closes these streams of the process that it runs in, starts the program and returns an exit code.
int expect_streams(const std::vector<int>& closed, int file) {
  for (int descriptor = 0; descriptor <= 2; ++descriptor) {
    dup2(file, descriptor);
  }
  for (const int descriptor : closed) {
    close(descriptor);
  }
  if (!start_program()) {
    return 1;
  }
  for (int descriptor = 0; descriptor <= 2; ++descriptor) {
    const bool was_closed = std::find(closed.begin(), closed.end(), descriptor) != closed.end();
    struct stat opened;
    struct stat before;
    const bool unchanged = fstat(descriptor, &opened) == 0 && fstat(file, &before) == 0 &&
                           opened.st_ino == before.st_ino && opened.st_dev == before.st_dev;
    if ((was_closed ? !is_null_device(descriptor, descriptor == 0 ? O_RDONLY : O_WRONLY) : !unchanged) ||
        fcntl(descriptor, F_GETFD) != 0) {
      return 10 + descriptor;
    }
  }
  // The next file gets another number.
  return open("/dev/null", O_RDONLY) > 2 ? 0 : 20;
}

TEST(StartProgram, OpensTheNullDeviceInThePlaceOfEachStreamThatIsClosed) {
  const testing::TemporaryRoot root;
  const Handle file(open(root.write("file", "").c_str(), O_RDWR | O_CLOEXEC));
  for (const std::vector<int>& closed : {std::vector<int>{}, {0}, {1}, {2}, {0, 1}, {0, 2}, {1, 2}, {0, 1, 2}}) {
    EXPECT_EQ(end_of([&] { return expect_streams(closed, file.get()); }).exit_code, 0);
  }
}

TEST(StartProgram, SaysSoWhenNothingCanBeOpenedThere) {
  const End end = end_of([] {
    const rlimit none = {0, 0};
    close(0);
    return setrlimit(RLIMIT_NOFILE, &none) == 0 && !start_program() ? 0 : 1;
  });
  EXPECT_EQ(end.exit_code, 0);
}

// Leaves these descriptors open where the announcement stands in the environment, and returns which of them are left.
std::vector<int> left_of(const std::vector<int>& inherited, const char* announcement) {
  std::array<int, 2> answer{};
  EXPECT_EQ(pipe2(answer.data(), O_CLOEXEC), 0);
  const Handle reader(answer[0]);
  Handle writer(answer[1]);
  const auto is_left = [](int descriptor) { return fcntl(descriptor, F_GETFD) >= 0; };
  const End end = end_of([&] {
    for (const int descriptor : inherited) {
      dup2(STDERR_FILENO, descriptor);
    }
    // It would be closed as well.
    dup2(writer.get(), STDIN_FILENO);
    if (announcement != nullptr && setenv("RAVOK_LAUNCHER_INTERRUPT_READER", announcement, 1) != 0) {
      return 1;
    }
    close_inherited_handles();
    for (const int descriptor : inherited) {
      if (is_left(descriptor) && write(STDIN_FILENO, &descriptor, sizeof descriptor) != sizeof descriptor) {
        return 2;
      }
    }
    return is_left(0) && is_left(1) && is_left(2) && !is_left(writer.get()) ? 0 : 3;
  });
  EXPECT_EQ(end.exit_code, 0);
  writer.reset();
  std::vector<int> left;
  int descriptor = 0;
  while (read(reader.get(), &descriptor, sizeof descriptor) == sizeof descriptor) {
    left.push_back(descriptor);
  }
  return left;
}

TEST(CloseInheritedHandles, LeavesTheStreamsAndThePipeOfTheParent) {
  const std::vector<int> inherited = {100, 101, 102, 500};
  EXPECT_EQ(left_of(inherited, nullptr), std::vector<int>());
  EXPECT_EQ(left_of(inherited, "1:101"), std::vector<int>{101});
  EXPECT_EQ(left_of(inherited, "1:100"), std::vector<int>{100});
  EXPECT_EQ(left_of(inherited, "1:500"), std::vector<int>{500});
  EXPECT_EQ(left_of(inherited, "1:400"), std::vector<int>());
  for (const char* wrong : {"", "101", "2:101", "1:0101", "1:2", "1:99999999999"}) {
    EXPECT_EQ(left_of(inherited, wrong), std::vector<int>()) << wrong;
  }
}

TEST(StartProgram, TurnsTheSignalsOfFailedWritesIntoFailures) {
  const testing::TemporaryRoot root;
  const End end = end_of([&] {
    std::array<int, 2> ends{};
    const rlimit none = {0, 0};
    const int file = open((root / "file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (!start_program() || pipe(ends.data()) != 0 || close(ends[0]) != 0 || setrlimit(RLIMIT_FSIZE, &none) != 0) {
      return 1;
    }
    if (write(ends[1], "x", 1) != -1 || errno != EPIPE) {
      return 2;
    }
    return write(file, "x", 1) == -1 && errno == EFBIG ? 0 : 3;
  });
  EXPECT_EQ(end.signal, 0);
  EXPECT_EQ(end.exit_code, 0);
}

TEST(StartProgram, HandsThoseSignalsDownAsTheyWere) {
  for (const int signal : {SIGPIPE, SIGXFSZ}) {
    for (const bool ignored : {false, true}) {
      const End end = end_of([&] {
        if ((ignored && std::signal(signal, SIG_IGN) == SIG_ERR) || !start_program()) {
          return 90;
        }
        const std::string command = "kill -" + std::to_string(signal) + " $$; exit 7";
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        return 91;
      });
      EXPECT_EQ(end.signal, ignored ? 0 : signal);
      EXPECT_EQ(end.exit_code, ignored ? 7 : -1);
    }
  }
}

TEST(StartProgram, HearsOfTheEndsOfChildrenWhereTheirSignalIsIgnored) {
  const End end = end_of([] {
    if (std::signal(SIGCHLD, SIG_IGN) == SIG_ERR || !start_program()) {
      return 90;
    }
    const pid_t child = fork();
    if (child == 0) {
      _exit(7);
    }
    int status = 0;
    const bool known = posix::retry_interrupted([&] { return waitpid(child, &status, 0); }) == child;
    return known && WIFEXITED(status) ? WEXITSTATUS(status) : 91;
  });
  EXPECT_EQ(end.exit_code, 7);
}

}  // namespace
}  // namespace ravok
