#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "domain/error.hpp"
#include "domain/json.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/process/native_platform.hpp"
#include "publisher/commands/commands.hpp"
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
  command.add_option("--output", publication.output, "Where to write archive and manifest; by default here")
      ->type_name("DIR");
  command.add_option("--platform", publication.platform, "By default the one that this program was built for")
      ->type_name("NAME");
  command.add_option("--target", publication.target, "The archive's path in the repository")->type_name("PATH");
  command.add_option("--level", publication.level, "Compression from 1 (fast) to 19 (small), by default 12")
      ->check(CLI::Range(1, 19).description(""))
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
  if (!options.presentation_file.empty()) {
    publication.presentation = parse_json(read_file(path_from_utf8(options.presentation_file), text_limit), text_limit);
  }
  if (!options.release_notes_file.empty()) {
    publication.release_notes = read_file(path_from_utf8(options.release_notes_file), text_limit);
  }
}

void publish(const CLI::App& command, SnapshotOptions& options, const Cancelled& cancelled) {
  options.publication.kind = read_kind(options.kind);
  require_options_of_kind(command, options.publication);
  complete(options);
  PublishedSnapshot published;
  {
    ProgressLine line("Packing");
    published = publish_snapshot(options.publication, [&](std::uint64_t done, std::uint64_t total) {
      line.show(done, total);
      return !cancelled();
    });
  }
  say({"Packed " + std::to_string(published.files) + " files, " + shown_size(published.expanded_length) + ", into " +
           path_utf8(published.archive) + " (" + shown_size(published.archive_length) + ")",
       "Manifest: " + path_utf8(published.manifest)});
}

}  // namespace

PublishCommand add_snapshot_command(CLI::App& program) {
  const auto options = std::make_shared<SnapshotOptions>();
  CLI::App* const command = program.add_subcommand("snapshot", "Packs a directory into an archive and its manifest");
  add_snapshot_options(*command, *options);
  return {command, [command, options](const Cancelled& cancelled) { publish(*command, *options, cancelled); }};
}

}  // namespace ravok
