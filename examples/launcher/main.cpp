// The console entry of a launcher: the program that a release's manifest names as "executable".

#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "domain/crypto.hpp"
#include "launcher.hpp"
#include "platform/process/interrupt.hpp"
#include "platform/process/process.hpp"
#include "platform/process/program_start.hpp"

int main(int argc, char** argv) {
  if (!ravok::start_program()) {
    return 1;
  }
  bool json = false;
  try {
    ravok::initialize_client_runtime();
    const std::vector<std::string> arguments = ravok::process_arguments(argc, argv);
    if (const std::optional<int> code = ravok::answer_version(arguments, launcher::version_of("ravok"))) {
      return *code;
    }
    // Ctrl+C reaches the bootstrap, which passes it on through a pipe that this object listens to.
    const ravok::ConsoleInterrupt interrupt(true);
    const ravok::TerminationSignals termination;
    const ravok::CliEntry entry = launcher::command_line(arguments, &json);
    if (entry.help) {
      launcher::print(ravok::cli_help());
      return 0;
    }
    // From here on nobody removes the files of this version until the process ends.
    const auto runtime = ravok::LauncherRuntime::attach(launcher::build_id(), "cli", entry.data_dir);
    const ravok::Json status = launcher::status_document(runtime.get());
    launcher::report_ready(runtime.get());
    ravok::require(!interrupt.requested(), "cancelled", "Cancelled");
    return launcher::run_command(entry, runtime.get(), status, [&] { return interrupt.requested(); });
  } catch (const ravok::Error& error) {
    return launcher::tell(error, json);
  } catch (const std::exception& problem) {
    return launcher::tell(problem, json);
  }
}
