// What the publishing units share: outputs that must be new and are removed again unless everything succeeds, and
// refusals that name the file they are about.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_range.hpp"
#include "platform/file/files.hpp"
#include "platform/file/handle.hpp"

namespace ravok {

// Accepts only a path where nothing is. Fails with "output_exists", and with "file_write" where that cannot be told.
void require_absent(const std::filesystem::path& path);

// Accepts only an output that does not lie in a directory, nor is it. Fails with "unsafe_path" and this message.
void require_outside(const std::filesystem::path& output, const std::filesystem::path& directory,
                     std::string_view message);

// Writes a file of mode 0644 that must not exist yet, durably. Fails with "insufficient_space", "file_write",
// "file_sync" or "unsafe_path" as OutputFile does; then there is no file.
void write_new_file(const std::filesystem::path& path, std::string_view bytes);

// Hands a file's bytes to `take`, one piece after the other. Fails with "file_read", and as `take` does.
void read_in_pieces(const std::filesystem::path& path, const std::function<void(std::string_view)>& take);

// Makes a directory in an open one, with mode 0755 as limited by the process's mask, except that its owner gets all
// permissions. Fails with "file_write"; the message names `path`.
void make_output_folder(int parent, const std::string& name, const std::filesystem::path& path);

// Returns the path of an output without a separator at its end, and with "./" before a bare name, so that both the
// output and its directory have a name.
std::filesystem::path output_path(const std::filesystem::path& path);

// Whether the path stands in a message, between spaces and punctuation.
bool is_named(const std::string& message, const std::string& path);

// Returns what `work` returns. An Error from it keeps its code, and its message begins with the path unless it names
// the path already.
template <typename Work>
auto about(const std::filesystem::path& path, Work work) {
  try {
    return work();
  } catch (const Error& error) {
    const std::string message = error.what();
    const std::string name = path_utf8(path);
    fail(error.code, is_named(message, name) ? message : name + ": " + message);
  }
}

// The missing directories on the way to a folder, and the folder itself. They are made with mode 0755 as limited by the
// process's mask, durably, and removed again unless keep() is called, as far as nothing else has come into them.
class NewFolders {
 public:
  // Makes what is missing. Fails with "file_write" and "file_sync".
  explicit NewFolders(const std::filesystem::path& folder);
  ~NewFolders();
  NewFolders(const NewFolders&) = delete;
  NewFolders& operator=(const NewFolders&) = delete;

  void keep() { made_.clear(); }

 private:
  void make(const std::filesystem::path& folder);
  void remove() noexcept;

  std::vector<std::filesystem::path> made_;
};

// A new file that is written piece by piece, and removed again unless keep() is called. Never removes another file that
// has come to its name. Makes the folder that it lies in, where it is missing, and first removes from it what killed
// runs have left.
class OutputFile {
 public:
  // Fails with "insufficient_space", "file_write" or "unsafe_path" as ExportFile does, and as NewFolders does.
  explicit OutputFile(const std::filesystem::path& path, ExportAccess access = ExportAccess::everybody);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  void write(std::string_view bytes) { file_->write(bytes); }

  // Lets everybody read and execute the file, whatever the process's mask. Fails with "file_write".
  void make_program();

  // Returns the bytes that have been written so far, which can be read before the file has its name. Fails with
  // "file_read".
  FileRange written() const;

  // Gives the file its name, durably. A file that could not be flushed is removed, so that nothing stays that a power
  // cut may take back. Fails as ExportFile::commit does.
  void commit() { file_->commit(); }

  void keep();

 private:
  NewFolders folders_;
  std::unique_ptr<ExportFile> file_;
  bool kept_ = false;
};

// An OutputFile whose bytes are all at hand.
class NewOutput {
 public:
  // Writes the file. Fails as write_new_file does; then there is no file.
  NewOutput(const std::filesystem::path& path, std::string_view bytes, ExportAccess access = ExportAccess::everybody);

  void keep() { file_.keep(); }

 private:
  OutputFile file_;
};

// A directory that appears whole or not at all: it is filled beside its place, under another name, until commit() gives
// it its own. Without a commit that succeeds, the object removes it when it goes, but never another directory that has
// come to its name. Makes the folder that it lies in, and removes what killed runs have left there, as OutputFile does.
class NewFolder {
 public:
  // Makes the directory. Fails with "file_write", and as NewFolders does.
  explicit NewFolder(const std::filesystem::path& output);
  ~NewFolder();
  NewFolder(const NewFolder&) = delete;
  NewFolder& operator=(const NewFolder&) = delete;

  // The directory while it is filled: its path, and a descriptor of it.
  const std::filesystem::path& path() const { return path_; }
  int handle() const { return folder_.get(); }

  // Gives the folder its name, durably. Fails with "file_write" and "file_sync".
  void commit();

 private:
  bool make();

  std::filesystem::path output_;
  NewFolders folders_;
  std::filesystem::path path_;
  std::string name_;  // its present one
  Handle parent_;
  Handle folder_;
  bool committed_ = false;
};

}  // namespace ravok
