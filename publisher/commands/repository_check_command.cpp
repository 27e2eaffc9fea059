#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/file/status.hpp"
#include "platform/process/native_platform.hpp"
#include "publisher/commands/check_report.hpp"
#include "publisher/commands/commands.hpp"
#include "publisher/commands/results.hpp"
#include "publisher/commands/terminal.hpp"
#include "publisher/commands/time_left.hpp"
#include "publisher/publish_files.hpp"
#include "publisher/repository/repository_check.hpp"
#include "publisher/repository/repository_folder.hpp"
#include "publisher/repository/repository_time.hpp"
#include "publisher/repository/temporary_folder.hpp"
#include "publisher/repository_origin.hpp"
#include "publisher/shipped_package.hpp"

namespace ravok {
namespace {

constexpr std::size_t day_characters = 10;

struct RepositoryCheckOptions {
  std::string place;
  std::filesystem::path root;
  std::filesystem::path ca_bundle;
  std::string at;
  bool quick = false;
  bool metadata_only = false;
  bool live = false;
  std::string repository;
};

bool is_address(const std::string& place) { return place.find("://") != std::string::npos; }

// Returns the time of a text; of a day's, the last moment.
TufTime checked_time(const std::string& text) {
  if (text.empty()) {
    return present_tuf_time();
  }
  return text.size() == day_characters ? parse_tuf_time(text + "T23:59:59.999999Z") : parse_tuf_time(text);
}

// Returns the oldest root of a place. In the folder of a repository, it is the one that this began with.
std::string first_root_of(const std::filesystem::path& place, const std::filesystem::path& served) {
  if (served == place || is_missing(RepositoryFolder::record_of(place))) {
    return first_root_in(served);
  }
  const RepositoryFolder folder(place, RepositoryFolder::Use::read);
  return folder.read_document(role_file("root", folder.root_versions().front()));
}

class CheckCommand {
 public:
  CheckCommand(const RepositoryCheckOptions& options, const CommandRun& run) : options_(options), run_(run) {
    judge_options([&] {
      check_.at = checked_time(options.at);
      for (const std::string& place : {options.place, options.repository}) {
        if (is_address(place)) {
          require_reachable_origin(place);
        }
      }
      require(!is_address(options.place) || !options.root.empty(), "usage",
              "Name the root document that clients of this address have, with --root FILE");
    });
    check_.depth = options.metadata_only ? CheckDepth::metadata : options.quick ? CheckDepth::quick : CheckDepth::whole;
  }

  CommandResult run() {
    if (!is_address(options_.place) && is_shipped_package(options_.place)) {
      check_package();
    } else {
      require(!options_.live && options_.repository.empty(), "no_package",
              "--live and --repository are for a package, and there is none in " + options_.place);
      if (!options_.root.empty()) {
        check_.root_text = about(options_.root, [&] { return read_file(options_.root, tuf_root_limit); });
      }
      check_place(options_.place, options_.ca_bundle);
    }
    return std::move(result_);
  }

 private:
  ProgressCallback progress_on(ProgressLine& line) const {
    return [&](std::uint64_t done, std::uint64_t total) {
      line.show(done, total);
      return !run_.cancelled();
    };
  }

  void check_place(const std::string& place, const std::filesystem::path& ca_bundle) {
    ProgressLine line("Checking", !run_.json);
    if (is_address(place)) {
      tell_check(place, check_server(place, ca_bundle, check_, progress_on(line)), result_);
      return;
    }
    const std::filesystem::path served = served_folder(place);
    if (check_.root_text.empty()) {
      check_.root_text = first_root_of(place, served);
    }
    tell_check(place, check_folder(served, check_, progress_on(line)), result_);
  }

  void check_package() {
    require(options_.root.empty(), "package_root", "A package has a root document of its own, so --root is not for it");
    const ShippedPackage package = read_shipped_package(options_.place);
    tell_package(package);
    if (check_.depth == CheckDepth::whole && package.platform == native_platform() &&
        !has_passed(package.root_expires)) {
      ProgressLine line("Reading", !run_.json);
      prove_shipped_package(package, progress_on(line));
    }
    if (!options_.live && options_.repository.empty()) {
      return;
    }
    check_.root_text = package.root_text;
    const TemporaryFolder folder;
    std::filesystem::path ca_bundle = options_.ca_bundle;
    if (ca_bundle.empty() && !package.ca_bundle.empty()) {
      ca_bundle = folder.path() / "ca-bundle.pem";
      atomic_write(ca_bundle, package.ca_bundle);
    }
    check_place(options_.live ? package.origin : options_.repository, ca_bundle);
  }

  void tell_package(const ShippedPackage& package) {
    const bool installs = package.root_expires > check_.at;
    const std::string expires = tuf_time_text(package.root_expires);
    result_.lines.push_back("Package: " + path_utf8(package.directory) + " for " + package.platform + ", of " +
                            package.origin);
    result_.lines.push_back("  root: version " + std::to_string(package.root_version) + ", until " + expires + " (" +
                            time_left(package.root_expires, check_.at) + "); nobody can install it from then on");
    result_.document["package"] = {{"path", json_text(path_utf8(package.directory))},
                                   {"seal", package.seal},
                                   {"platform", json_text(package.platform)},
                                   {"origin", json_text(package.origin)},
                                   {"root_version", package.root_version},
                                   {"root_expires", expires},
                                   {"days_left", days_left(package.root_expires, check_.at)},
                                   {"installs", installs}};
    if (!installs) {
      result_.complaints.push_back("Nobody can install this package: its root expires at " + expires +
                                   " (expired_metadata)");
      result_.failed = true;
    }
  }

  const RepositoryCheckOptions& options_;
  const CommandRun& run_;
  CheckOptions check_;
  CommandResult result_;
};

}  // namespace

PublishCommand add_repository_check_command(CLI::App& repository) {
  const auto options = std::make_shared<RepositoryCheckOptions>();
  CLI::App* const command =
      repository.add_subcommand("check", "Tells whether clients can work with a repository, now or on a day to come");
  command
      ->add_option("PLACE", options->place,
                   "A repository's folder, the folder that a server shows, an address such as "
                   "https://updates.example.com, an initial package, or an installer's folder")
      ->required();
  command
      ->add_option("--root", options->root,
                   "The root document that clients have; needed for an address, by default the oldest one of a folder")
      ->type_name("FILE");
  command->add_option("--ca-bundle", options->ca_bundle, "Certificates to trust for an address, a PEM file")
      ->type_name("FILE");
  command
      ->add_option("--at", options->at,
                   "When clients come, such as 2030-01-31, whose end counts, or 2030-01-31T00:00:00Z; by default now")
      ->type_name("TIME");
  CLI::Option* const quick = command->add_flag(
      "--quick", options->quick, "Reads the manifests alone, and only looks whether all else is there with its length");
  command->add_flag("--metadata-only", options->metadata_only, "Reads only what is signed, and no target")
      ->excludes(quick);
  CLI::Option* const live =
      command->add_flag("--live", options->live, "Also checks the repository of a package, at the package's address");
  command
      ->add_option("--repository", options->repository,
                   "Also checks a repository that the clients of a package come to, a folder or an address")
      ->excludes(live)
      ->type_name("PLACE");
  return {command, [options](const CommandRun& run) { return CheckCommand(*options, run).run(); }};
}

}  // namespace ravok
