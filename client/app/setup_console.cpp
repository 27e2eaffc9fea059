#include "app/setup_console.hpp"

#include <cstdio>
#include <exception>
#include <memory>
#include <optional>

#include "app/setup_command.hpp"
#include "domain/json.hpp"
#include "platform/managed_paths.hpp"

namespace ravok {
namespace {

constexpr std::string_view installer_name = "ravok-install";

bool write_text(std::FILE* stream, std::string_view text) {
  return std::fwrite(text.data(), 1, text.size(), stream) == text.size() && std::fflush(stream) == 0;
}

void print_result(std::string_view text) {
  require(write_text(stdout, text), "output_failed", "Cannot write to standard output");
}

// A failure to complain is not worth a second complaint.
void print_problem(std::string_view message) { write_text(stderr, std::string(message) + "\n"); }

void print_problem_document(const Error& error) {
  const Json document = {{"schema_version", 1}, {"problem", {{"code", error.code}, {"message", error.what()}}}};
  try {
    write_text(stdout, document.dump() + "\n");
  } catch (const Json::exception&) {
    // A message that is not UTF-8 has no JSON form; it still goes to standard error as it is.
  }
}

std::string_view phase_line(std::string_view phase) {
  if (phase == "verifying") {
    return "Verifying…\n";
  }
  return phase == "installing" ? "Installing…\n" : "Removing…\n";
}

void run_parsed_command(const SetupCommand& command, std::string_view program_name) {
  const bool installer = program_name == installer_name;
  if (command.help) {
    print_result(setup_usage(program_name, installer));
    return;
  }
  require(!needs_package(command.command) || installer, "usage", "Use the Ravok installer to install or repair Ravok");
  fail("command_unavailable", "This command is not available in this build of Ravok");
}

}  // namespace

int run_setup_console(const std::vector<std::string>& arguments, std::string_view program_name, std::string_view,
                      const std::function<bool()>&) {
  bool json = false;
  try {
    const SetupCommand command = parse_setup_command(arguments, user_data_root());
    json = command.json;
    run_parsed_command(command, program_name);
    return 0;
  } catch (const Error& error) {
    if (json) {
      print_problem_document(error);
    }
    print_problem(error.what());
    return exit_code(error);
  } catch (const std::exception& problem) {
    print_problem(problem.what());
    return 1;
  }
}

NativeSetupCallbacks console_callbacks(bool json, const std::function<bool()>& cancel) {
  NativeSetupCallbacks callbacks;
  callbacks.cancelled = cancel;
  if (!json) {
    // Copies of the callable announce each phase once between them.
    callbacks.progress = [announced = std::make_shared<std::string>()](std::string_view phase, std::uint64_t,
                                                                       std::uint64_t) {
      if (phase != *announced) {
        *announced = phase;
        write_text(stderr, phase_line(phase));
      }
    };
  }
  return callbacks;
}

int exit_code(const Error& error) {
  if (error.code == "usage") {
    return 2;
  }
  return error.code == "cancelled" ? 4 : 1;
}

}  // namespace ravok
