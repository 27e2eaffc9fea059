#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/command/program_commit.hpp"
#include "app/command/program_version.hpp"
#include "app/maintenance/maintenance_runtime.hpp"
#include "app/setup/setup_console.hpp"
#include "domain/crypto.hpp"
#include "platform/process/interrupt.hpp"
#include "platform/process/process.hpp"
#include "platform/process/program_start.hpp"

namespace {

constexpr const char* program_name = "ravok-maintenance";

}  // namespace

// A failure before the command line is read ends the process as an uncaught exception does.
int main(int argc, char** argv) {
  if (!ravok::start_program()) {
    return 1;
  }
  ravok::initialize_client_runtime();
  const std::vector<std::string> arguments = ravok::process_arguments(argc, argv);
  if (const std::optional<int> code = ravok::answer_version(arguments, {program_name, ravok::program_commit()})) {
    return *code;
  }
  const ravok::ConsoleInterrupt interrupt(true);
  const ravok::TerminationSignals termination;
  // Ends after all output, and before the signals do: no signal stops the removal of a temporary copy half-way.
  const std::unique_ptr<ravok::MaintenanceRuntime> runtime =
      ravok::MaintenanceRuntime::attach("maintenance", ravok::client_version);
  return ravok::run_setup_console(arguments, program_name, "", [&] { return interrupt.requested(); });
}
