#include "platform/shortcut/macos_shortcuts.hpp"

#include <array>
#include <cstdint>
#include <utility>

#include "domain/error.hpp"
#include "domain/identifier.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/os.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t document_limit = 32'768;
constexpr const char* document_kind = "ravok-launch-document";
constexpr std::array<const char*, 6> keys = {"schema_version", "kind", "bootstrap", "data_root", "game_id", "name"};
constexpr shortcut_rules::FormWords document_words = {"Launch documents", "Launch-document"};

void require_choices(const std::string& game_id, const std::string& name) {
  shortcut_rules::bounded_text(name, shortcut_rules::maximum_name_bytes);
  if (!game_id.empty()) {
    validate_identifier(game_id);
  }
}

void require_document_form(const Json& document) {
  require(document.is_object() && document.size() == keys.size(), "shortcut_document",
          "Unknown launch document fields");
  for (const char* key : keys) {
    require(document.contains(key), "shortcut_document", "Incomplete launch document");
  }
  require(is_integer(document.at("schema_version"), 1) && is_text(document.at("kind"), document_kind),
          "unsupported_schema", "Unknown launch document schema was preserved");
  for (const char* key : {"bootstrap", "data_root", "game_id", "name"}) {
    require(document.at(key).is_string(), "shortcut_document", "Launch document choices must be strings");
  }
}

}  // namespace

std::string macos_launch_document(const DesktopShortcut& shortcut) {
  require_choices(shortcut.game_id, shortcut.name);
  const Json document = {{"schema_version", 1},
                         {"kind", document_kind},
                         {"bootstrap", path_utf8(shortcut.bootstrap)},
                         {"data_root", path_utf8(shortcut.data_root)},
                         {"game_id", shortcut.game_id},
                         {"name", shortcut.name}};
  std::string text =
      refuse_malformed("shortcut_text", "Shortcut text must be valid UTF-8", [&] { return document.dump(); });
  require(text.size() <= document_limit, "size_limit", "Launch document exceeds its byte bound");
  return text;
}

DesktopShortcut parse_macos_launch_document(std::string_view text) {
  const Json document = parse_json(text, document_limit);
  require_document_form(document);
  DesktopShortcut shortcut;
  shortcut.bootstrap = path_from_utf8(text_at(document, "bootstrap"));
  shortcut.data_root = path_from_utf8(text_at(document, "data_root"));
  shortcut_rules::absolute_path_below_root(shortcut.bootstrap);
  shortcut_rules::absolute_path_below_root(shortcut.data_root);
  shortcut.game_id = text_at(document, "game_id");
  shortcut.name = text_at(document, "name");
  require_choices(shortcut.game_id, shortcut.name);
  return shortcut;
}

shortcut_rules::NewFile prove_macos_launch_document(const DesktopShortcut& shortcut, const std::filesystem::path& path,
                                                    shortcut_rules::Taken taken) {
  std::string text = macos_launch_document(shortcut);
  require(path.extension() == ".ravok-launch", "shortcut_path", "macOS launch documents must end in .ravok-launch");
  shortcut_rules::NewFile file = shortcut_rules::prove_new_file(shortcut, path, std::move(text), document_words, taken);
  // Comes first, so that no document exists that nothing can open.
  register_macos_shortcut_handler(shortcut.bootstrap);
  return file;
}

Json create_macos_launch_document(const DesktopShortcut& shortcut, const std::filesystem::path& path) {
  const shortcut_rules::NewFile file = prove_macos_launch_document(shortcut, path, shortcut_rules::Taken::refused);
  return shortcut_rules::create_file(shortcut, file.path, file.text);
}

void register_macos_shortcut_handler(const std::filesystem::path& bootstrap) {
  shortcut_rules::require_stable_bootstrap(bootstrap, "macOS");
  const std::filesystem::path handler = bootstrap.parent_path().parent_path() / "RavokShortcut.app";
  shortcut_rules::ordinary(handler, true);
  shortcut_rules::ordinary(handler / "Contents/Info.plist", false);
  shortcut_rules::ordinary(handler / "Contents/MacOS/ravok-shortcut", false);
  require(os::register_application(path_utf8(handler)), "shortcut_api",
          "Cannot register the installed Ravok launch-document handler");
}

}  // namespace ravok
