// Making a prepared private tree live in one step: under a name that must not exist yet, or in
// exchange for another tree. Identities are compared before the step, and after an exchange.
#pragma once

#include <filesystem>
#include <functional>

namespace ravok {

// Moves a private directory (mode 0700) or private file (0600) to a name that must not exist
// yet; both paths need ordinary existing parents. Set-id and sticky bits of the source are not
// looked at and move with it. `hook`, which may be empty, runs between the checks and the move;
// if it throws, nothing is moved. Flushes nothing: the caller flushes the parents.
// Fails with "already_installed" when the destination exists; "unsafe_path" for the paths;
// "permissions" for foreign access; "native_install_commit" for a source that is not private,
// or changed meanwhile, and when the move fails. Nothing is moved then.
void commit_private_path_new(const std::filesystem::path& source, const std::filesystem::path& destination,
                             const std::function<void()>& hook);

// Exchanges two private directories on one volume, in parents that are private too, durably. The
// mode of all four must be exactly 0700, without set-id and sticky bits. `hook`, which may be empty, runs between the
// checks and the exchange; if it throws, nothing is exchanged. Fails with "unsafe_path", "permissions" or
// "native_install_commit", and then nothing was exchanged, with two exceptions: "file_sync", and the
// "native_install_commit" whose message says that the exchange was committed with changed ownership. After these the
// caller decides by the identities that its hook recorded.
void exchange_private_directories(const std::filesystem::path& first, const std::filesystem::path& second,
                                  const std::function<void()>& hook);

}  // namespace ravok
