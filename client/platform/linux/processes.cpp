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

bool close_descriptors(unsigned first, unsigned last) { return syscall(SYS_close_range, first, last, 0) == 0; }

}  // namespace ravok::posix
