// The receipt of a download: who owns a partial file, and under which signed authorization. It is written before the
// first byte arrives, and stays until the result is durable. A receipt that is not understood is preserved.
//
// "prepared" says that a partial file with the receipt's nonce may exist; "complete" that it has become the target.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "domain/json.hpp"

namespace ravok {

// The code for evidence that is preserved because it does not say for certain what it is.
inline constexpr std::string_view download_uncertain_code = "launcher_download_uncertain";

// The largest receipt, as text, in bytes.
inline constexpr std::uint64_t maximum_receipt_bytes = 16'384;

// The kind of a receipt, its member "kind".
inline constexpr std::string_view download_receipt_kind = "ravok-launcher-download";

namespace download_phase {

inline constexpr std::string_view prepared = "prepared";
inline constexpr std::string_view resumed = "resumed";  // told by a download; never in a receipt
inline constexpr std::string_view complete = "complete";

}  // namespace download_phase

// What a receipt is about. The reference is null for the launcher's manifest, and otherwise names the version that the
// download is for.
struct DownloadSubject {
  std::string target;  // the path in the repository
  std::string nonce;   // of the partial file
  Json length;         // the signed length, in bytes
  Json hashes;         // the signed digests, by their algorithms
  Json reference;
};

// Returns the receipt of a download in a phase. Checks nothing; validate_target_download_receipt does.
Json make_download_receipt(const DownloadSubject& subject, std::string_view phase);

// Returns a receipt as it says the same in another phase.
Json receipt_in_phase(Json receipt, std::string_view phase);

// Whether two receipts describe the same download, in whatever phase each of them is.
bool describe_same_download(const Json& first, const Json& second);

// Accepts only a receipt. Fails with "launcher_download_uncertain", and with "size_limit" for one whose text is longer
// than the bound.
void validate_target_download_receipt(const Json& receipt);

// Returns the name of a receipt's file.
std::string receipt_file_name(std::string_view nonce);

// Whether `name` is that of the receipt with this nonce, or of the transaction file of a write of it. Never for a text
// that is no nonce.
bool target_download_file_name(std::string_view name, std::string_view nonce);

// The same for the checkpoint of a partial file and its writes.
bool target_download_resume_file_name(std::string_view name, std::string_view partial);

// Returns the text that binds a checkpoint to one purpose: the same bytes downloaded for another reference are not
// resumed. A reference is an object or null. Fails with "invalid_number" for one with a floating-point number.
std::string target_download_resume_scope(std::string_view target, const Json& reference);

}  // namespace ravok
