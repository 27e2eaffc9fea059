// Makes the folder of a signed repository.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "publisher/repository/repository_session.hpp"
#include "publisher/signing/signer.hpp"

namespace ravok {

struct RepositoryFoundation {
  std::filesystem::path folder;                    // which must not exist yet
  std::filesystem::path root;                      // the first root document
  std::map<std::string, std::uint64_t> days;       // of validity by role, where not as PublisherRecord says
  std::vector<std::filesystem::path> public_keys;  // key files whose names their keys get in messages
};

// Makes a repository that describes nothing. With signers, its first documents are signed, and published if that is
// enough; without, the first release signs them. After a failure nothing is left behind, unless another run has come to
// the repository meanwhile. Fails with "invalid_expiry" for days that require_days refuses, as read_public_key and
// RepositoryFolder::create do, with the root's path before a message about it, with "busy" where another run has been
// at work on the repository, and as RepositorySession does.
RepositoryOutcome init_repository(const RepositoryFoundation& foundation, const std::vector<Signer>& signers,
                                  TufTime now);

}  // namespace ravok
