// The program that users start, through a menu entry or on the console. It applies an update of itself that waits,
// chooses the version of the launcher and becomes it.

#include <chrono>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "app/command/cli_entry.hpp"
#include "app/command/console_output.hpp"
#include "app/command/program_commit.hpp"
#include "app/command/program_version.hpp"
#include "app/launcher/bootstrap_image.hpp"
#include "app/launcher/bootstrap_update.hpp"
#include "app/launcher/launcher_bootstrap.hpp"
#include "domain/crypto.hpp"
#include "platform/process/process.hpp"
#include "platform/process/program_start.hpp"

namespace {

// How long a new version of the launcher may take to be ready before the former one is started instead.
constexpr std::chrono::seconds startup_limit(10);

}  // namespace

int main(int argc, char** argv) {
  if (!ravok::start_program()) {
    return 1;
  }
  bool json = false;
  try {
    if (ravok::is_bootstrap_start_check()) {
      return 0;
    }
    ravok::initialize_client_runtime();
    const std::vector<std::string> arguments = ravok::process_arguments(argc, argv);
    if (const std::optional<int> code =
            ravok::answer_version(arguments, {"ravok-bootstrap", ravok::program_commit()})) {
      return *code;
    }
    const ravok::BootstrapEntry entry = ravok::parse_bootstrap_entry(arguments, &json);
    if (entry.help) {
      // Help needs no installation.
      return ravok::run_launcher_bootstrap("/", entry.interface, entry.arguments, startup_limit, nullptr);
    }
    // An update replaces the image of a process that runs, so the path is asked for once, and this process is the old
    // bootstrap to its end.
    const std::filesystem::path image = ravok::started_executable_path();
    if (ravok::is_installed_bootstrap(image)) {
      // It wants that no bootstrap runs, and so comes before this one says that it does.
      ravok::apply_pending_bootstrap_update(image);
    }
    ravok::RunningBootstrap bootstrap = ravok::run_bootstrap_in(entry.data_dir, image);
    return ravok::run_launcher_bootstrap(bootstrap.data_root, entry.interface, entry.arguments, startup_limit,
                                         &bootstrap.lifetime);
  } catch (const ravok::Error& error) {
    return ravok::tell_failure(error, json);
  } catch (const std::exception& problem) {
    return ravok::tell_failure(problem);
  }
}
