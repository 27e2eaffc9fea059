#include "domain/crypto.hpp"
#include "platform/process/interrupt.hpp"
#include "platform/process/program_start.hpp"
#include "publisher/commands/publish_console.hpp"

int main(int count, char** words) {
  if (!ravok::start_program()) {
    return 1;
  }
  ravok::initialize_client_runtime();
  const ravok::ConsoleInterrupt interrupt(false);
  const ravok::TerminationSignals termination;
  return ravok::run_publish_console(count, words, [&] { return interrupt.requested(); });
}
