// The windowed entry of a launcher: the program that a release's manifest names as "gui_executable".

#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/launcher/start_marker.hpp"
#include "domain/crypto.hpp"
#include "domain/paths.hpp"
#include "gui_window.hpp"
#include "launcher.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/process/interrupt.hpp"
#include "platform/process/process.hpp"
#include "platform/process/program_start.hpp"

int main(int argc, char** argv) {
  if (!ravok::start_program()) {
    return 1;
  }
  ravok::close_inherited_handles();
  try {
    ravok::initialize_client_runtime();
    std::vector<std::string> arguments = ravok::process_arguments(argc, argv);
    if (const std::optional<int> code = ravok::answer_version(arguments, launcher::version_of("ravok-gui"))) {
      return *code;
    }
    ravok::require(!ravok::cli_flag(arguments, ravok::version_option), "usage", ravok::version_stands_alone);
    // The bootstrap puts the data folder first. What remains are the user's own arguments, such as --launch GAME.
    const std::optional<std::string> given = ravok::cli_option(arguments, "--data-dir");
    const std::filesystem::path data_dir = given ? ravok::path_from_utf8(*given) : ravok::user_data_root();
    const auto runtime = ravok::LauncherRuntime::attach(launcher::build_id(), "gui", data_dir);
    const ravok::ConsoleInterrupt interrupt(true);
    const ravok::TerminationSignals termination;
    const auto shown = [&] {
      // Only a window that was drawn proves that this version works.
      launcher::report_ready(runtime.get());
      if (runtime) {
        ravok::confirm_launcher_start(runtime->data_root());
      }
    };
    launcher::show_window(runtime.get(), ravok::cli_flag(arguments, "--smoke"), shown,
                          [&] { return interrupt.requested(); });
    return 0;
  } catch (const ravok::Error& error) {
    return launcher::tell(error, false);
  } catch (const std::exception& problem) {
    return launcher::tell(problem, false);
  }
}
