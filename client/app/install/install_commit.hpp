// The visible step of an install or repair, which puts what was prepared in its place. The marker is written before the
// first change. After the last change come the record, the removal of the scratch tree and the removal of the marker,
// in this order.
#pragma once

#include "app/install/data_folder.hpp"
#include "app/install/native_package.hpp"
#include "platform/file/held_directory.hpp"

namespace ravok {

// What an install or repair has to put in place.
struct InstallPlan {
  bool replace_bootstrap = true;
  bool replace_launcher = true;
  bool replace_trust = true;
};

// The three directories that a commit acts in, each held open since it was proved.
struct InstallFolders {
  const HeldDirectory& root;
  const HeldDirectory& native;
  const HeldDirectory& staging;  // with the trees of StagingPaths that the plan asks for
};

// Accepts only folders in which a commit can go through: they are still in place, no directory has the name of a
// record, no volume is mounted in a tree that is to be replaced, such a tree is this user's, and no remains of a former
// run lie in the scratch tree. A link or a file that has the name of a record or a tree is no obstacle: the commit
// replaces it, and not what a link leads to. Changes nothing but the mode of trees that their owner could not move.
// Fails with "unsafe_path", and names what is in the way.
void require_clear_way(const InstallFolders& folders, const DataPaths& paths, const NativePackage& package,
                       const InstallPlan& plan);

// Carries the plan out. A former tree that the file system cannot move aside, such as one in the lower layer of a
// container, is removed instead. Fails with "insufficient_space", "file_write", "file_sync", "file_remove" or
// "unsafe_path" as HeldDirectory does; the marker then stays, unless only the flush after its removal failed, and a
// repair goes on from there.
void commit_install(const InstallFolders& folders, const DataPaths& paths, const NativePackage& package,
                    const InstallPlan& plan);

}  // namespace ravok
