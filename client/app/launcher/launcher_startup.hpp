// What the bootstrap and the launcher that it tries out say to one another: the variables that make a process the
// attempt, and the document by which a launcher tells that it holds its leases. The store's own side of the protocol
// are members of LauncherStore.
#pragma once

#include <cstdint>
#include <string_view>

#include "domain/error.hpp"
#include "domain/json.hpp"
#include "domain/launcher_contract.hpp"
#include "platform/process/process.hpp"

namespace ravok {

class LauncherStore;

// The largest health document or acknowledgement, in bytes.
inline constexpr std::uint64_t maximum_startup_document_bytes = 4096;

// Accepts "cli" and "gui". Fails with "launcher_interface".
void interface_shape(std::string_view interface);

// Returns the acknowledgement that a launcher of this manifest writes once it holds the leases of its attempt. Fails
// with "launcher_health" for the process number 0 and for any other interface than "cli" and "gui".
Json lease_document(const LauncherManifest& manifest, const Json& attempt, std::uint64_t pid,
                    std::string_view interface);

// Returns the variables with empty values, which a launcher takes for none: for a start outside an attempt.
ProcessEnvironment cleared_startup_environment();

// Whether an attempt could not be recovered or begun for a lack of room alone, where that has failed with this error.
// Fails as LauncherStore::load does.
bool is_lack_of_room(const LauncherStore& store, const Error& error);

}  // namespace ravok
