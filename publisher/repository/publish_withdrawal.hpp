// Takes a build back: clients see what was there before it, signed as something newer.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "publisher/repository/repository_session.hpp"
#include "publisher/signing/signer.hpp"

namespace ravok {

struct RepositoryWithdrawal {
  std::filesystem::path folder;
  std::string build_id;
  std::optional<std::uint64_t> days;  // for which the new documents are valid; else as the repository's record says
};

// A manifest that was taken back.
struct WithdrawnBuild {
  std::string target;           // of the manifest
  std::string build;            // such as "launcher build 1.0.1 for linux-x86_64"
  std::string former_build_id;  // of the build that is there again; empty where there was none before
};

struct WithdrawalOutcome {
  RepositoryOutcome repository;
  std::vector<WithdrawnBuild> builds;
};

// Withdraws every manifest of the build that clients see: each target gets what it was in the document before the first
// one that had this build there, or goes where it was nothing. Other targets stay as they are, and clients take the
// former build as they take any other that is newly signed. With too few signers, a draft waits for the other
// signatures. Fails with "build_not_published", unless a publication was finished that had been broken off, which may
// have taken the build back; with "missing_file" when a file of the former build is gone; with "draft_pending",
// "unsigned_role" and "expired_role"; with "wrong_key" for a signer who speaks for no role of the repository; with
// "target_conflict" when a file of the former build has the target of another file that a manifest still names; with
// "invalid_expiry" for days that require_days refuses; and as RepositorySession does.
WithdrawalOutcome withdraw_build(const RepositoryWithdrawal& withdrawal, const std::vector<Signer>& signers,
                                 TufTime now);

}  // namespace ravok
