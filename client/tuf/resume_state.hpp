// The checkpoint of a download that has not ended: which file its bytes are in, and how many of them it vouches for.
// A checkpoint that is not understood is preserved.
//
// A partial file of the target "folder/game" is "folder/game.NONCE.partial", and its checkpoint is that name followed
// by ".resume.json". A nonce is 32 lower-case hexadecimal characters.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "domain/json.hpp"

namespace ravok {

// The largest checkpoint, as text, in bytes.
inline constexpr std::uint64_t maximum_resume_state_bytes = 16'384;

// How many characters a nonce has.
inline constexpr std::size_t download_nonce_characters = 32;

// The kind of a checkpoint, its member "kind".
inline constexpr std::string_view resume_state_kind = "ravok-target-resume";

// Whether the text is a nonce.
bool is_download_nonce(std::string_view text);

// Returns the name of a partial file, and of its checkpoint.
std::string partial_name(std::string_view target, std::string_view nonce);
std::string resume_state_name(std::string_view partial);

// Returns the nonce in the name of a partial file of this target, or an empty text for any other name.
std::string_view partial_nonce(std::string_view partial, std::string_view target);

// Whether `name` is that of a record, or of the transaction file of a write of it: the record's name, a dot, 32
// lower-case hexadecimal characters and ".tmp".
bool is_record_file(std::string_view name, std::string_view record);

// What a checkpoint says of its download before the first byte arrives. All of it stays the same until the end.
struct ResumeSubject {
  std::string target;        // the path in the repository
  std::string temporary;     // the name of the partial file, with the folders of the target
  Json authorization;        // the signed "length" and "hashes"
  std::string scope_sha256;  // of the purpose that the download is for
  std::uint64_t device = 0;  // where the partial file is
  std::uint64_t inode = 0;   // which file it is
};

// Returns the checkpoint that vouches for the first `received` bytes of the partial file by their SHA-256.
Json make_resume_state(const ResumeSubject& subject, std::uint64_t received, std::string_view prefix_sha256);

// Returns the text of a checkpoint, as it is stored. Fails with "size_limit" beyond the bound.
std::string resume_state_text(const Json& state);

// Accept only a checkpoint of the partial file with this name; with or without the folders of the target. Whether it is
// of a certain target, authorization or scope is for the caller to compare. Fail with "download_resume_state".
void resume_shape(const Json& state, std::string_view partial);
void validate_target_resume_state(const Json& state, std::string_view partial);

}  // namespace ravok
