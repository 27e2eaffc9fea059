#include <optional>
#include <string>
#include <vector>

#include "app/command/program_commit.hpp"
#include "app/command/program_version.hpp"
#include "app/install/appended_package.hpp"
#include "app/install/package_seal.hpp"
#include "app/setup/setup_console.hpp"
#include "domain/crypto.hpp"
#include "platform/process/interrupt.hpp"
#include "platform/process/process.hpp"
#include "platform/process/program_start.hpp"

namespace {

constexpr const char* program_name = "ravok-install";

const volatile ravok::PackageSealSlot seal_slot = ravok::make_seal_slot(RAVOK_INITIAL_PACKAGE_SHA256);
const volatile ravok::AppendedSlot appended_slot = ravok::make_appended_slot();

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
  return ravok::run_setup_console(
      arguments, program_name, ravok::read_seal(seal_slot), [&] { return interrupt.requested(); },
      [] { return ravok::read_appended_place(appended_slot); });
}
