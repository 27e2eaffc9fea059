#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/posix/native.hpp"

namespace ravok::posix {

int open_pipe(int (&ends)[2]) { return pipe2(ends, O_CLOEXEC); }

int open_sockets(int (&ends)[2]) { return socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends); }

int quiet_sending() { return MSG_NOSIGNAL; }

bool keep_descriptors_back() { return syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) == 0; }

}  // namespace ravok::posix
