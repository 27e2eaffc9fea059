#include <filesystem>
#include <memory>

#include "domain/paths.hpp"
#include "platform/process/process.hpp"
#include "publisher/commands/commands.hpp"
#include "publisher/commands/terminal.hpp"
#include "publisher/publish_installer.hpp"

namespace ravok {
namespace {

void publish(InstallerPublication publication, const Cancelled& cancelled) {
  if (publication.program.empty()) {
    publication.program = current_executable_path().parent_path() / "ravok-install";
  }
  PublishedInstaller published;
  {
    ProgressLine line("Assembling");
    published = publish_installer(publication, [&](std::uint64_t done, std::uint64_t total) {
      line.show(done, total);
      return !cancelled();
    });
  }
  say({"Installer: " + path_utf8(published.program), "Package: " + path_utf8(published.package),
       "Seal: " + published.seal});
}

}  // namespace

PublishCommand add_installer_command(CLI::App& program) {
  const auto publication = std::make_shared<InstallerPublication>();
  CLI::App* const command = program.add_subcommand("installer", "Makes a folder with an installer, ready to ship");
  command->add_option("PACKAGE", publication->package, "The initial package")->required();
  command->add_option("DIR", publication->output, "The folder to make, which must not exist yet")->required();
  command
      ->add_option("--program", publication->program, "The installer program; by default the one beside this program")
      ->type_name("FILE");
  command
      ->add_option("--sign", publication->signing_identity,
                   "On macOS, the identity that signs the program; by default a signature that names nobody")
      ->type_name("IDENTITY");
  return {command, [publication](const Cancelled& cancelled) { publish(*publication, cancelled); }};
}

}  // namespace ravok
