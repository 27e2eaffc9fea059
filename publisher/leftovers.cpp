#include "publisher/leftovers.hpp"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "domain/text_rules.hpp"
#include "platform/file/directory_reader.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/tree_removal.hpp"

namespace ravok {
namespace {

constexpr std::size_t random_characters = 32;
constexpr std::size_t added_characters = 1 + random_characters + temporary_ending.size();

std::vector<std::string> temporary_names(int folder) {
  std::vector<std::string> names;
  Result<Handle> directory = os::open_at(folder, ".", os::OpenAs::directory);
  if (!directory) {
    return names;
  }
  Result<os::DirectoryReader> reader = os::DirectoryReader::of(*std::move(directory));
  if (!reader) {
    return names;
  }
  for (auto entry = reader->next(); entry && entry->name != nullptr; entry = reader->next()) {
    if (is_temporary_name(entry->name)) {
      names.emplace_back(entry->name);
    }
  }
  return names;
}

bool is_candidate(const Status& status) { return status.is_own && (is_file(status) || is_directory(status)); }

// Whether a file has no name but its temporary one and that of its output.
bool has_no_foreign_name(int folder, const std::string& name, const Status& file) {
  if (is_single_link_file(file)) {
    return true;
  }
  const std::string output = name.substr(0, name.size() - added_characters);
  const auto named = link_status_at(folder, output.c_str());
  return file.links == 2 && named && same_file(*named, file);
}

void remove_if_left_over(int folder, const std::string& name) {
  const auto found = link_status_at(folder, name.c_str());
  if (!found || !is_candidate(*found)) {
    return;
  }
  const Result<Handle> opened =
      os::open_at(folder, name.c_str(), is_directory(*found) ? os::OpenAs::directory : os::OpenAs::file);
  if (!opened || os::lock(opened->get(), true, false)) {
    return;
  }
  // Only now can no run have it. It may have got the name of its output meanwhile.
  const auto locked = status_of(opened->get());
  const auto named = link_status_at(folder, name.c_str());
  if (!locked || !named || !same_file(*locked, *named) || !is_candidate(*locked)) {
    return;
  }
  if (is_directory(*locked)) {
    remove_tree_quietly_at(folder, name);
  } else if (has_no_foreign_name(folder, name, *locked)) {
    os::remove_at(folder, name.c_str());
  }
}

// On a volume without locks nothing can be swept either.
void lock_if_possible(int made) { static_cast<void>(os::lock(made, true, true)); }

}  // namespace

bool is_temporary_name(std::string_view name) {
  if (name.size() <= added_characters || !name.ends_with(temporary_ending)) {
    return false;
  }
  const std::string_view added = name.substr(name.size() - added_characters);
  return added.front() == '.' && is_lower_hex(added.substr(1, random_characters));
}

bool hold_file(int file) {
  lock_if_possible(file);
  const auto status = status_of(file);
  return !status || status->links > 0;
}

bool hold_folder(int parent, const std::string& name, int folder) {
  lock_if_possible(folder);
  const auto held = status_of(folder);
  const auto named = link_status_at(parent, name.c_str());
  return held && named && same_file(*held, *named);
}

void sweep_leftovers(int folder) {
  for (const std::string& name : temporary_names(folder)) {
    remove_if_left_over(folder, name);
  }
}

}  // namespace ravok
