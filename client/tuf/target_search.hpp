// Which delegations of a repository lead to a target, and what a description of one must have.
#pragma once

#include <string>
#include <utility>

#include "domain/json.hpp"

namespace ravok {

// A target path that is searched for, and its SHA-256, which is taken when it is asked for first.
class TargetPath {
 public:
  explicit TargetPath(std::string text) : text_(std::move(text)) {}

  const std::string& text() const { return text_; }
  // In lower-case hexadecimal. Fails with "crypto_failure".
  const std::string& digest_text();

 private:
  std::string text_;
  std::string digest_text_;
};

// Whether a delegation covers a target path: one of its "paths" is a pattern of it, or one of its "path_hash_prefixes"
// begins the SHA-256 of it. What stands behind the first of them that fits is not looked at. The delegation must be one
// of a document of a good shape. Fails with "size_limit" for a pattern or a path of more than 4,096 bytes, and with
// "invalid_metadata" for a prefix that is not 1 to 64 digits in lower-case hexadecimal.
bool delegation_covers(const Json& delegation, TargetPath& path);

// Accepts only a target's description that a file can be checked against: with a length and at least one hash. Fails
// with "invalid_metadata", "invalid_length" or "invalid_hashes".
void require_checkable(const Json& target);

}  // namespace ravok
