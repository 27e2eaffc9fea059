// The installer with a window.

#include <algorithm>
#include <exception>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app/command/console_output.hpp"
#include "app/command/program_commit.hpp"
#include "app/command/program_version.hpp"
#include "app/install/appended_package.hpp"
#include "app/install/package_seal.hpp"
#include "app/screen/setup_subject.hpp"
#include "domain/crypto.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/process/interrupt.hpp"
#include "platform/process/process.hpp"
#include "platform/process/program_start.hpp"
#include "window/run_dialog.hpp"

namespace {

constexpr const char* program_name = "ravok-install-gui";

const volatile ravok::PackageSealSlot seal_slot = ravok::make_seal_slot(RAVOK_INITIAL_PACKAGE_SHA256);
const volatile ravok::AppendedSlot appended_slot = ravok::make_appended_slot();

ravok::WindowRun window_run() {
  ravok::WindowRun run;
  run.program = program_name;
  run.otherwise = "ravok-install works without one";
  return run;
}

int run(const ravok::WindowCommand& command) {
  const ravok::ConsoleInterrupt interrupt(true);
  const ravok::TerminationSignals termination;
  ravok::SetupWindow setup = ravok::find_install_window(command, ravok::read_seal(seal_slot),
                                                        [] { return ravok::read_appended_place(appended_slot); });
  std::optional<ravok::SetupDialog> dialog(std::in_place, std::move(setup.subject));
  ravok::WindowRun run = window_run();
  run.icon_file = setup.icon;
  run.smoke = command.smoke;
  run.interrupted = [&] { return interrupt.requested(); };
  run.display_lost = [&] { dialog.reset(); };
  ravok::run_dialog(dialog->for_window(), run);
  return dialog->exit_code();
}

}  // namespace

// A failure before the command line is read ends the process as an uncaught exception does.
int main(int argc, char** argv) {
  if (!ravok::start_program()) {
    return 1;
  }
  ravok::close_inherited_handles();
  ravok::initialize_client_runtime();
  const std::vector<std::string> arguments = ravok::process_arguments(argc, argv);
  if (const std::optional<int> code = ravok::answer_version(arguments, {program_name, ravok::program_commit()})) {
    return *code;
  }
  const auto tell = [&](const ravok::Error& error) {
    ravok::WindowRun message = window_run();
    message.smoke = std::find(arguments.begin(), arguments.end(), "--smoke") != arguments.end();
    return ravok::tell_in_window(error, "Ravok cannot be installed", message);
  };
  try {
    const ravok::WindowCommand command = ravok::parse_window_command(arguments, true, ravok::user_data_root);
    if (command.help) {
      ravok::print_result(ravok::window_usage(program_name, true));
      return 0;
    }
    return run(command);
  } catch (const ravok::Error& error) {
    return tell(error);
  } catch (const std::exception& problem) {
    return tell(ravok::Error("setup_failed", problem.what()));
  }
}
