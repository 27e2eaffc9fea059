#include "publisher/publish_snapshot.hpp"

#include <string_view>
#include <system_error>

#include "app/install/native_package.hpp"
#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "publisher/publish_files.hpp"
#include "publisher/snapshot_judgement.hpp"
#include "publisher/snapshot_pack.hpp"

namespace ravok {
namespace {

// No manifest within the bounds on files and paths is longer than this.
constexpr std::uint64_t written_manifest_limit = std::uint64_t{1} << 31;

// What has been judged, and may be written.
struct Judged {
  PublishedSnapshot snapshot;
  SnapshotInventory inventory;
};

Judged judge(const SnapshotPublication& publication, const SnapshotListener& listener) {
  require_options(publication);
  require_texts(publication);
  Judged judged;
  PublishedSnapshot& snapshot = judged.snapshot;
  snapshot.archive = publication.output / path_from_utf8(archive_target(publication)).filename();
  snapshot.manifest = publication.output / manifest_name(publication);
  require(snapshot.archive != snapshot.manifest, "output_exists",
          "The archive and its manifest need different names: " + path_utf8(snapshot.archive));
  require_absent(snapshot.archive);
  require_absent(snapshot.manifest);
  judged.inventory = judge_tree(publication, listener.scanning, listener.unmatched);
  require_outside(publication.output, publication.tree, "The output directory must lie outside the tree");
  require_accepted(publication.kind, make_document(publication, judged.inventory, smallest_archive()));
  snapshot.files = judged.inventory.size();
  snapshot.expanded_length = expanded_length(judged.inventory);
  return judged;
}

void write_manifest(const SnapshotPublication& publication, const Json& document, PublishedSnapshot& snapshot) {
  const std::string text = document.dump();
  require_manifest_length(publication.kind, text.size());
  NewOutput file(snapshot.manifest, text);
  require_accepted(publication.kind,
                   parse_json(read_file(snapshot.manifest, written_manifest_limit), written_manifest_limit));
  file.keep();
  snapshot.manifest_length = text.size();
  snapshot.manifest_sha256 = digest(text, "sha256");
}

}  // namespace

PublishedSnapshot publish_snapshot(const SnapshotPublication& publication, const ProgressCallback& progress) {
  return publish_snapshot(publication, progress, {});
}

PublishedSnapshot publish_snapshot(const SnapshotPublication& publication, const ProgressCallback& progress,
                                   const SnapshotListener& listener) {
  auto [snapshot, inventory] = judge(publication, listener);
  OutputFile file(snapshot.archive);
  std::uint64_t written = 0;
  const auto write = [&](std::string_view bytes) {
    written += bytes.size();
    require_archive_length(publication.kind, written);
    file.write(bytes);
  };
  const PackedArchive archive =
      pack_snapshot(publication.tree, inventory, publication.level, write, progress, publication.scan.modes);
  const Json document = make_document(publication, inventory, archive);
  require_accepted(publication.kind, document);
  file.commit();
  write_manifest(publication, document, snapshot);
  file.keep();
  snapshot.archive_length = archive.length;
  snapshot.archive_sha256 = archive.sha256;
  return snapshot;
}

PublishedSnapshot check_snapshot(const SnapshotPublication& publication, const SnapshotListener& listener) {
  return judge(publication, listener).snapshot;
}

}  // namespace ravok
