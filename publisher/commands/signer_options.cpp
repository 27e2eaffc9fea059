#include "publisher/commands/signer_options.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/process/filter_program.hpp"
#include "publisher/commands/results.hpp"

namespace ravok {
namespace {

constexpr std::size_t passphrase_room = 1024;
constexpr std::int64_t maximum_seconds = 3600;

// Commands and keys are two options; the first of one belongs to the first of the other.
template <typename Set>
void pair_up(SignerOptions& options, const std::vector<std::string>& values, Set set) {
  options.signers.resize(std::max(options.signers.size(), values.size()));
  for (std::size_t i = 0; i < values.size(); ++i) {
    set(options.signers[i], values[i]);
  }
}

}  // namespace

void add_signer_options(CLI::App& command, SignerOptions& options) {
  command.add_option("--key", options.keys, "A private key file to sign with; may be given again")
      ->allow_extra_args(false)
      ->type_name("FILE");
  command
      .add_option("--passphrase-file", options.passphrase_file,
                  "A file, which others may not read, with the passphrase of encrypted keys; without it, a terminal is "
                  "asked")
      ->type_name("FILE");
  command
      .add_option_function<std::vector<std::string>>(
          "--signer",
          [&options](const std::vector<std::string>& values) {
            pair_up(options, values, [](ExternalSigner& one, const std::string& value) { one.command = value; });
          },
          "A program that signs what it reads, with its arguments; may be given again")
      ->allow_extra_args(false)
      ->type_name("COMMAND");
  command
      .add_option_function<std::vector<std::string>>(
          "--signer-key",
          [&options](const std::vector<std::string>& values) {
            pair_up(options, values,
                    [](ExternalSigner& one, const std::string& value) { one.public_key = path_from_utf8(value); });
          },
          "The public key file of a --signer, in the same order")
      ->allow_extra_args(false)
      ->type_name("FILE");
  command
      .add_option_function<std::int64_t>(
          "--signer-timeout",
          [&options](const std::int64_t& seconds) { options.patience = std::chrono::seconds(seconds); },
          "How many seconds a signer may take for a signature, by default 300")
      ->check(in_range(1, maximum_seconds))
      ->type_name("SECONDS");
  options.ask = [&options](const std::string& prompt) { return ask_on_terminal(prompt, options.cancelled); };
}

Secret ask_on_terminal(const std::string& prompt, const std::function<bool()>& cancelled) {
  Secret line(passphrase_room);
  const os::HiddenInput input = os::read_hidden_line(prompt, line.bytes(), cancelled);
  require(input.end != os::HiddenLine::no_terminal, "passphrase_needed",
          "A passphrase is needed; give it with --passphrase-file FILE, or run this on a terminal");
  require(input.end != os::HiddenLine::cancelled, "cancelled", "Cancelled");
  require(input.end != os::HiddenLine::too_long, "invalid_passphrase", "The passphrase is longer than 1024 bytes");
  require(input.end == os::HiddenLine::read, "terminal_failed", "The terminal cannot be used to ask for a passphrase");
  line.shorten(input.size);
  return line;
}

}  // namespace ravok
