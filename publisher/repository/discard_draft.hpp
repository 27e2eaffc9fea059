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
// seen a part of it. A draft that is damaged goes too, and a publication whose files are damaged or whose names are
// taken; but nothing goes for any other failure, such as a full disk or a published document that is missing. Fails as
// RepositorySession, remove_folder and tidy_upload_list do.
DiscardOutcome discard_draft(const std::filesystem::path& folder, TufTime now);

}  // namespace ravok
