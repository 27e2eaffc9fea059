// The program that removes a client from a window.

#include <algorithm>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/command/console_output.hpp"
#include "app/command/program_commit.hpp"
#include "app/command/program_version.hpp"
#include "app/maintenance/maintenance_runtime.hpp"
#include "app/screen/setup_subject.hpp"
#include "domain/crypto.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/process/interrupt.hpp"
#include "platform/process/process.hpp"
#include "platform/process/program_start.hpp"
#include "window/run_dialog.hpp"

namespace {

constexpr const char* program_name = "ravok-maintenance-gui";

ravok::WindowRun window_run() {
  ravok::WindowRun run;
  run.program = program_name;
  run.otherwise = "ravok-maintenance works without one";
  return run;
}

int run(const ravok::WindowCommand& command, const ravok::MaintenanceRuntime* runtime,
        const ravok::ConsoleInterrupt& interrupt) {
  const ravok::SetupWindow setup = ravok::find_maintenance_window(command);
  std::optional<ravok::SetupDialog> dialog(std::in_place, setup.subject);
  ravok::WindowRun run = window_run();
  run.icon_file = setup.icon;
  run.smoke = command.smoke;
  run.shown = [&] {
    if (runtime != nullptr) {
      runtime->report_ready();
    }
  };
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
  const ravok::ConsoleInterrupt interrupt(true);
  const ravok::TerminationSignals termination;
  const auto tell = [&](const ravok::Error& error) {
    ravok::WindowRun message = window_run();
    message.smoke = std::find(arguments.begin(), arguments.end(), "--smoke") != arguments.end();
    message.interrupted = [&] { return interrupt.requested(); };
    return ravok::tell_in_window(error, "Ravok cannot be removed", message);
  };
  try {
    // Ends after the window, and before the signals do: no signal stops the removal of a temporary copy half-way.
    const std::unique_ptr<ravok::MaintenanceRuntime> runtime =
        ravok::MaintenanceRuntime::attach("maintenance-gui", ravok::client_version);
    const ravok::WindowCommand command = ravok::parse_window_command(arguments, false, ravok::user_data_root);
    if (command.help) {
      ravok::print_result(ravok::window_usage(program_name, false));
      return 0;
    }
    return run(command, runtime.get(), interrupt);
  } catch (const ravok::Error& error) {
    return tell(error);
  } catch (const std::exception& problem) {
    return tell(ravok::Error("setup_failed", problem.what()));
  }
}
