#include <filesystem>
#include <memory>
#include <system_error>

#include "domain/paths.hpp"
#include "platform/process/process.hpp"
#include "publisher/commands/commands.hpp"
#include "publisher/commands/results.hpp"
#include "publisher/commands/terminal.hpp"
#include "publisher/publish_installer.hpp"
#include "publisher/repository/repository_time.hpp"

namespace ravok {
namespace {

constexpr const char* no_window_program =
    "No ravok-install-gui lies beside this program; build the programs with a window, or name the file with "
    "--gui-program FILE";

constexpr const char* no_notices =
    "No third-party-notices.txt is found, so the installer comes without the licences of the libraries in it. They ask "
    "to be passed on: name the file with --notices FILE.";

constexpr const char* no_notices_in_client =
    "No third-party-notices.txt is among the files of the package, and one file has no other place for it, so the "
    "installer comes without the licences of the libraries in it. They ask to be passed on: put the file into the tree "
    "of the bootstrap, and make the package again.";

bool is_regular(const std::filesystem::path& path) {
  std::error_code problem;
  return std::filesystem::is_regular_file(path, problem);
}

// Returns the notices beside an installer's program, beside this program, or where this program's installation has
// them; an empty path where there are none. Those beside the program with a window come first: they tell of its
// toolkit, too.
std::filesystem::path find_notices(const InstallerPublication& publication) {
  const std::filesystem::path here = current_executable_path().parent_path();
  for (const std::filesystem::path& program :
       {publication.window_program, publication.program, here / third_party_notices,
        here.parent_path() / "share" / "doc" / "ravok" / third_party_notices}) {
    std::filesystem::path found = program.parent_path() / third_party_notices;
    if (!program.empty() && is_regular(found)) {
      return found;
    }
  }
  return {};
}

// What the command line says beside the publication itself.
struct InstallerOptions {
  InstallerPublication publication;
  bool window = false;
};

// Returns the publication with the programs that are not named.
InstallerPublication with_programs(const InstallerOptions& options) {
  InstallerPublication publication = options.publication;
  const std::filesystem::path here = current_executable_path().parent_path();
  if (publication.program.empty()) {
    publication.program = here / "ravok-install";
  }
  if (options.window && publication.window_program.empty()) {
    publication.window_program = here / "ravok-install-gui";
    require(is_regular(publication.window_program), "file_read", no_window_program);
  }
  publication.desktop_file = publication.desktop_file || (options.window && !publication.single_file);
  return publication;
}

void tell_notices(const PublishedInstaller& published, const CommandRun& run, bool single_file, CommandResult& result) {
  if (single_file) {
    // The client that one file installs carries them.
    if (!published.notices_in_client) {
      result.document["notices"] = nullptr;
      result.complaints.emplace_back(no_notices_in_client);
    }
  } else if (published.notices.empty()) {
    result.document["notices"] = nullptr;
    result.complaints.emplace_back(no_notices);
  } else if (run.json) {
    result.document["notices"] = described_file(published.notices);
  }
}

void judge_installer(const InstallerOptions& options) {
  const InstallerPublication& publication = options.publication;
  require(publication.signing_identity.empty() || !publication.signer.empty(), "usage",
          "Programs are signed on macOS alone");
  require(publication.notices.empty() || !publication.single_file, "usage",
          "One file has no place for the notices; ship them in the client that it installs");
  require(!publication.single_file || !publication.desktop_file, "usage",
          "--desktop-file is for an installer in a folder");
  require(options.window || publication.window_program.empty(), "usage", "--gui-program is for --gui");
  require(!options.window || !publication.single_file || publication.program.empty(), "usage",
          "With --gui, one file is the program with a window; name that with --gui-program");
}

CommandResult publish(const InstallerOptions& options, const CommandRun& run) {
  judge_options([&] { judge_installer(options); });
  InstallerPublication publication = with_programs(options);
  if (publication.notices.empty() && !publication.single_file) {
    publication.notices = find_notices(publication);
  }
  PublishedInstaller published;
  {
    ProgressLine line("Assembling", !run.json);
    published = publish_installer(publication, [&](std::uint64_t done, std::uint64_t total) {
      line.show(done, total);
      return !run.cancelled();
    });
  }
  CommandResult result;
  result.lines.push_back("Installer: " + path_utf8(published.program));
  if (!published.window_program.empty()) {
    result.lines.push_back("Installer with a window: " + path_utf8(published.window_program));
  }
  if (!published.package.empty()) {
    result.lines.push_back("Package: " + path_utf8(published.package));
  }
  if (!published.desktop_file.empty()) {
    result.lines.push_back("Desktop entry: " + path_utf8(published.desktop_file));
  }
  result.lines.push_back("Seal: " + published.seal);
  if (run.json) {
    result.document = {{"installer", described_file(published.program)}, {"seal", published.seal}};
    if (!published.window_program.empty()) {
      result.document["gui_installer"] = described_file(published.window_program);
    }
    if (!published.package.empty()) {
      result.document["package"] = described_folder(published.package);
    }
    if (!published.desktop_file.empty()) {
      result.document["desktop_file"] = described_file(published.desktop_file);
    }
  }
  tell_notices(published, run, publication.single_file, result);
  tell_root_expiry(published.root_expires, present_tuf_time(), result);
  return result;
}

}  // namespace

PublishCommand add_installer_command(CLI::App& program) {
  const auto options = std::make_shared<InstallerOptions>();
  InstallerPublication* const publication = &options->publication;
  CLI::App* const command =
      program.add_subcommand("installer", "Makes an installer, ready to ship: a folder or one file");
  command
      ->add_option("PACKAGE", publication->package,
                   "The initial package: the folder that ravok-publish package has made")
      ->required();
  command
      ->add_option("OUTPUT", publication->output,
                   "The folder to make, or with --single-file the file; it must not exist yet")
      ->required();
  command->add_flag("--single-file", publication->single_file, "Puts the package behind the program, into one file");
  command->add_flag("--gui", options->window,
                    "Adds the installer program with a window to the folder, and a desktop entry that starts it; with "
                    "--single-file, it is the one file");
  command->add_flag("--desktop-file", publication->desktop_file,
                    "Adds a desktop entry to the folder, which starts the program from a file manager: in a terminal, "
                    "or with --gui in its window");
  command
      ->add_option("--program", publication->program, "The installer program; by default the one beside this program")
      ->type_name("FILE");
  command
      ->add_option("--gui-program", publication->window_program,
                   "The installer program with a window; by default the one beside this program")
      ->type_name("FILE");
  command
      ->add_option("--sign", publication->signing_identity,
                   "On macOS, the identity that signs the program; by default a signature that names nobody")
      ->type_name("IDENTITY");
  command
      ->add_option("--notices", publication->notices,
                   "The licences of the libraries in the programs, which are put beside the installer; by default "
                   "third-party-notices.txt beside the installer program or this one")
      ->type_name("FILE");
  return {command, [options](const CommandRun& run) { return publish(*options, run); }};
}

}  // namespace ravok
