// The visible step of an install or repair: what has been prepared aside takes its place. The marker is up before the
// first change; the record comes last, and the marker goes only after the scratch tree.
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
  const HeldDirectory& staging;  // with "bootstrap", "launcher-root" and "trust" in it, as the plan asks for them
};

// Proves that a commit can go through: that the folders are still in place, that no directory has the name of a
// record, that no volume is mounted in a tree that is to be replaced, that such a tree is this user's, and that no
// remains of a former run lie in the scratch tree. Links and files that have the name of a record or a tree are no
// obstacle: the commit replaces the link or the file, and not what a link leads to. Changes nothing but the mode of
// trees that their owner could not move. Fails with "unsafe_path", and names what is in the way.
void require_clear_way(const InstallFolders& folders, const DataPaths& paths, const NativePackage& package,
                       const InstallPlan& plan);

// Carries the plan out. Where the file system cannot move a former tree aside, as that of a container's lower layer,
// that is removed in its place. Fails as HeldDirectory does; the marker then stays, and a repair goes on from there.
void commit_install(const InstallFolders& folders, const DataPaths& paths, const NativePackage& package,
                    const InstallPlan& plan);

}  // namespace ravok
