// Reading the names in an open directory, one after the other.
#pragma once

#include <memory>

#include "platform/file/handle.hpp"
#include "platform/file/problem.hpp"
#include "platform/file/status.hpp"

namespace ravok::os {

class DirectoryReader {
 public:
  // An entry of a directory. `name` lasts until the next one is read; none at the end.
  struct Entry {
    const char* name = nullptr;
    bool type_known = false;
    EntryType type = EntryType::other;  // where it is known; a link's is not that of what it leads to
  };

  // Reads from nothing.
  DirectoryReader() = default;

  // Reads from an open directory, which it takes over, and closes at its own end.
  static Result<DirectoryReader> of(Handle directory);

  // The directory that is read from; -1 when there is none.
  int handle() const;
  explicit operator bool() const { return stream_ != nullptr; }

  // Returns the next entry, "." and ".." left out, in the order in which the file system tells them.
  Result<Entry> next();

  // Closes the directory.
  void reset() { stream_.reset(); }

 private:
  struct Close {
    void operator()(void* stream) const;
  };
  std::unique_ptr<void, Close> stream_;  // the system's own
};

}  // namespace ravok::os
