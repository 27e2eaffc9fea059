#include "app/setup/setup_console.hpp"
#include "domain/crypto.hpp"
#include "platform/process/interrupt.hpp"
#include "platform/process/process.hpp"
#include "platform/process/program_start.hpp"

// A failure before the command line is read ends the process as an uncaught exception does.
int main(int argc, char** argv) {
  if (!ravok::start_program()) {
    return 1;
  }
  ravok::initialize_client_runtime();
  const ravok::ConsoleInterrupt interrupt(true);
  const ravok::TerminationSignals termination;
  return ravok::run_setup_console(ravok::process_arguments(argc, argv), "ravok-maintenance", "",
                                  [&] { return interrupt.requested(); });
}
