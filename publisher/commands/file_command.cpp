#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "domain/crypto.hpp"
#include "domain/json.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_range.hpp"
#include "platform/file/files.hpp"
#include "publisher/commands/commands.hpp"
#include "publisher/commands/results.hpp"
#include "publisher/commands/signer_options.hpp"
#include "publisher/commands/terminal.hpp"
#include "publisher/publish_files.hpp"
#include "publisher/signing/file_signature.hpp"
#include "publisher/signing/publish_key.hpp"

namespace ravok {
namespace {

struct FileOptions {
  std::filesystem::path file;
  std::filesystem::path signature;
  SignerOptions signers;                           // of a signing
  std::vector<std::filesystem::path> public_keys;  // of a verification

  // The signature's file: the one that was named, or the one beside the file.
  std::filesystem::path signature_file() const {
    std::filesystem::path beside = file;
    beside += ".sig";
    return signature.empty() ? beside : signature;
  }
};

void add_file_options(CLI::App& command, FileOptions& options, const char* signature) {
  command.add_option("FILE", options.file, "The file")->required();
  command.add_option("--signature", options.signature, signature)->type_name("FILE");
}

// A file as documents tell of it: with what was signed or proved of it, whatever has come to its name since then.
Json stated_file(const std::filesystem::path& file, const Json& statement) {
  return {{"path", json_text(path_utf8(file))}, {"length", statement.at("length")}, {"sha256", statement.at("sha256")}};
}

CommandResult sign_one(FileOptions& options, const CommandRun& run) {
  options.signers.cancelled = run.cancelled;
  judge_options([&] {
    require_signer_options(options.signers);
    require(!options.signers.keys.empty() || !options.signers.signers.empty(), "usage",
            "Name a key to sign with, with --key FILE");
  });
  const std::filesystem::path output = output_path(options.signature_file());
  require_absent(output);
  // A file that cannot be signed is told of before anything is made for its signature.
  static_cast<void>(FileRange::whole_file(options.file));
  // The output is opened first: a signer may ask somebody for a signature, who shall not be asked in vain.
  const auto signature = about(output, [&] { return std::make_unique<OutputFile>(output); });
  ProgressLine line("Reading", !run.json);
  const std::string text =
      sign_file(options.file, open_signers(options.signers), [&](std::uint64_t done, std::uint64_t total) {
        line.show(done, total);
        return !run.cancelled();
      });
  signature->write(text);
  signature->commit();
  signature->keep();
  CommandResult result;
  result.lines.push_back("Signature: " + path_utf8(output));
  if (run.json) {
    result.document = {
        {"file", stated_file(options.file, signed_statement(text))},
        {"signature", stated_file(output, {{"length", text.size()}, {"sha256", digest(text, "sha256")}})}};
  }
  return result;
}

CommandResult verify_one(const FileOptions& options, const CommandRun& run) {
  const std::filesystem::path signature = options.signature_file();
  const std::string text = about(signature, [&] { return read_file(signature, maximum_file_signature_bytes); });
  std::vector<Json> keys;
  for (const std::filesystem::path& file : options.public_keys) {
    keys.push_back(read_public_key(file));
  }
  Json statement;
  {
    ProgressLine line("Reading", !run.json);
    statement = verify_file(options.file, text, keys, [&](std::uint64_t done, std::uint64_t total) {
      line.show(done, total);
      return !run.cancelled();
    });
  }
  CommandResult result;
  result.lines.push_back("Signed by " + std::string(keys.size() == 1 ? "the key" : "all keys") +
                         " that you named: " + path_utf8(options.file));
  if (run.json) {
    result.document = {{"file", stated_file(options.file, statement)}, {"verified", true}};
  }
  return result;
}

}  // namespace

PublishCommand add_file_sign_command(CLI::App& file) {
  const auto options = std::make_shared<FileOptions>();
  CLI::App* const command = file.add_subcommand("sign", "Writes a signature of a file beside it");
  add_file_options(*command, *options, "Where to write the signature; by default FILE with .sig appended");
  add_signer_options(*command, options->signers);
  return {command, [options](const CommandRun& run) { return sign_one(*options, run); }};
}

PublishCommand add_file_verify_command(CLI::App& file) {
  const auto options = std::make_shared<FileOptions>();
  CLI::App* const command = file.add_subcommand("verify", "Says whether a file is the one that was signed");
  add_file_options(*command, *options, "The signature; by default FILE with .sig appended");
  command
      ->add_option("--public-key", options->public_keys,
                   "The public key file of a key that must have signed; may be given again")
      ->required()
      ->allow_extra_args(false)
      ->type_name("FILE");
  return {command, [options](const CommandRun& run) { return verify_one(*options, run); }};
}

}  // namespace ravok
