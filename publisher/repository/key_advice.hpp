// What is worth saying of a repository's keys before one is lost.
#pragma once

#include <string>
#include <vector>

#include "domain/json.hpp"
#include "publisher/signing/signer.hpp"

namespace ravok {

// Returns a warning for each role of a root's "signed" part that the loss of a single key would stop: one whose keys
// must all sign, and the role root if it has a single key.
std::vector<std::string> key_warnings(const Json& root);

// Accepts only signers whose keys speak for some role of a root's "signed" part. Fails with "wrong_key" and the name of
// the key.
void require_known_keys(const Json& root, const std::vector<Signer>& signers);

}  // namespace ravok
