// What the commands of a signed repository have in common: their options, and how they tell what they have done.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "publisher/commands/commands.hpp"
#include "publisher/repository/repository_session.hpp"

namespace ravok {

// Lets a command take the repository's folder.
void add_repository_folder(CLI::App& command, std::filesystem::path& folder);

// Lets a command take --days N for the documents that it signs.
void add_days_option(CLI::App& command, std::optional<std::uint64_t>& days);

// Returns who must sign what, as documents tell it.
Json needs_document(const std::vector<SignatureNeed>& needs);

// Adds what has become of the repository: which documents were published and until when, or whose signatures they wait
// for, and what is to be uploaded. Warnings become complaints.
void tell_outcome(CommandResult& result, const std::filesystem::path& folder, const RepositoryOutcome& outcome);

}  // namespace ravok
