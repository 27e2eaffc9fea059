// One running digest of the cryptographic library. It answers failure with false, so that
// each user of it can name the failure in its own words.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

struct evp_md_ctx_st;
struct evp_md_st;

namespace ravok {

// Returns the library's algorithm for "sha256" or "sha512", which lives as long as the process.
// Fails with "unsupported_hash" for any other name.
const evp_md_st* digest_algorithm(std::string_view name);

class DigestContext {
 public:
  // Makes a context that is not started.
  DigestContext();

  // Starts a digest afresh, dropping what was added before. Returns whether that worked.
  bool start(const evp_md_st* algorithm);
  // Adds bytes. Returns whether that worked.
  bool update(std::span<const std::uint8_t> bytes);
  // Makes this context a copy of the other, with all bytes that were added to it so far. Returns whether that worked.
  bool copy(const DigestContext& other);
  // Ends the digest and returns its bytes, or none when that did not work.
  std::vector<std::uint8_t> finish();

 private:
  struct Release {
    void operator()(evp_md_ctx_st* context) const;
  };
  std::unique_ptr<evp_md_ctx_st, Release> context_;
};

}  // namespace ravok
