#include "app/setup/setup_console.hpp"

#include <exception>
#include <memory>
#include <optional>

#include "app/brand/brand.hpp"
#include "app/command/console_output.hpp"
#include "app/setup/setup_command.hpp"
#include "app/setup/setup_execution.hpp"
#include "app/setup/setup_package.hpp"
#include "domain/display_text.hpp"
#include "domain/json.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/process/process.hpp"
#include "platform/snapshot/complete_install.hpp"

namespace ravok {
namespace {

constexpr std::string_view installer_name = "ravok-install";

// Returns the default folder of installations. Help needs none, and so it needs no home either.
std::filesystem::path default_folder_for(const std::vector<std::string>& arguments) {
  try {
    if (parse_setup_command(arguments, {}).help) {
      return {};
    }
  } catch (const Error&) {
    // Is told once the home is known.
  }
  return user_data_root();
}

void choose_brand(SetupCommand& command, std::string_view package_seal, const FindAppendedPlace& find_place) {
  if (needs_package(command.command) && command.package.empty()) {
    find_setup_package(command, package_seal, find_place);
  }
  if (needs_package(command.command) && !command.package.empty()) {
    use_package_brand(command, package_seal);
  } else {
    try {
      use_installed_brand(command.data_root);
    } catch (const Error&) {
      // A console shows no theme, so a theme that is damaged, or that another setup is replacing, does not stop the
      // command.
    }
  }
}

void run_parsed_command(SetupCommand command, std::string_view program_name, std::string_view package_seal,
                        const std::function<bool()>& cancel, const FindAppendedPlace& find_place) {
  const bool installer = program_name == installer_name;
  if (command.help) {
    print_result(setup_usage(program_name, installer));
    return;
  }
  require_complete_native_install_image(current_executable_path());
  require(!needs_package(command.command) || installer, "usage", "Use the Ravok installer to install or repair Ravok");
  choose_brand(command, package_seal, find_place);
  const Json document = run_setup_command(command, package_seal, console_callbacks(command.json, cancel));
  print_result((command.json ? document.dump() : shown_text(setup_summary(command, document))) + "\n");
}

}  // namespace

int run_setup_console(const std::vector<std::string>& arguments, std::string_view program_name,
                      std::string_view package_seal, const std::function<bool()>& cancel,
                      const FindAppendedPlace& find_place) {
  bool json = false;
  try {
    const SetupCommand command = parse_setup_command(arguments, default_folder_for(arguments));
    json = command.json;
    run_parsed_command(command, program_name, package_seal, cancel, find_place);
    return 0;
  } catch (const Error& error) {
    return tell_failure(error, json);
  } catch (const std::exception& problem) {
    return tell_failure(problem);
  }
}

NativeSetupCallbacks console_callbacks(bool json, const std::function<bool()>& cancel) {
  NativeSetupCallbacks callbacks;
  callbacks.cancelled = cancel;
  if (!json) {
    // The copies of this callable share the text, so that together they announce each phase once.
    callbacks.progress = [announced = std::make_shared<std::string>()](std::string_view phase, std::uint64_t,
                                                                       std::uint64_t) {
      if (phase != *announced) {
        *announced = phase;
        print_notice(setup_phase_line(phase));
      }
    };
  }
  return callbacks;
}

}  // namespace ravok
