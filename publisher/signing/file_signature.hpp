// Detached signatures of files that are handed on: a document beside the file that says its name, its length and its
// digest, and is signed by a publisher's keys.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.hpp"
#include "platform/snapshot/progress.hpp"
#include "publisher/signing/signer.hpp"

namespace ravok {

// Returns the text of the signature of an ordinary file. It cannot be taken for a document of a repository. `progress`,
// which may be empty, is told of the bytes read. Fails with "signature_threshold" without a signer, with "unsafe_path"
// for a link, a special file or a name that is not UTF-8, with "file_read", also for a file that grew or shrank
// meanwhile, with "cancelled", and as the signers do.
std::string sign_file(const std::filesystem::path& file, const std::vector<Signer>& signers,
                      const ProgressCallback& progress);

// Accepts only a file that has the name, the length and the content which the text signs, and a text which every one of
// the public key objects has signed. Nothing of the text is believed before its signatures are proved. Fails with
// "size_limit" beyond the bound below, "invalid_signature" for a text that is no signature of a file,
// "signature_threshold" for one that lacks a key's signature or where no key is named, "content_mismatch" for another
// file, and as sign_file does for the file. Returns the statement about the file that was proved, as signed_statement
// does.
Json verify_file(const std::filesystem::path& file, std::string_view text, const std::vector<Json>& keys,
                 const ProgressCallback& progress);

// Returns what a text that sign_file has returned says of its file, among others "length" in bytes and "sha256".
Json signed_statement(std::string_view text);

// The most bytes of such a text.
inline constexpr std::uint64_t maximum_file_signature_bytes = 1'048'576;

}  // namespace ravok
