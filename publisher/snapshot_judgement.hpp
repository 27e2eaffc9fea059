// Judging a tree that is to become a snapshot before anything is written.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "platform/snapshot/progress.hpp"
#include "publisher/snapshot_document.hpp"
#include "publisher/snapshot_refusals.hpp"

namespace ravok {

// Returns the files of the publication's tree. Refuses all at once what is wrong with them: what scan_snapshot_tree
// refuses, programs that are named and missing or not executable, programs of a bootstrap or a launcher that have no
// role, and a bootstrap or a launcher that no initial package could hold. Programs without a role are refused only
// where no program is missing that is named, because they are then most often one and the same mistake. `scanning` and
// `unmatched`, which may be empty, are told as SnapshotListener says. Fails with SnapshotRefused, and as
// scan_snapshot_tree does.
SnapshotInventory judge_tree(const SnapshotPublication& publication, const ProgressCallback& scanning,
                             const std::function<void(const std::string& pattern)>& unmatched);

// An archive that stands in a manifest for one that is not packed yet: no other takes less room.
PackedArchive smallest_archive();

// Accepts only a length that the client takes of a manifest or an archive of this kind. Fail with "size_limit".
void require_manifest_length(SnapshotKind kind, std::uint64_t length);
void require_archive_length(SnapshotKind kind, std::uint64_t length);

}  // namespace ravok
