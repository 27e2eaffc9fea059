#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "domain/error.hpp"
#include "domain/json.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/process/native_platform.hpp"
#include "publisher/commands/commands.hpp"
#include "publisher/commands/results.hpp"
#include "publisher/commands/terminal.hpp"
#include "publisher/publish_snapshot.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t text_limit = 1 << 20;

const std::map<std::string, SnapshotKind> kinds = {
    {"bootstrap", SnapshotKind::bootstrap}, {"launcher", SnapshotKind::launcher}, {"game", SnapshotKind::game}};

struct SnapshotOptions {
  SnapshotPublication publication;
  std::string kind;
  std::string presentation_file;
  std::string release_notes_file;
  std::vector<std::string> helpers;
  std::vector<std::string> exclude;
  bool normalize_modes = false;
  bool check = false;
};

void add_snapshot_options(CLI::App& command, SnapshotOptions& options) {
  SnapshotPublication& publication = options.publication;
  command.add_option("TREE", publication.tree, "The directory to pack: files of mode 0644 or 0755")->required();
  command.add_option("--kind", options.kind, "What the tree is: bootstrap, launcher or game")
      ->required()
      ->type_name("KIND");
  command.add_option("--build-id", publication.build_id, "The build's identifier")->required()->type_name("ID");
  command.add_option("--executable", publication.executable, "The program to start, below TREE")
      ->required()
      ->type_name("PATH");
  command
      .add_option("--output", publication.output,
                  "Where to write archive and manifest, made if missing; by default here")
      ->type_name("DIR");
  command.add_option("--platform", publication.platform, "By default the one that this program was built for")
      ->type_name("NAME");
  command.add_option("--target", publication.target, "The archive's path in the repository")->type_name("PATH");
  command.add_option("--level", publication.level, "Compression from 1 (fast) to 19 (small), by default 12")
      ->check(in_range(1, 19).description(""))
      ->type_name("N");
  command.add_option("--gui-executable", publication.gui_executable, "The program with windows, below TREE")
      ->type_name("PATH");
  command
      .add_option("--helper", options.helpers,
                  "A helper program of a launcher with its role: crash-handler, maintenance or maintenance-gui")
      ->type_name("ROLE=PATH");
  command.add_option("--shortcut-executable", publication.shortcut_executable, "The helper for launch documents")
      ->type_name("PATH");
  command.add_option("--game-id", publication.game_id, "The game's identifier")->type_name("ID");
  command.add_option("--display-name", publication.display_name, "The game's name")->type_name("TEXT");
  command.add_option("--presentation", options.presentation_file, "The game's presentation, a JSON file")
      ->type_name("FILE");
  command.add_option("--release-notes", options.release_notes_file, "The release's notes, a text file")
      ->type_name("FILE");
  command
      .add_option("--exclude", options.exclude,
                  "Leaves out the paths below TREE that match, with all below them; may be given again. * stands for "
                  "any characters of a name, and ** for any names; without / a name at any depth is matched")
      ->allow_extra_args(false)
      ->type_name("PATTERN");
  command.add_flag("--normalize-modes", options.normalize_modes,
                   "Takes every file as one of mode 0755 if its owner may execute it, otherwise of mode 0644");
  command.add_flag("--check", options.check, "Judges TREE and writes nothing");
  command.add_flag("--sdk-required", publication.sdk_required, "The game needs the client's SDK");
}

PublishedHelper read_helper(const std::string& text) {
  const std::size_t separator = text.find('=');
  require(separator != std::string::npos, "usage", "A helper is named as ROLE=PATH: " + text);
  return {text.substr(separator + 1), text.substr(0, separator)};
}

// Refuses the options of another kind of snapshot, which would otherwise be ignored without a word.
void require_options_of_kind(const CLI::App& command, const SnapshotPublication& publication) {
  const auto refuse = [&](bool is_kind, std::initializer_list<const char*> names, const std::string& kind) {
    for (const char* name : names) {
      require(is_kind || command.count(name) == 0, "usage", std::string(name) + " is only for " + kind);
    }
  };
  refuse(publication.kind == SnapshotKind::game,
         {"--game-id", "--display-name", "--presentation", "--release-notes", "--sdk-required"}, "a game");
  refuse(publication.kind == SnapshotKind::launcher, {"--helper"}, "a launcher");
  refuse(publication.kind == SnapshotKind::bootstrap, {"--shortcut-executable"}, "a bootstrap");
  refuse(publication.kind != SnapshotKind::game, {"--gui-executable"}, "a bootstrap or a launcher");
  const auto need = [&](const char* name) {
    require(command.count(name) > 0, "usage", std::string(name) + " is required for this kind of snapshot");
  };
  if (publication.kind == SnapshotKind::game) {
    need("--game-id");
    need("--display-name");
  } else if (publication.kind == SnapshotKind::launcher) {
    need("--gui-executable");
  }
}

