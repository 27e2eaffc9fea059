#include "platform/shortcut/shortcut_file.hpp"

#include <string_view>
#include <utility>
#include <vector>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/transaction_name.hpp"
#include "platform/file/tree_walk.hpp"

namespace ravok {
namespace {

// Whether the name is still that of the file, which is open.
bool names_file(int folder, const std::string& name, const OpenedFile& file) {
  const auto named = link_status_at(folder, name.c_str());
  return named && same_file(*named, file.status);
}

// Returns the file of that name, or nothing unless it is one that can be a shortcut and be read.
std::optional<OpenedFile> read_named(int folder, const std::string& name) {
  try {
    OpenedFile file = read_file_at(folder, name, shortcut_limit);
    return names_file(folder, name, file) ? std::optional(std::move(file)) : std::nullopt;
  } catch (const Error&) {
    return std::nullopt;
  }
}

std::vector<std::string> names_if_readable(int folder) {
  try {
    return names_in(folder, maximum_tree_entries);
  } catch (const Error&) {
    return {};
  }
}

Handle open_folder(const std::filesystem::path& path) {
  try {
    Result<Handle> folder = posix_files::open_passage(path.parent_path());
    require_handles(folder.problem());
    return *std::move(folder);
  } catch (const Error& error) {
    if (error.code == "too_many_files") {
      throw;
    }
    return Handle();
  }
}

}  // namespace

ShortcutFile::ShortcutFile(const std::filesystem::path& path) : name_(name_of(path)), folder_(open_folder(path)) {}

std::optional<OpenedFile> ShortcutFile::read() const {
  return folder_ ? read_named(folder_.get(), name_) : std::nullopt;
}

ShortcutFile::Removal ShortcutFile::remove(const OpenedFile& file) const {
  if (!names_file(folder_.get(), name_, file)) {
    return link_status_at(folder_.get(), name_.c_str()) ? Removal::replaced : Removal::missing;
  }
  const Problem problem = os::remove_at(folder_.get(), name_.c_str());
  if (!problem) {
    return Removal::removed;
  }
  return problem == Cause::missing ? Removal::missing : Removal::failed;
}

bool ShortcutFile::remove_unfinished(std::string_view sha256) const {
  bool has_removed = false;
  for (const std::string& name : folder_ ? names_if_readable(folder_.get()) : std::vector<std::string>()) {
    if (is_transaction_name(name, name_)) {
      const std::optional<OpenedFile> file = read_named(folder_.get(), name);
      const bool is_own = file && digest(file->bytes, "sha256") == sha256;
      has_removed = (is_own && !os::remove_at(folder_.get(), name.c_str())) || has_removed;
    }
  }
  return has_removed;
}

void ShortcutFile::flush_folder() const { sync_open_directory(folder_.get()); }

bool ShortcutFile::shares_folder(const ShortcutFile& other) const {
  const auto first = status_of(folder_.get());
  const auto second = status_of(other.folder_.get());
  return first && second && same_file(*first, *second);
}

StandAside::StandAside(const std::filesystem::path& path)
    : place_(path), file_(place_.read()), aside_(transaction_name(place_.name_)) {
  constexpr const char* not_replaced = "Cannot replace a changed shortcut";
  require(file_.has_value(), "shortcut_path", not_replaced);
  const int folder = place_.folder_.get();
  require(!os::rename_at(folder, place_.name_.c_str(), folder, aside_.c_str()), "shortcut_path", not_replaced);
  if (!names_file(folder, aside_, *file_)) {
    // Another file has got the name since it was read.
    come_back();
    fail("shortcut_path", not_replaced);
  }
}

StandAside::~StandAside() {
  if (file_) {
    come_back();
  }
}

void StandAside::dismiss() {
  const std::optional<OpenedFile> file = std::exchange(file_, std::nullopt);
  if (file && names_file(place_.folder_.get(), aside_, *file)) {
    os::remove_at(place_.folder_.get(), aside_.c_str());
  }
}

void StandAside::come_back() const {
  const int folder = place_.folder_.get();
  os::rename_exclusive(folder, aside_.c_str(), folder, place_.name_.c_str());
}

}  // namespace ravok
