// The certificate authorities that the operating system has its programs trust.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace ravok {

// The largest bundle of the system's authorities that is taken, in bytes. Systems ship a quarter of a megabyte.
inline constexpr std::uint64_t maximum_trust_bundle_bytes = 8'388'608;

namespace os {

// Where a bundle of the system's authorities may lie, in PEM form, the place to be looked at first coming first. None
// on a system whose own store the HTTPS library asks by itself.
std::vector<std::filesystem::path> trust_bundle_places();

}  // namespace os

// Returns the content of the first of these places that holds a bundle: an ordinary file, perhaps reached through
// links, that this user can read, of 1 to maximum_trust_bundle_bytes bytes. Empty when none does.
std::string read_trust_bundle(std::span<const std::filesystem::path> places);

}  // namespace ravok
