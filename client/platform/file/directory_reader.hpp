// Reading the names in an open directory, one after the other.
#pragma once

#include <memory>

#include "platform/file/handle.hpp"
#include "platform/file/problem.hpp"
#include "platform/file/status.hpp"

namespace ravok::os {

class DirectoryReader {
 public:
  // An entry of a directory. `name` is valid until the next one is read, and null at the end.
  struct Entry {
    const char* name = nullptr;
    bool type_known = false;
    EntryType type = EntryType::other;  // where it is known; for a link, EntryType::link
  };

  DirectoryReader() = default;

  // Reads from an open directory. Takes the handle over and closes it.
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
