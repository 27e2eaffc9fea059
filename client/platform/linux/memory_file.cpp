#include "platform/file/memory_file.hpp"

#include <cerrno>
#include <string>

#include <fcntl.h>
#include <linux/memfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "domain/error.hpp"

namespace ravok {
namespace {

// By its number, since older C libraries have no function for it.
Handle open_memory_file() {
  return Handle(static_cast<int>(::syscall(SYS_memfd_create, "ravok", MFD_CLOEXEC | MFD_ALLOW_SEALING)));
}

}  // namespace

MemoryFile::MemoryFile(std::string_view bytes) : file_(open_memory_file()) {
  constexpr const char* message = "Cannot hold a file in memory";
  require(file_.get() >= 0, "file_write", message);
  for (std::string_view rest = bytes; !rest.empty();) {
    const ssize_t written = ::write(file_.get(), rest.data(), rest.size());
    if (written < 0 && errno == EINTR) {
      continue;
    }
    require(written > 0, "file_write", message);
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
  const int seals = F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;
  require(::fcntl(file_.get(), F_ADD_SEALS, seals) == 0, "file_write", message);
}

std::filesystem::path MemoryFile::path() const { return "/proc/self/fd/" + std::to_string(file_.get()); }

}  // namespace ravok
