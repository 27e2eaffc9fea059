#include "publisher/publish_files.hpp"

#include <optional>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>

#include "domain/crypto.hpp"
#include "platform/file/file_status.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/tree_removal.hpp"
#include "platform/os.hpp"

namespace ravok {

void require_absent(const std::filesystem::path& path) {
  require(is_missing(path), "output_exists", "The output already exists: " + path_utf8(path));
}

std::filesystem::path output_path(const std::filesystem::path& path) {
  const std::filesystem::path named = path.has_filename() ? path : path.parent_path();
  return named.has_parent_path() ? named : "." / named;
}

void write_new_file(const std::filesystem::path& path, std::string_view bytes) { NewOutput(path, bytes).keep(); }

void make_output_folder(int parent, const std::string& name, const std::filesystem::path& path) {
  bool made = mkdirat(parent, name.c_str(), 0755) == 0;
  const auto status = made ? link_status_at(parent, name.c_str()) : std::nullopt;
  if (status && (status->st_mode & S_IRWXU) != S_IRWXU) {
    made = fchmodat(parent, name.c_str(), mode_bits(*status) | S_IRWXU, 0) == 0;
  }
  require(made && status, "file_write", "Cannot make the directory " + path_utf8(path));
}

void commit_or_remove(ExportFile& file) {
  try {
    file.commit();
  } catch (const Error&) {
    file.remove();
    throw;
  }
}

NewOutput::NewOutput(const std::filesystem::path& path, std::string_view bytes, ExportAccess access)
    : file_(path, access) {
  file_.write(bytes);
  commit_or_remove(file_);
}

NewOutput::~NewOutput() {
  if (!kept_) {
    file_.remove();
  }
}

NewFolder::NewFolder(const std::filesystem::path& output)
    : output_(output),
      path_(output.native() + "." + random_id() + ".tmp"),
      name_(path_.filename()),
      parent_(
          retry_interrupted([&] { return open(output.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); })) {
  make_output_folder(parent_.get(), name_, path_);
  folder_ =
      Descriptor(retry_interrupted([&] { return openat(parent_.get(), name_.c_str(), posix_files::walk_flags); }));
  require(static_cast<bool>(folder_), "file_write", "Cannot make the directory " + path_utf8(path_));
}

NewFolder::~NewFolder() {
  if (committed_) {
    return;
  }
  const auto made = status_of(folder_.get());
  const auto named = link_status_at(parent_.get(), name_.c_str());
  if (made && named && same_file(*made, *named)) {
    remove_tree_quietly_at(parent_.get(), name_);
  }
}

void NewFolder::commit() {
  constexpr const char* not_durable = "Could not durably synchronize directory";
  require(posix_files::sync(folder_.get()) == 0, "file_sync", not_durable);
  std::string name = output_.filename();
  require(os::rename_exclusive(parent_.get(), name_.c_str(), parent_.get(), name.c_str()) == 0, "file_write",
          "Cannot give the directory its name: " + path_utf8(output_));
  name_ = std::move(name);
  require(posix_files::sync(parent_.get()) == 0, "file_sync", not_durable);
  committed_ = true;
}

}  // namespace ravok
