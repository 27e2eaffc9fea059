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

constexpr const char* no_notices =
    "No third-party-notices.txt is found, so the installer comes without the licences of the libraries in it. They ask "
    "to be passed on: name the file with --notices FILE.";

constexpr const char* no_notices_in_client =
    "No third-party-notices.txt is among the files of the package, and one file has no other place for it, so the "
    "installer comes without the licences of the libraries in it. They ask to be passed on: put the file into the tree "
    "of the bootstrap, and make the package again.";

// Returns the notices beside the installer's program, beside this program, or where this program's installation has
// them; an empty path where there are none.
std::filesystem::path find_notices(const std::filesystem::path& installer) {
  const std::filesystem::path here = current_executable_path().parent_path();
  for (const std::filesystem::path& folder :
       {installer.parent_path(), here, here.parent_path() / "share" / "doc" / "ravok"}) {
    std::filesystem::path found = folder / third_party_notices;
    std::error_code problem;
    if (std::filesystem::is_regular_file(found, problem)) {
      return found;
    }
  }
  return {};
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

CommandResult publish(InstallerPublication publication, const CommandRun& run) {
  judge_options([&] {
    require(publication.signing_identity.empty() || !publication.signer.empty(), "usage",
            "Programs are signed on macOS alone");
    require(publication.notices.empty() || !publication.single_file, "usage",
            "One file has no place for the notices; ship them in the client that it installs");
    require(!publication.single_file || !publication.desktop_file, "usage",
            "--desktop-file is for an installer in a folder");
  });
  if (publication.program.empty()) {
    publication.program = current_executable_path().parent_path() / "ravok-install";
  }
  if (publication.notices.empty() && !publication.single_file) {
    publication.notices = find_notices(publication.program);
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
  if (!published.package.empty()) {
    result.lines.push_back("Package: " + path_utf8(published.package));
  }
  if (!published.desktop_file.empty()) {
    result.lines.push_back("Desktop entry: " + path_utf8(published.desktop_file));
  }
  result.lines.push_back("Seal: " + published.seal);
  if (run.json) {
    result.document = {{"installer", described_file(published.program)}, {"seal", published.seal}};
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
  const auto publication = std::make_shared<InstallerPublication>();
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
  command->add_flag("--desktop-file", publication->desktop_file,
                    "Adds a desktop entry to the folder, which starts the program from a file manager");
  command
      ->add_option("--program", publication->program, "The installer program; by default the one beside this program")
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
  return {command, [publication](const CommandRun& run) { return publish(*publication, run); }};
}

}  // namespace ravok
