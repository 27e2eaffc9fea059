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
// seen a part of it. A draft that cannot be read, and a publication that cannot be finished, go too. Fails as
// RepositorySession and remove_folder do.
DiscardOutcome discard_draft(const std::filesystem::path& folder, TufTime now);

}  // namespace ravok