SnapshotKind read_kind(const std::string& name) {
  const auto kind = kinds.find(name);
  require(kind != kinds.end(), "usage", "--kind is bootstrap, launcher or game, not " + name);
  return kind->second;
}

void complete(SnapshotOptions& options) {
  SnapshotPublication& publication = options.publication;
  if (publication.platform.empty()) {
    publication.platform = native_platform();
  }
  if (publication.output.empty()) {
    publication.output = ".";
  }
  for (const std::string& helper : options.helpers) {
    publication.helpers.push_back(read_helper(helper));
  }
  for (const std::string& pattern : options.exclude) {
    publication.scan.exclude.emplace_back(pattern);
  }
  publication.scan.modes = options.normalize_modes ? SnapshotModes::by_owner : SnapshotModes::exact;
  judge_options([&] { require_options(publication); });
  if (!options.presentation_file.empty()) {
    publication.presentation = parse_json(read_file(path_from_utf8(options.presentation_file), text_limit), text_limit);
  }
  if (!options.release_notes_file.empty()) {
    publication.release_notes = read_file(path_from_utf8(options.release_notes_file), text_limit);
  }
}

// Tells of the look through the tree, and of patterns that match nothing there.
class Listener {
 public:
  explicit Listener(const CommandRun& run) : run_(run), line_(std::in_place, "Looking through the tree", !run.json) {}

  SnapshotListener listener() {
    return {[this](std::uint64_t seen, std::uint64_t) {
              line_->show_count(seen);
              return !run_.cancelled();
            },
            [this](const std::string& pattern) {
              line_.reset();
              complain("--exclude matches nothing: " + pattern);
              unmatched_.push_back(json_text(pattern));
            }};
  }

  // Clears the line, because other work follows.
  void finish() { line_.reset(); }
  const Json& unmatched() const { return unmatched_; }

 private:
  const CommandRun& run_;
  std::optional<ProgressLine> line_;
  Json unmatched_ = Json::array();
};

CommandResult check(const SnapshotPublication& publication, const CommandRun& run) {
  Listener listener(run);
  const PublishedSnapshot judged = check_snapshot(publication, listener.listener());
  listener.finish();
  CommandResult result;
  result.lines = {"Nothing is refused of " + std::to_string(judged.files) + " files, " +
                  shown_size(judged.expanded_length) + "; nothing was written"};
  result.document = {{"checked_only", true},
                     {"files", judged.files},
                     {"expanded_length", judged.expanded_length},
                     {"archive", {{"path", json_text(path_utf8(judged.archive))}}},
                     {"manifest", {{"path", json_text(path_utf8(judged.manifest))}}},
                     {"unmatched_excludes", listener.unmatched()}};
  return result;
}

CommandResult pack(const SnapshotPublication& publication, const CommandRun& run) {
  Listener listener(run);
  PublishedSnapshot published;
  {
    ProgressLine line("Packing", !run.json);
    const auto progress = [&](std::uint64_t done, std::uint64_t total) {
      listener.finish();
      line.show(done, total);
      return !run.cancelled();
    };
    published = publish_snapshot(publication, progress, listener.listener());
  }
  CommandResult result;
  result.lines = {"Packed " + std::to_string(published.files) + " files, " + shown_size(published.expanded_length) +
                      ", into " + path_utf8(published.archive) + " (" + shown_size(published.archive_length) + ")",
                  "Manifest: " + path_utf8(published.manifest)};
  result.document = {{"checked_only", false},
                     {"files", published.files},
                     {"expanded_length", published.expanded_length},
                     {"archive",
                      {{"path", json_text(path_utf8(published.archive))},
                       {"length", published.archive_length},
                       {"sha256", published.archive_sha256}}},
                     {"manifest",
                      {{"path", json_text(path_utf8(published.manifest))},
                       {"length", published.manifest_length},
                       {"sha256", published.manifest_sha256}}},
                     {"unmatched_excludes", listener.unmatched()}};
  return result;
}

CommandResult publish(const CLI::App& command, SnapshotOptions& options, const CommandRun& run) {
  options.publication.kind = read_kind(options.kind);
  require_options_of_kind(command, options.publication);
  complete(options);
  return options.check ? check(options.publication, run) : pack(options.publication, run);
}

}  // namespace

PublishCommand add_snapshot_command(CLI::App& program) {
  const auto options = std::make_shared<SnapshotOptions>();
  CLI::App* const command = program.add_subcommand("snapshot", "Packs a directory into an archive and its manifest");
  add_snapshot_options(*command, *options);
  return {command, [command, options](const CommandRun& run) { return publish(*command, *options, run); }};
}

}  // namespace ravok
