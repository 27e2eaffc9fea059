// The files of a bootstrap on their way from a prepared update into the installed tree, and back. A file of the
// installed tree is replaced in one step, once it has a second name beside it; so the tree always has its programs, and
// what was replaced can be put back, by this process or by a later one.
#pragma once

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "domain/data_layout.hpp"
#include "domain/manifest.hpp"
#include "platform/file/file_digest.hpp"
#include "platform/file/held_directory.hpp"
#include "platform/file/tree_walk.hpp"

namespace ravok {

// Removes all replaced files of the installed tree, durably, and the mark of such files. Where one cannot be removed,
// leaves the mark, or makes it. `native` holds the tree and the mark.
void remove_old_files(const HeldDirectory& native, const BootstrapPaths& paths);

// The caller holds the locks of the trees. Paths are relative to a tree.
class BootstrapMoves {
 public:
  // `installed` and `update` are the manifests of the trees, and must outlive the object. Fails with "unsafe_path" for
  // an installed tree that is missing or a link.
  BootstrapMoves(const BootstrapPaths& paths, const SnapshotManifest& installed, const SnapshotManifest& update);

  // Puts back what an interrupted attempt has replaced in the installed tree: a file that differs from the installed
  // manifest and lies whole under its second name, and removes what the attempt has added. Returns whether the attempt
  // has left nothing. That is durable, whoever has put it back, after keep_old_files or undo. Fails with
  // "too_many_files", once all that can be put back is.
  bool restore();

  // Fails with "content_mismatch" unless every file of the update is an ordinary file with its digest and may be
  // executed where it must be.
  void require_update_whole();

  // Gives every file of the installed tree that is to be replaced or taken out its second name. The names are durable
  // at the end. Fails with "file_write", "insufficient_space", "unsafe_path" or "file_sync".
  void keep_old_files();

  // Moves the files of the update into the installed tree, the bootstrap itself last, and takes those out that the
  // update does not have. The names are durable at the end. Fails with "unsafe_path" for a directory in the place of a
  // file, and otherwise in the same way.
  void put_new_files();

  // Takes back what was kept and put, the last move first and on after one that cannot be taken back. Returns whether
  // all of them have been taken back, durably.
  bool undo() noexcept;

 private:
  struct Move {
    enum class Kind { kept, put };
    Kind kind;
    std::string path;
  };

  bool restore_file(const std::string& path);
  bool put_back(const std::string& path);
  bool undo_move(const Move& last);
  bool flush_quietly();

  void keep(const std::string& path);
  void copy(int directory, const std::string& name, const std::string& copy_name) const;
  void take_out(const std::string& path);
  void put(const std::string& path);
  static Problem flush_anew(TreePaths& tree, const std::string& path);
  void move(TreePaths& from, const std::string& name, TreePaths& to, const std::string& new_name);
  Problem remove(const std::string& path);
  void flush();

  // Where a file of the installed tree is, for messages.
  std::filesystem::path place(const std::string& path) const { return paths_.tree / path; }
  std::set<std::string> all_paths() const;
  // The status of a path of the installed tree, or why nothing can be there. Fails with "file_read" where that cannot
  // be told.
  Result<Status> look(const std::string& path);
  Result<Status> look_behind_directory(const std::string& path);
  // Whether the path is that of something but a directory.
  bool is_in_tree(const std::string& path);
  // Whether the file at a path is as the manifest describes the one at another.
  bool holds(const std::string& path, const SnapshotManifest& manifest, const std::string& described);

  const BootstrapPaths& paths_;
  const SnapshotManifest& installed_;
  const SnapshotManifest& update_;
  TreePaths tree_;
  TreePaths update_tree_;
  FileDigester digester_{"sha256"};
  std::vector<Move> moves_;
  std::set<std::string> changed_;  // the directories of the installed tree whose names are not durable yet
};

}  // namespace ravok
