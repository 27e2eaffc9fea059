// Digests of whole files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

namespace ravok {

// Told how many bytes of how many are done; answers false to cancel.
using ProgressCallback = std::function<bool(std::uint64_t done, std::uint64_t total)>;

// Returns the digest text of the file's content by "sha256" or "sha512".
// Fails with "file_read" when the file cannot be opened or read, "unsupported_hash" for another
// algorithm, "crypto_failure" when the library fails.
std::string digest_file(const std::filesystem::path& path, std::string_view algorithm);

// The same, and calls `progress` once before the first byte and after each piece of 65,536
// bytes, with the file's size at the start as the total. Fails also with "cancelled" when
// `progress` says so, and with "content_mismatch" when the file grows beyond that size.
// An empty `progress` asks for no size and sets no bound.
std::string digest_file_progress(const std::filesystem::path& path, std::string_view algorithm,
                                 const ProgressCallback& progress);

}  // namespace ravok
