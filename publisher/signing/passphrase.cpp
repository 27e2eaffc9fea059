#include "publisher/signing/passphrase.hpp"

#include <algorithm>
#include <cstdint>

#include "domain/bytes.hpp"
#include "domain/error.hpp"
#include "platform/file/files.hpp"
#include "platform/file/status.hpp"
#include "publisher/publish_files.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t passphrase_limit = 1024;
constexpr std::uint64_t line_end_bytes = 2;

Secret secret_of(std::string_view text) {
  Secret secret(text.size());
  std::copy(text.begin(), text.end(), secret.bytes().begin());
  return secret;
}

Secret only_line(std::string_view text) {
  if (text.ends_with('\n')) {
    text.remove_suffix(text.ends_with("\r\n") ? 2 : 1);
  }
  require(text.find('\n') == std::string_view::npos, "invalid_passphrase",
          "The file of a passphrase holds one line and no more");
  return secret_of(text);
}

Secret read_passphrase(const std::filesystem::path& file) {
  return about(file, [&] {
    const auto status = link_status_of(file);
    require(!status || (status->permissions & permissions::others) == 0, "permissions",
            "Others may read this passphrase; give the file mode 0600");
    std::string text = read_file(file, passphrase_limit + line_end_bytes);
    try {
      Secret line = only_line(text);
      wipe(text);
      return line;
    } catch (...) {
      wipe(text);
      throw;
    }
  });
}

Secret require_usable(Secret passphrase) {
  require(!passphrase.text().empty(), "invalid_passphrase", "The passphrase is empty");
  require(passphrase.text().size() <= passphrase_limit, "invalid_passphrase",
          "The passphrase is longer than 1024 bytes");
  return passphrase;
}

Secret ask(const PassphraseSource& source, const std::string& prompt) {
  require(static_cast<bool>(source.ask), "passphrase_needed",
          "A passphrase is needed; give it with --passphrase-file FILE, or run this on a terminal");
  return require_usable(source.ask(prompt));
}

}  // namespace

Secret known_passphrase(const PassphraseSource& source, const std::string& name) {
  return source.file.empty() ? ask(source, "Passphrase of the key " + name + ": ")
                             : require_usable(read_passphrase(source.file));
}

Secret new_passphrase(const PassphraseSource& source, const std::string& name) {
  if (!source.file.empty()) {
    return require_usable(read_passphrase(source.file));
  }
  Secret first = ask(source, "New passphrase for the key " + name + ": ");
  const Secret second = ask(source, "The same passphrase again: ");
  require(first.text() == second.text(), "passphrase_mismatch", "The two passphrases differ; nothing was written");
  return first;
}

}  // namespace ravok
