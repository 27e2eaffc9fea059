// Signs what a repository publishes anew before it expires.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "publisher/repository/repository_session.hpp"
#include "publisher/signing/signer.hpp"

namespace ravok {

struct RepositoryRefresh {
  std::filesystem::path folder;
  std::optional<std::uint64_t> days;  // for which the new documents are valid; else as the repository's record says
  // Makes a new timestamp even when nothing is due, and anew what a signer could sign and has not signed yet: so the
  // key that joins a role signs what is there before another key leaves.
  bool force = false;
};

struct RefreshOutcome {
  RepositoryOutcome repository;
  bool was_due = false;             // whether anything was made anew
  std::optional<TufTime> next_due;  // when the next role is due; none while nothing is published
  // Roles that are due, or were to be made anew by force, and were left: the signers could not sign them, or a draft
  // waits that stands on the targets. They last until they expire.
  std::vector<std::string> left;
  bool left_for_draft = false;     // whether the targets are among them because of the draft
  bool left_though_asked = false;  // whether these are not due
};

// Makes new documents of the roles that are due: those of which less than half of their days is left, and those that
// clients would refuse. A role that is due but whose keys are not among the signers stays as it is while it lasts, so
// that a daily run needs the keys of the timestamp alone. Works beside a draft that waits for signatures, which will be
// made to fit, as long as the signers can sign what is due; the targets stay as they are while a draft of other targets
// waits and they last. Fails with "draft_pending" otherwise; with "expired_role" for an expired root; with "wrong_key"
// for a signer who speaks for no role of the repository; with "invalid_expiry" for days that require_days refuses; and
// as RepositorySession does.
RefreshOutcome refresh_repository(const RepositoryRefresh& refresh, const std::vector<Signer>& signers, TufTime now);

}  // namespace ravok
