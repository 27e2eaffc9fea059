// What the publishing units share: outputs that must be new, that go again unless all went well, and
// refusals that name the file they are about.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/file/handle.hpp"

namespace ravok {

// Fails with "output_exists" when anything is at the path.
void require_absent(const std::filesystem::path& path);

// Writes a file of mode 0644 that must not exist yet, durably. Fails as ExportFile does; then there is no file.
void write_new_file(const std::filesystem::path& path, std::string_view bytes);

// Makes a directory in an open one, with mode 0755 as limited by the process's mask, but for its owner in full.
// Fails with "file_write", and names `path`.
void make_output_folder(int parent, const std::string& name, const std::filesystem::path& path);

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

// Gives an output its name. One that could not be made durable is removed, so that nothing stays that a power cut may
// take back. Fails as ExportFile::commit does.
void commit_or_remove(ExportFile& file);

// A file that is made, and is taken away again unless all goes well: it alone, whatever has come to its name.
class NewOutput {
 public:
  // Fails as ExportFile does; then there is no file.
  NewOutput(const std::filesystem::path& path, std::string_view bytes, ExportAccess access = ExportAccess::everybody);
  ~NewOutput();
  NewOutput(const NewOutput&) = delete;
  NewOutput& operator=(const NewOutput&) = delete;

  void keep() { kept_ = true; }

 private:
  ExportFile file_;
  bool kept_ = false;
};

// A directory that appears whole or not at all: it is filled beside its place, under another name. One that goes before
// its commit, or could not be made durable, is removed: it alone, whatever has come to its name.
class NewFolder {
 public:
  // Fails with "file_write".
  explicit NewFolder(const std::filesystem::path& output);
  ~NewFolder();
  NewFolder(const NewFolder&) = delete;
  NewFolder& operator=(const NewFolder&) = delete;

  // Where it is filled.
  const std::filesystem::path& path() const { return path_; }
  int handle() const { return folder_.get(); }

  // Gives the folder its name, durably. Fails with "file_write" and "file_sync".
  void commit();

 private:
  std::filesystem::path output_;
  std::filesystem::path path_;
  std::string name_;  // its present one
  Handle parent_;
  Handle folder_;
  bool committed_ = false;
};

}  // namespace ravok
