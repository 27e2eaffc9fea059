#include "publisher/publish_files.hpp"

#include <utility>

#include "domain/crypto.hpp"
#include "domain/limits.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/tree_removal.hpp"
#include "publisher/leftovers.hpp"

namespace ravok {
namespace {

constexpr const char* not_durable = "Could not durably synchronize directory";

}  // namespace

bool is_named(const std::string& message, const std::string& path) {
  constexpr std::string_view around = " :;,()";
  const auto ends = [&](std::size_t at) { return at >= message.size() || around.find(message[at]) != around.npos; };
  for (std::size_t at = message.find(path); at != std::string::npos; at = message.find(path, at + 1)) {
    if ((at == 0 || ends(at - 1)) && ends(at + path.size())) {
      return true;
    }
  }
  return false;
}

void require_absent(const std::filesystem::path& path) {
  const auto status = link_status_of(path);
  require(!status, "output_exists", "The output already exists: " + path_utf8(path));
  require(is_missing(path), "file_write",
          "Cannot look for the output " + path_utf8(path) + ": " + problem_text(status.problem()));
}

void require_outside(const std::filesystem::path& output, const std::filesystem::path& directory,
                     std::string_view message) {
  std::error_code problem;
  const std::filesystem::path below = std::filesystem::relative(output, directory, problem);
  require(!problem && (below.empty() || *below.begin() == ".."), "unsafe_path", message);
}

std::filesystem::path output_path(const std::filesystem::path& path) {
  const std::filesystem::path named = path.has_filename() ? path : path.parent_path();
  return named.has_parent_path() ? named : "." / named;
}

void write_new_file(const std::filesystem::path& path, std::string_view bytes) { NewOutput(path, bytes).keep(); }

void read_in_pieces(const std::filesystem::path& path, const std::function<void(std::string_view)>& take) {
  const Result<Handle> input = os::open(path, os::OpenAs::file);
  require(input.has_value(), "file_read", "Cannot open file: " + path_utf8(path));
  std::string buffer(piece_bytes, '\0');
  for (;;) {
    const Result<std::size_t> count = os::read(input->get(), buffer.data(), buffer.size());
    require(count.has_value(), "file_read", "Cannot read file: " + path_utf8(path));
    if (*count == 0) {
      return;
    }
    take({buffer.data(), *count});
  }
}

void make_output_folder(int parent, const std::string& name, const std::filesystem::path& path) {
  Problem problem = os::make_directory_at(parent, name.c_str(), permissions::readable_directory);
  const auto status = link_status_at(parent, name.c_str());
  if (!problem && status && (status->permissions & permissions::owner) != permissions::owner) {
    problem = os::set_permissions_at(parent, name.c_str(), status->permissions | permissions::owner);
  }
  require(!problem && status, "file_write", "Cannot make the directory " + path_utf8(path));
}

NewFolders::NewFolders(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> missing;
  for (std::filesystem::path level = folder; !level.empty() && is_missing(level); level = level.parent_path()) {
    missing.push_back(level);
  }
  try {
    for (auto level = missing.rbegin(); level != missing.rend(); ++level) {
      make(*level);
    }
  } catch (...) {
    remove();
    throw;
  }
}

NewFolders::~NewFolders() { remove(); }

void NewFolders::make(const std::filesystem::path& folder) {
  const Result<Handle> parent = os::open(folder_of(folder), os::OpenAs::linked_directory);
  require(parent.has_value(), "file_write", "Cannot make the directory " + path_utf8(folder));
  try {
    make_output_folder(parent->get(), name_of(folder), folder);
  } catch (const Error&) {
    // Another run may have made it meanwhile, and keeps it.
    const auto status = link_status_of(folder);
    if (status && is_directory(*status)) {
      return;
    }
    throw;
  }
  made_.push_back(folder);
  require(!os::flush(parent->get()), "file_sync", not_durable);
}

void NewFolders::remove() noexcept {
  for (; !made_.empty(); made_.pop_back()) {
    os::remove_directory(made_.back());
  }
}

OutputFile::OutputFile(const std::filesystem::path& path, ExportAccess access) : folders_(folder_of(path)) {
  if (const Result<Handle> folder = os::open(folder_of(path), os::OpenAs::linked_directory)) {
    sweep_leftovers(folder->get());
  }
  do {
    file_ = std::make_unique<ExportFile>(path, access);
  } while (!hold_file(file_->handle()));
}

OutputFile::~OutputFile() {
  if (!kept_) {
    file_->remove();
  }
  // The file goes before its folder.
  file_.reset();
}

void OutputFile::make_program() {
  require(!os::set_permissions(file_->handle(), permissions::program), "file_write",
          "Cannot set the permissions of a file");
}

FileRange OutputFile::written() const {
  Result<Handle> file = os::duplicate(file_->handle());
  require(file.has_value(), "file_read", "Cannot read a file that was written");
  return FileRange::of_open(*std::move(file));
}

void OutputFile::keep() {
  kept_ = true;
  folders_.keep();
}

NewOutput::NewOutput(const std::filesystem::path& path, std::string_view bytes, ExportAccess access)
    : file_(path, access) {
  file_.write(bytes);
  file_.commit();
}

NewFolder::NewFolder(const std::filesystem::path& output) : output_(output), folders_(folder_of(output)) {
  Result<Handle> parent = os::open(folder_of(output), os::OpenAs::linked_directory);
  require(parent.has_value(), "file_write", "Cannot make the directory " + path_utf8(output));
  parent_ = *std::move(parent);
  sweep_leftovers(parent_.get());
  while (!make()) {
  }
}

// Returns false when another run has taken the directory for a leftover before it was held.
bool NewFolder::make() {
  path_ = path_from_utf8(path_utf8(output_) + "." + random_id() + ".tmp");
  name_ = name_of(path_);
  make_output_folder(parent_.get(), name_, path_);
  Result<Handle> folder = os::open_at(parent_.get(), name_.c_str(), os::OpenAs::directory);
  if (folder.problem() == Cause::missing) {
    return false;
  }
  require(folder.has_value(), "file_write", "Cannot make the directory " + path_utf8(path_));
  folder_ = *std::move(folder);
  return hold_folder(parent_.get(), name_, folder_.get());
}

NewFolder::~NewFolder() {
  if (committed_) {
    return;
  }
  // The directory goes before the one that it lies in.
  const auto made = status_of(folder_.get());
  const auto named = link_status_at(parent_.get(), name_.c_str());
  if (made && named && same_file(*made, *named)) {
    remove_tree_quietly_at(parent_.get(), name_);
  }
}

void NewFolder::commit() {
  require(!os::flush(folder_.get()), "file_sync", not_durable);
  std::string name = name_of(output_);
  require(!os::rename_exclusive(parent_.get(), name_.c_str(), parent_.get(), name.c_str()), "file_write",
          "Cannot give the directory its name: " + path_utf8(output_));
  name_ = std::move(name);
  require(!os::flush(parent_.get()), "file_sync", not_durable);
  committed_ = true;
  folders_.keep();
}

}  // namespace ravok
