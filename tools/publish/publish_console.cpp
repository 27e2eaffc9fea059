#include "publish/publish_console.hpp"

#include <array>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <map>
#include <string>
#include <string_view>

#include <CLI/CLI.hpp>
#include <unistd.h>

#include "app/publish_snapshot.hpp"
#include "domain/error.hpp"
#include "domain/json.hpp"
#include "domain/paths.hpp"
#include "platform/files.hpp"
#include "platform/native_platform.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t text_limit = 1 << 20;

const std::map<std::string, SnapshotKind> kinds = {
    {"bootstrap", SnapshotKind::bootstrap}, {"launcher", SnapshotKind::launcher}, {"game", SnapshotKind::game}};

// A size as people read it.
std::string shown_size(std::uint64_t bytes) {
  constexpr std::array<const char*, 5> units = {"bytes", "KiB", "MiB", "GiB", "TiB"};
  auto value = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (value >= 1024 && unit + 1 < units.size()) {
    value /= 1024;
    ++unit;
  }
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), unit == 0 ? "%.0f %s" : "%.1f %s", value, units[unit]);
  return text.data();
}

// One line on a terminal that counts up to a hundred; nothing elsewhere.
class ProgressLine {
 public:
  ProgressLine() : terminal_(isatty(STDERR_FILENO) != 0) {}
  ~ProgressLine() {
    if (last_ >= 0) {
      std::fputs("\r\033[K", stderr);
    }
  }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  void show(std::uint64_t done, std::uint64_t total) {
    const int percent =
        total == 0 ? 100 : static_cast<int>(static_cast<double>(done) * 100 / static_cast<double>(total));
    if (terminal_ && percent != last_) {
      std::fprintf(stderr, "\rPacking… %d %%", percent);
      last_ = percent;
    }
  }

 private:
  bool terminal_;
  int last_ = -1;
};

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

// An option that another kind of snapshot has would be dropped without a word.
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

void publish(const CLI::App& command, SnapshotOptions& options, const std::function<bool()>& cancelled) {
  options.publication.kind = read_kind(options.kind);
  require_options_of_kind(command, options.publication);
  complete(options);
  PublishedSnapshot published;
  {
    ProgressLine line;
    published = publish_snapshot(options.publication, [&](std::uint64_t done, std::uint64_t total) {
      line.show(done, total);
      return !cancelled();
    });
  }
  std::printf("Packed %llu files, %s, into %s (%s)\nManifest: %s\n", static_cast<unsigned long long>(published.files),
              shown_size(published.expanded_length).c_str(), published.archive.c_str(),
              shown_size(published.archive_length).c_str(), published.manifest.c_str());
  require(std::fflush(stdout) == 0 && std::ferror(stdout) == 0, "output_failed", "Cannot write to standard output");
}

int exit_code(const std::string& code) {
  if (code == "usage") {
    return 2;
  }
  return code == "cancelled" ? 4 : 1;
}

}  // namespace

int run_publish_console(int count, const char* const* words, const std::function<bool()>& cancelled) {
  CLI::App program("Makes what the client reads.", "ravok-publish");
  program.require_subcommand(1);
  SnapshotOptions options;
  CLI::App& snapshot = *program.add_subcommand("snapshot", "Packs a directory into an archive and its manifest");
  add_snapshot_options(snapshot, options);
  try {
    program.parse(count, words);
  } catch (const CLI::ParseError& problem) {
    return program.exit(problem) == 0 ? 0 : 2;
  }
  try {
    publish(snapshot, options, cancelled);
    return 0;
  } catch (const Error& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return exit_code(error.code);
  } catch (const std::exception& problem) {
    std::fprintf(stderr, "%s\n", problem.what());
    return 1;
  }
}

}  // namespace ravok
