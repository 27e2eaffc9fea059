// The shape of what names a launcher version and an attempt to start one, wherever a record or the environment holds
// it.
#pragma once

#include <string>
#include <string_view>

#include "domain/json.hpp"

namespace ravok {

// The code and the message for a record of the launcher's that is not of its shape.
inline constexpr std::string_view launcher_state_code = "launcher_state";
inline constexpr std::string_view malformed_launcher_record =
    "Launcher installation record is malformed; it was preserved";

// All of these fail with "launcher_state" for a text that is not of its form. Those that take a value throw the JSON
// library's exception for one of another type.

// Returns the SHA-256 of a manifest, 64 characters of 0-9 and a-f.
const std::string& hash_identity(const Json& value);

// Returns the nonce of an attempt, 32 characters of 0-9 and a-f.
const std::string& nonce_identity(const Json& value);

// Accepts null, which names no version, and an object of "manifest_sha256" and "build_id".
void reference_shape(const Json& value);

// Returns the reference of these two. Checks neither.
Json make_reference(std::string manifest_sha256, std::string build_id);

}  // namespace ravok
