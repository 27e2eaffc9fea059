#include "platform/file/directory_reader.hpp"

#include <cerrno>
#include <string_view>

#include <dirent.h>

#include "platform/posix/native.hpp"

namespace ravok::os {
namespace {

DIR* native(void* stream) { return static_cast<DIR*>(stream); }

bool has_own_name(const dirent& entry) {
  const std::string_view name = entry.d_name;
  return name != "." && name != "..";
}

DirectoryReader::Entry entry_from(const dirent& entry) {
  switch (entry.d_type) {
    case DT_DIR:
      return {entry.d_name, true, EntryType::directory};
    case DT_REG:
      return {entry.d_name, true, EntryType::file};
    case DT_LNK:
      return {entry.d_name, true, EntryType::link};
    case DT_UNKNOWN:
      return {entry.d_name, false, EntryType::other};
    default:
      return {entry.d_name, true, EntryType::other};
  }
}

}  // namespace

void DirectoryReader::Close::operator()(void* stream) const { closedir(native(stream)); }

Result<DirectoryReader> DirectoryReader::of(Handle directory) {
  DIR* const stream = fdopendir(directory.get());
  if (stream == nullptr) {
    return posix::last_problem();
  }
  // The stream owns it now.
  static_cast<void>(directory.release());
  DirectoryReader reader;
  reader.stream_.reset(stream);
  return reader;
}

int DirectoryReader::handle() const { return stream_ ? dirfd(native(stream_.get())) : -1; }

Result<DirectoryReader::Entry> DirectoryReader::next() {
  for (;;) {
    errno = 0;
    const dirent* const entry = readdir(native(stream_.get()));
    if (entry == nullptr) {
      return errno != 0 ? Result<Entry>(posix::last_problem()) : Result<Entry>(Entry());
    }
    if (has_own_name(*entry)) {
      return entry_from(*entry);
    }
  }
}

}  // namespace ravok::os
