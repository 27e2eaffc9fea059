// Updates of the bootstrap, the one program of an installation that cannot be tried by starting another version of it.
// An update is prepared beside the installed bootstrap while the client runs, and takes its place at a next start.
#pragma once

#include <filesystem>
#include <string>

#include "app/launcher/bootstrap_release.hpp"
#include "platform/snapshot/progress.hpp"
#include "tuf/tuf.hpp"

namespace ravok {

// Prepares the update that the repository has for the bootstrap of a data folder, so that the next start applies it.
// Nothing that runs is touched. `progress`, which may be empty, is told of the bytes fetched and of the bytes unpacked.
// Returns
// - "not_published" when the repository has no bootstrap for this platform;
// - "pending" when an update waits to be applied; the repository is not asked then;
// - "current" when the installed bootstrap is the one of the repository;
// - "rejected" when that of the repository has been tried here and has failed;
// - "staged" when an update waits to be applied now.
//
// Waits at most 15 seconds for others that prepare or apply an update. Fails with
// - "not_installed" for a folder without an installation, and "native_install_incomplete" for one whose setup has not
//   ended;
// - "busy" when others are not done in time, and as NativeFileLock does;
// - "size_limit" for a manifest that is too long or describes too much;
// - "content_mismatch" for an archive that the repository has not signed as the manifest describes it;
// - "cancelled" when `progress` says so;
// - and as TufClient, validate_bootstrap_update, extract_snapshot and verify_snapshot_tree do.
// - and as read_file does for the installed manifest and for the record of a failed update.
// A failure leaves the installed bootstrap as it is, and nothing that was unpacked. What has been fetched stays, for
// the next call to continue, unless it can never be continued. Where what an earlier call has fetched cannot be read or
// its files have got another identity, as in a copied folder, it is fetched anew. What was fetched of other updates is
// removed before the archive comes or goes on. The caller keeps a setup from beginning meanwhile, with the lock of
// bootstrap_lifetime.
std::string stage_bootstrap_update(const std::filesystem::path& data_root, TufClient& tuf,
                                   const ProgressCallback& progress);

// Puts a prepared update into the place of the bootstrap that the image belongs to, unless another bootstrap, a setup
// or another update runs. The new files take their places one by one, and each old one is kept beside its successor
// until the new bootstrap has been started and has ended with exit code 0 within 10 seconds. Where anything fails, the
// old files are put back, and the update is not tried again. This process runs the old bootstrap to its end in either
// case; the next start is the new one. SIGINT, SIGTERM and SIGHUP come when all of that has ended.
//
// What a crash has left of an earlier attempt is brought to an end first, to the new bootstrap or to the old one. Where
// that fails, the update goes on waiting.
// Ends the process with exit code 0 where is_bootstrap_start_check says so. An update that cannot be applied, or not
// now, is no failure; one that is given up is told on standard error in a line. Fails only as installed_data_root and
// is_bootstrap_start_check do.
void apply_pending_bootstrap_update(const std::filesystem::path& image);

}  // namespace ravok
