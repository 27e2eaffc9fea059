#include "app/screen/folder_view.hpp"

#include <algorithm>
#include <exception>
#include <system_error>
#include <utility>

#include "domain/display_text.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/held_directory.hpp"

namespace ravok {
namespace {

constexpr std::size_t most_folders = 2000;
constexpr std::size_t most_names = 20'000;
constexpr const char* list_id = "folders";
constexpr const char* above = "..";

std::filesystem::path nearest_folder(std::filesystem::path folder) {
  std::error_code problem;
  while (!std::filesystem::is_directory(folder, problem) && folder.has_parent_path() &&
         folder != folder.parent_path()) {
    folder = folder.parent_path();
  }
  return std::filesystem::canonical(folder);
}

void read_listing(FolderListing& listing) {
  const HeldDirectory directory = HeldDirectory::open(listing.shown);
  const std::vector<std::string> names = directory.names(most_names);
  for (const std::string& name : names) {
    if (!name.starts_with('.') && directory.type_of(name) == EntryType::directory) {
      listing.folders.push_back(name);
    }
  }
  std::sort(listing.folders.begin(), listing.folders.end());
  if (listing.folders.size() > most_folders || names.size() == most_names) {
    listing.folders.resize(std::min(listing.folders.size(), most_folders));
    listing.problem = "Not all folders are shown; write the path of yours instead.";
  }
}

}  // namespace

FolderListing list_folder(const std::filesystem::path& folder) {
  FolderListing listing;
  listing.folder = folder;
  try {
    listing.shown = nearest_folder(folder);
    read_listing(listing);
  } catch (const std::exception&) {
    // Mostly for want of permission. A folder that cannot be listed may still hold the user's, which can be written.
    listing.problem = "This folder cannot be looked into.";
  }
  return listing;
}

FolderView::FolderView() : listings_(list_folder, {}) {}

void FolderView::show(const std::filesystem::path& folder) {
  folder_ = folder;
  chosen_.reset();
  listings_.ask(folder_);
}

std::vector<std::string> FolderView::entries(const FolderListing& listing) const {
  std::vector<std::string> entries;
  if (listing.shown.has_relative_path()) {
    entries.emplace_back(above);
  }
  for (const std::string& name : listing.folders) {
    entries.push_back(shown_text(name));
  }
  return entries;
}

std::optional<std::filesystem::path> FolderView::entry_path(std::size_t entry) const {
  const FolderListing listing = listings_.last();
  const std::size_t first = listing.shown.has_relative_path() ? 1 : 0;
  if (listing.folder != folder_ || entry >= first + listing.folders.size()) {
    return std::nullopt;
  }
  return entry < first ? listing.shown.parent_path() : listing.shown / path_from_utf8(listing.folders[entry - first]);
}

std::optional<std::filesystem::path> FolderView::chosen_folder(const FolderListing& listing) const {
  if (listing.folder != folder_ || listing.shown.empty()) {
    return std::nullopt;
  }
  const std::optional<std::filesystem::path> entry = chosen_ ? entry_path(*chosen_) : std::nullopt;
  return entry ? entry : listing.shown;
}

Screen FolderView::screen() const {
  const FolderListing listing = listings_.last();
  const bool known = listing.folder == folder_;
  Screen screen;
  screen.id = "folders";
  screen.title = "Choose a folder";
  screen.heading = screen.title;
  const std::optional<std::filesystem::path> chosen = chosen_folder(listing);
  screen.items.emplace_back(ScreenText{"where", shown_text(path_utf8(chosen.value_or(folder_))), TextTone::normal});
  ScreenList list = {list_id, {}, chosen_};
  if (known) {
    list.entries = entries(listing);
  }
  screen.items.emplace_back(std::move(list));
  if (known && !listing.problem.empty()) {
    screen.items.emplace_back(ScreenText{"problem", shown_text(listing.problem), TextTone::warning});
  }
  if (chosen) {
    screen.actions.push_back({"use", "Use this &folder", ActionTone::accent});
  }
  screen.actions.push_back({"back", "&Back"});
  screen.first = list_id;
  screen.escape = "back";
  return screen;
}

void FolderView::choose(std::size_t entry) {
  if (entry_path(entry)) {
    chosen_ = entry;
  }
}

void FolderView::enter(std::size_t entry) {
  if (const std::optional<std::filesystem::path> path = entry_path(entry)) {
    show(*path);
  }
}

std::optional<std::filesystem::path> FolderView::place(std::string_view name) const {
  // Nothing looks into an entry that is only chosen: it may lie on a volume that does not answer.
  std::optional<std::filesystem::path> folder = chosen_folder(listings_.last());
  if (!folder || path_utf8(folder->filename()) == name) {
    return folder;
  }
  return *folder / path_from_utf8(std::string(name));
}

void FolderView::set_wakeup(std::function<void()> wakeup) { listings_.set_wakeup(std::move(wakeup)); }

}  // namespace ravok
