// What the publishing units share: outputs that must be new, that go again unless all went well, and
// refusals that name the file they are about.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "domain/error.hpp"
#include "domain/paths.hpp"

namespace ravok {

// Fails with "output_exists" when anything is at the path.
void require_absent(const std::filesystem::path& path);

// Does what makes a file. One that is in place without being durable goes again.
template <typename Work>
void gone_unless_durable(const std::filesystem::path& path, Work work) {
  try {
    work();
  } catch (const Error& error) {
    if (error.code == "file_sync") {
      std::error_code ignored;
      std::filesystem::remove(path, ignored);
    }
    throw;
  }
}

// Writes a file of mode 0644 that must not exist yet, durably. Fails as ExportFile does.
void write_new_file(const std::filesystem::path& path, std::string_view bytes);

// Returns the path of an output in the form in which it and its directory have a name.
std::filesystem::path output_path(const std::filesystem::path& path);

// Returns what `work` does; a failure of the system's own keeps its code, and its message begins with the path
// unless it has it already.
template <typename Work>
auto about(const std::filesystem::path& path, Work work) {
  try {
    return work();
  } catch (const Error& error) {
    const std::string message = error.what();
    const std::string name = path_utf8(path);
    fail(error.code, message.find(name) == std::string::npos ? name + ": " + message : message);
  }
}

// A directory that appears whole or not at all: it is filled beside its place, under another name.
class NewFolder {
 public:
  // Fails with "file_write".
  explicit NewFolder(const std::filesystem::path& output);
  ~NewFolder();
  NewFolder(const NewFolder&) = delete;
  NewFolder& operator=(const NewFolder&) = delete;

  // Where it is filled.
  const std::filesystem::path& path() const { return path_; }

  // Gives the folder its name, durably. Fails with "file_write" and "file_sync".
  void commit();

 private:
  std::filesystem::path output_;
  std::filesystem::path path_;
};

// A file that was made and is taken away again unless all goes well.
class Undo {
 public:
  explicit Undo(std::filesystem::path path) : path_(std::move(path)) {}
  ~Undo() {
    if (armed_) {
      std::error_code ignored;
      std::filesystem::remove(path_, ignored);
    }
  }
  Undo(const Undo&) = delete;
  Undo& operator=(const Undo&) = delete;

  void disarm() { armed_ = false; }

 private:
  std::filesystem::path path_;
  bool armed_ = true;
};

}  // namespace ravok
