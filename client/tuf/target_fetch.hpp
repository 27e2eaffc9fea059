// Fetching a signed target into its place: TufClient::download.
#pragma once

#include <string>

#include "domain/json.hpp"
#include "tuf/target_download.hpp"

namespace ravok {

// Returns the name under which a repository serves a target: its path, and with consistent snapshots the first digest
// of its description and a dot before the file name.
std::string remote_target_name(const std::string& path, const Json& target, bool consistent_snapshot);

}  // namespace ravok
