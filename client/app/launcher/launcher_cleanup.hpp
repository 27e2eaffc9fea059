// Removes what a launcher store holds that nothing needs any more, so that updates have room again.
#pragma once

#include "app/launcher/launcher_store.hpp"
#include "domain/json.hpp"

namespace ravok {

// Removes, in this order, each durably:
//
// - downloads with their receipts, the finished ones and those that broke off
// - versions that the document does not name and that nobody runs, with their manifests and leases; of their files only
//   those that the manifest names
// - what stagings have left that did not end
// - what starts have left that have ended: their health documents, acknowledgements and leases
// - the transaction files of writes that did not end
//
// It holds owner() from start to end. While it works, "cleanup.json" lies in the store and keeps stagings away; a
// clean-up that was killed or has failed leaves it, and the next call finishes the work. Where there is no room for it,
// everything but versions and manifests is removed first, which no staging has to wait for.
//
// Returns {"cleaned": true, "removed": {"attempts", "downloads", "manifests", "stagings", "versions"}, "bytes",
// "kept"}: the numbers of what was removed, by how many bytes the store is smaller, and an array of what could have
// gone but had to stay, each with its "path" below the store and the "reason":
//
// - "in_use": a process runs the version
// - "not_understood": a version without a manifest that this client understands, or a record or a name that is none of
//   the client's
// - "changed": a file of the version became something else, or a partial download is not the one of its checkpoint
// - "unmanaged_files": the version's own files were removed, and others are left in its folder
//
// A start that was interrupted is recovered first, as recover_attempt does.
//
// Fails with "busy" as owner() does, and while a launcher that is being tried runs; with "launcher_missing" for a
// document that names neither an active version nor a candidate; with "unsupported_schema" for a "cleanup.json" that
// another version has left; with "lock_failed" for a lease of that start that is no lock; and as load, tree_bytes and
// target_download_receipts do. Nothing but torn receipts was removed then. What fails later, such as with
// "file_remove", "file_write", "file_sync" or "tree_read", or with "insufficient_space" where even that has made no
// room, is continued by the next call.
Json clean_launcher_store(const LauncherStore& store);

}  // namespace ravok
