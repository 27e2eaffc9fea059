// Gives up what a repository was to publish next.
#pragma once

#include <filesystem>
#include <string>

#include "publisher/repository/repository_session.hpp"

namespace ravok {

struct DiscardOutcome {
  RepositoryOutcome repository;
  std::string action;  // the command whose draft was removed; empty when there was none
};

// Removes the draft, whoever has signed it. A publication that had begun is finished instead, since clients may have
// seen a part of it. A draft that is damaged, and a publication that cannot be finished, go too; but nothing goes for a
// failure that says nothing of the draft, such as a full disk. Fails as RepositorySession, remove_folder and
// tidy_upload_list do.
DiscardOutcome discard_draft(const std::filesystem::path& folder, TufTime now);

}  // namespace ravok
