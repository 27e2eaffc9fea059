// A view of folders, in which a user looks for the place of an installation.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/screen/latest_answer.hpp"
#include "app/screen/screen.hpp"

namespace ravok {

// The folders in a folder.
struct FolderListing {
  std::filesystem::path folder;      // that was asked about
  std::filesystem::path shown;       // the same without links; empty where it cannot be looked into
  std::vector<std::string> folders;  // by their names, sorted; not those whose names begin with a dot
  std::string problem;               // why it cannot be looked into, or not all of it is shown; empty if it can
};

// Returns the listing of a folder, or of the nearest one above it that exists, with at most 2,000 folders. Never fails.
FolderListing list_folder(const std::filesystem::path& folder);

// To be used from one thread, whose calls never wait. Its screen is "folders", its list "folders", and its actions are
// "use", which is there once the folder is known, and "back".
class FolderView {
 public:
  FolderView();

  // Begins to show a folder.
  void show(const std::filesystem::path& folder);

  Screen screen() const;

  // An entry of the list was chosen, or is to be shown itself.
  void choose(std::size_t entry);
  void enter(std::size_t entry);

  // Returns the place for an installation of that name: a folder of that name in the chosen folder, or in the one that
  // is shown; but that folder itself if it has the name. Returns nothing while the folder that is shown is not known.
  std::optional<std::filesystem::path> place(std::string_view name) const;

  void set_wakeup(std::function<void()> wakeup);

 private:
  // The folder that would be used; nothing while the one that is shown is not known.
  std::optional<std::filesystem::path> chosen_folder(const FolderListing& listing) const;
  // The entries of the list: the folder above, unless there is none, and the folders.
  std::vector<std::string> entries(const FolderListing& listing) const;
  std::optional<std::filesystem::path> entry_path(std::size_t entry) const;

  LatestAnswer<std::filesystem::path, FolderListing> listings_;
  std::filesystem::path folder_;       // that was asked about last
  std::optional<std::size_t> chosen_;  // the entry of the list
};

}  // namespace ravok
