#include "app/download/launcher_downloads.hpp"

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app/download/download_receipt.hpp"
#include "app/download/receipt_folder.hpp"
#include "app/download/receipt_group.hpp"
#include "domain/crypto.hpp"
#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/file_digest.hpp"
#include "platform/file/files.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/process/native_platform.hpp"
#include "tuf/target_download.hpp"

namespace ravok {
namespace {

constexpr std::string_view no_manifest = "Download retirement requires durable matching native manifest authority";

std::filesystem::path below(const std::filesystem::path& store, const std::filesystem::path& relative) {
  return safe_join(store, path_utf8(relative), true);
}

// What is compared of a version's stored manifest. The digest proves that it is the one that was accepted when it was
// stored, so it is not judged again: a release that this client would not start is retired like any other.
struct StoredManifest {
  std::string text;
  std::string build_id;
  std::string platform;
  std::string target;  // of the archive, as are the others
  std::string archive_sha256;
  std::uint64_t archive_length = 0;
};

StoredManifest read_manifest(const std::filesystem::path& store, const std::string& manifest_sha256) {
  StoredManifest manifest;
  manifest.text = read_file(below(store, LauncherPaths({}).manifest(manifest_sha256)), maximum_manifest_bytes);
  const Json document = parse_json(manifest.text, maximum_manifest_bytes);
  require(digest(manifest.text, "sha256") == manifest_sha256, download_uncertain_code, no_manifest);
  refuse_malformed(download_uncertain_code, no_manifest, [&] {
    const Json& archive = document.at("archive");
    manifest.build_id = text_at(document, "build_id");
    manifest.platform = text_at(document, "platform");
    manifest.target = text_at(archive, "target");
    manifest.archive_sha256 = text_at(archive, "sha256");
    manifest.archive_length = archive.at("length").get<std::uint64_t>();
  });
  return manifest;
}

// Whether a file of this content is what the receipt says that was signed.
bool is_authorized_content(const Json& authorization, const std::string& content) {
  const auto hashes = authorization.at("hashes").items();
  return authorization.at("length") == content.size() &&
         std::all_of(hashes.begin(), hashes.end(),
                     [&](const auto& hash) { return is_text(hash.value(), digest(content, hash.key())); });
}

// The retirement of what was downloaded for a version.
class Retirement {
 public:
  Retirement(const std::filesystem::path& store, const Json& reference) : store_(store), reference_(reference) {
    require(reference_.is_object() && has_text(reference_, "manifest_sha256") &&
                is_sha256_text(text_at(reference_, "manifest_sha256")) && has_text(reference_, "build_id"),
            download_uncertain_code, no_manifest);
    manifest_ = read_manifest(store_, text_at(reference_, "manifest_sha256"));
    require(is_text(reference_.at("build_id"), manifest_.build_id) && manifest_.platform == native_platform(),
            download_uncertain_code, no_manifest);
  }

  void run() const {
    std::vector<Json> finished;
    for (const Json& group : launcher_download_receipts(store_)) {
      if (is_concerned(group.at("receipt"))) {
        require_finished(group.at("receipt"));
        finished.push_back(group);
      }
    }
    for (const Json& group : finished) {
      require_unchanged(group);
    }
    for (const Json& group : finished) {
      remove_receipt_files(store_, group);
    }
  }

 private:
  static bool is_descriptor(const Json& receipt) { return is_text(receipt.at("target"), launcher_manifest_target()); }

  bool is_concerned(const Json& receipt) const {
    return is_text(receipt.at("phase"), download_phase::complete) &&
           (is_descriptor(receipt) ? is_authorized(receipt) : receipt.at("reference") == reference_);
  }

  // Whether what the receipt says that was signed is what the manifest says of that target.
  bool is_authorized(const Json& receipt) const {
    const Json& authorization = receipt.at("authorization");
    if (is_descriptor(receipt)) {
      return is_authorized_content(authorization, manifest_.text);
    }
    return is_text(receipt.at("target"), manifest_.target) && authorization.at("length") == manifest_.archive_length &&
           authorization.at("hashes").value("sha256", "") == manifest_.archive_sha256;
  }

  std::filesystem::path download(const Json& name) const {
    return below(store_, LauncherPaths({}).downloads / path_from_utf8(name.get_ref<const std::string&>()));
  }

  void require_finished(const Json& receipt) const {
    require(is_authorized(receipt), download_uncertain_code, "Download retirement lost its immutable authority");
    require(!is_there(download(receipt.at("temporary"))), download_uncertain_code,
            "A completed download temporary file reappeared");
    const std::filesystem::path file = download(receipt.at("target"));
    verify_target_file(file, receipt.at("authorization"), {});
    require(!is_descriptor(receipt) || is_text(reference_.at("manifest_sha256"), digest_file(file, "sha256")),
            download_uncertain_code, "Descriptor cache differs from its durable manifest");
  }

  void require_unchanged(const Json& group) const {
    const std::string bytes =
        read_file(below(store_, LauncherPaths({}).download_intents / receipt_file_of(group)), maximum_receipt_bytes);
    const auto is_written_in = [&](std::string_view phase) {
      return bytes == receipt_in_phase(group.at("receipt"), phase).dump();
    };
    require(is_text(group.at("receipt_sha256"), digest(bytes, "sha256")) &&
                (is_written_in(download_phase::prepared) || is_written_in(download_phase::complete)),
            download_uncertain_code, "Download receipt changed before retirement");
    const Json groups = launcher_download_receipts(store_);
    require(std::find(groups.begin(), groups.end(), group) != groups.end(), download_uncertain_code,
            "Download ownership changed before retirement");
  }

  const std::filesystem::path& store_;
  const Json& reference_;
  StoredManifest manifest_;
};

}  // namespace

std::string launcher_download_resume_scope(std::string_view target, const Json& reference) {
  return target_download_resume_scope(target, reference);
}

Json launcher_download_receipts(const std::filesystem::path& store) { return target_download_receipts(store); }

LauncherDownloads::LauncherDownloads(std::filesystem::path store) : store_(std::move(store)) {}

void LauncherDownloads::retire(const Json& reference) const { Retirement(store_, reference).run(); }

}  // namespace ravok
