#include "publisher/publish_files.hpp"

#include <utility>

#include "domain/crypto.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/tree_removal.hpp"

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
  Problem problem = os::make_directory_at(parent, name.c_str(), permissions::readable_directory);
  const auto status = link_status_at(parent, name.c_str());
  if (!problem && status && (status->permissions & permissions::owner) != permissions::owner) {
    problem = os::set_permissions_at(parent, name.c_str(), status->permissions | permissions::owner);
  }
  require(!problem && status, "file_write", "Cannot make the directory " + path_utf8(path));
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
    : output_(output), path_(path_from_utf8(path_utf8(output) + "." + random_id() + ".tmp")), name_(name_of(path_)) {
  Result<Handle> parent = os::open(output.parent_path(), os::OpenAs::linked_directory);
  require(parent.has_value(), "file_write", "Cannot make the directory " + path_utf8(path_));
  parent_ = *std::move(parent);
  make_output_folder(parent_.get(), name_, path_);
  Result<Handle> folder = os::open_at(parent_.get(), name_.c_str(), os::OpenAs::directory);
  require(folder.has_value(), "file_write", "Cannot make the directory " + path_utf8(path_));
  folder_ = *std::move(folder);
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
  require(!os::flush(folder_.get()), "file_sync", not_durable);
  std::string name = name_of(output_);
  require(!os::rename_exclusive(parent_.get(), name_.c_str(), parent_.get(), name.c_str()), "file_write",
          "Cannot give the directory its name: " + path_utf8(output_));
  name_ = std::move(name);
  require(!os::flush(parent_.get()), "file_sync", not_durable);
  committed_ = true;
}

}  // namespace ravok
