#include "publisher/snapshot_judgement.hpp"

#include <algorithm>
#include <cstddef>
#include <set>
#include <string_view>
#include <utility>

#include "app/install/native_package.hpp"
#include "domain/error.hpp"
#include "domain/launcher_contract.hpp"
#include "domain/limits.hpp"

namespace ravok {
namespace {

// A program that the publication names, and the client's refusal where it is none.
struct NamedProgram {
  std::string path;
  std::string code;
  std::string rule;
};

std::vector<NamedProgram> programs_to_be(const SnapshotPublication& publication) {
  constexpr const char* manifest = "invalid_manifest";
  constexpr const char* package = "invalid_native_package";
  std::vector<NamedProgram> programs = {
      {publication.executable, manifest, "Declared executable is missing or not executable"}};
  if (publication.kind == SnapshotKind::launcher) {
    programs.push_back({publication.gui_executable, manifest, "GUI launcher executable is missing or not executable"});
    for (const PublishedHelper& helper : publication.helpers) {
      programs.push_back(
          {helper.path, "launcher_incompatible", "Native helper is missing, repeated or overlaps a frontend"});
    }
  }
  if (publication.kind == SnapshotKind::bootstrap && !publication.gui_executable.empty()) {
    programs.push_back({publication.gui_executable, package,
                        "Initial bootstrap GUI entry must be its declared Windows windowed executable"});
  }
  if (publication.kind == SnapshotKind::bootstrap && !publication.shortcut_executable.empty()) {
    programs.push_back({publication.shortcut_executable, package,
                        "macOS bootstrap launch documents need their declared native app helper and metadata"});
  }
  return programs;
}

class Judgement {
 public:
  Judgement(const SnapshotPublication& publication, SnapshotInventory inventory, SnapshotRefusals& refusals)
      : publication_(publication), inventory_(std::move(inventory)), refusals_(refusals) {}

  void judge_programs() {
    std::set<std::string> named;
    for (const NamedProgram& program : programs_to_be(publication_)) {
      named.insert(program.path);
      judge_named(program);
    }
    if (publication_.kind == SnapshotKind::game) {
      return;
    }
    for (const auto& [path, file] : inventory_) {
      if (file.executable && !named.contains(path) && !refusals_.concern(path)) {
        refuse_without_role(path);
      }
    }
  }

  void judge_launcher_size() {
    if (publication_.kind != SnapshotKind::launcher) {
      return;
    }
    constexpr const char* rule = "Launcher payload exceeds bounded native package limits";
    if (inventory_.size() > launcher_limits::files) {
      refuse_tree(rule, rule, std::to_string(launcher_limits::files) + " files",
                  std::to_string(inventory_.size()) + " files");
    }
    const std::uint64_t length = expanded_length(inventory_);
    if (length > launcher_limits::bytes) {
      refuse_tree(rule, rule, std::to_string(launcher_limits::bytes) + " bytes", std::to_string(length) + " bytes");
    }
  }

  void judge_manifest_length() {
    const std::size_t length = make_document(publication_, inventory_, smallest_archive()).dump().size();
    try {
      require_manifest_length(publication_.kind, length);
    } catch (const Error& error) {
      refuse_tree(error.what(), "The manifest is longer than the client reads",
                  std::to_string(maximum_manifest_bytes) + " bytes", std::to_string(length) + " bytes");
    }
  }

  SnapshotInventory finish() {
    refusals_.require_none();
    return std::move(inventory_);
  }

 private:
  void judge_named(const NamedProgram& program) {
    const auto file = inventory_.find(program.path);
    if (refusals_.concern(program.path) || (file != inventory_.end() && file->second.executable)) {
      return;
    }
    refusals_.add({program.code, program.rule, program.path, program.rule, "a file of mode 0755",
                   file == inventory_.end() ? "no such file" : "a file of mode 0644"});
  }

  void refuse_without_role(const std::string& path) {
    const bool is_bootstrap = publication_.kind == SnapshotKind::bootstrap;
    const std::string rule = is_bootstrap ? "Initial bootstrap snapshot contains an undeclared executable helper"
                                          : "Every native helper needs declared lifetime ownership";
    refusals_.add({is_bootstrap ? "invalid_native_package" : "launcher_incompatible", rule, path, rule,
                   "mode 0755 for programs that are named", "mode 0755 of a program that is not"});
  }

  void refuse_tree(const std::string& message, const std::string& rule, std::string limit, std::string value) {
    refusals_.add({"size_limit", message, "", rule, std::move(limit), std::move(value)});
  }

  const SnapshotPublication& publication_;
  SnapshotInventory inventory_;
  SnapshotRefusals& refusals_;
};

}  // namespace

SnapshotInventory judge_tree(const SnapshotPublication& publication, const ProgressCallback& scanning,
                             const std::function<void(const std::string& pattern)>& unmatched) {
  SnapshotRefusals refusals;
  SnapshotScan scan = scan_snapshot_tree(
      publication.tree, publication.scan, [&](SnapshotRefusal refusal) { refusals.add(std::move(refusal)); }, scanning);
  if (!scan.whole) {
    refusals.require_none();
  }
  for (const std::string& pattern : scan.unmatched) {
    if (unmatched) {
      unmatched(pattern);
    }
  }
  const bool is_empty = scan.files.empty() && refusals.count() > 0;
  Judgement judgement(publication, std::move(scan.files), refusals);
  if (!is_empty) {
    judgement.judge_programs();
    judgement.judge_launcher_size();
    judgement.judge_manifest_length();
  }
  return judgement.finish();
}

PackedArchive smallest_archive() { return {1, std::string(64, '0')}; }

void require_manifest_length(SnapshotKind kind, std::uint64_t length) {
  if (kind != SnapshotKind::game && length > maximum_manifest_bytes) {
    fail("size_limit", "The manifest has " + std::to_string(length) + " bytes, and the client reads at most " +
                           std::to_string(maximum_manifest_bytes));
  }
}

void require_archive_length(SnapshotKind kind, std::uint64_t length) {
  require(kind != SnapshotKind::bootstrap || length <= package_limits::archives, "size_limit",
          "Initial package payload is too large");
  require(kind != SnapshotKind::launcher || length <= launcher_limits::bytes, "size_limit",
          "Launcher payload exceeds bounded native package limits");
}

}  // namespace ravok
