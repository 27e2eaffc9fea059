#include <cerrno>
#include <system_error>

#include "platform/file/problem.hpp"
#include "platform/posix/native.hpp"

namespace ravok {
namespace {

Cause cause_of(int number) {
  switch (number) {
    case 0:
      return Cause::none;
    case ENOSPC:
    case EDQUOT:
      return Cause::no_space;
    case EEXIST:
      return Cause::exists;
    case ENOENT:
      return Cause::missing;
    case ENOTDIR:
      return Cause::not_a_directory;
    case ELOOP:
      return Cause::is_link;
    case EACCES:
      return Cause::denied;
    case EPERM:
      return Cause::not_permitted;
    case EAGAIN:
      return Cause::busy;
    case ENOTEMPTY:
      return Cause::not_empty;
    case EXDEV:
      return Cause::other_volume;
    case EMFILE:
    case ENFILE:
      return Cause::too_many_open;
    case ENXIO:
      return Cause::not_a_file;
    case EOPNOTSUPP:
    case ENOSYS:
      return Cause::unsupported;
    case EPIPE:
      return Cause::no_reader;
    case ENOMEM:
      return Cause::no_memory;
    case EIO:
      return Cause::input_output;
    default:
      // On some systems ENOTSUP is another number than EOPNOTSUPP.
      return number == ENOTSUP ? Cause::unsupported : Cause::other;
  }
}

int number_of(Cause cause) {
  switch (cause) {
    case Cause::none:
      return 0;
    case Cause::no_space:
      return ENOSPC;
    case Cause::exists:
      return EEXIST;
    case Cause::missing:
      return ENOENT;
    case Cause::not_a_directory:
      return ENOTDIR;
    case Cause::is_link:
      return ELOOP;
    case Cause::denied:
      return EACCES;
    case Cause::not_permitted:
      return EPERM;
    case Cause::busy:
      return EAGAIN;
    case Cause::not_empty:
      return ENOTEMPTY;
    case Cause::other_volume:
      return EXDEV;
    case Cause::too_many_open:
      return EMFILE;
    case Cause::not_a_file:
      return ENXIO;
    case Cause::unsupported:
      return ENOTSUP;
    case Cause::no_reader:
      return EPIPE;
    case Cause::no_memory:
      return ENOMEM;
    case Cause::input_output:
    case Cause::other:
      return EIO;
  }
  return EIO;
}

}  // namespace

namespace posix {

Problem native_problem(int number) { return {cause_of(number), number}; }

Problem last_problem() { return native_problem(errno); }

}  // namespace posix

Problem problem_of(Cause cause) { return {cause, number_of(cause)}; }

std::string problem_text(const Problem& problem) { return std::generic_category().message(problem.number); }

}  // namespace ravok
