// A launch document that is accepted keeps every bound and is accepted again, unchanged, when it is written out; and
// the desktop entry of what it asks for starts exactly that.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "domain/error.hpp"
#include "domain/identifier.hpp"
#include "platform/os.hpp"
#include "platform/shortcut/linux_shortcuts.hpp"
#include "platform/shortcut/macos_shortcuts.hpp"
#include "property.hpp"
#include "support/desktop_entry.hpp"

namespace {

using ravok::fuzz::must_hold;

void check_text(const std::string& text, std::size_t bound) {
  must_hold(!text.empty() && text.size() <= bound, "a text keeps its bound");
  for (const char c : text) {
    must_hold(static_cast<unsigned char>(c) >= 32 && c != 127, "a text has no control character");
  }
}

void check_path(const std::filesystem::path& path) {
  check_text(path.native(), 4096);
  must_hold(path.native().front() == '/' && path.native().back() != '/', "a path names something below the root");
  must_hold(path.native().find("//") == std::string::npos, "a path has no empty component");
  for (const auto& component : path) {
    must_hold(component != "." && component != "..", "a path is normal");
  }
}

void check_document(const ravok::DesktopShortcut& shortcut) {
  check_path(shortcut.bootstrap);
  check_path(shortcut.data_root);
  check_text(shortcut.name, 512);
  if (!shortcut.game_id.empty()) {
    ravok::validate_identifier(shortcut.game_id);
  }
  const ravok::DesktopShortcut again = ravok::parse_macos_launch_document(ravok::macos_launch_document(shortcut));
  must_hold(again.bootstrap == shortcut.bootstrap && again.data_root == shortcut.data_root &&
                again.game_id == shortcut.game_id && again.name == shortcut.name,
            "it reads the same again");
}

void check_entry(const ravok::DesktopShortcut& shortcut) {
  const std::string text = ravok::linux_desktop_entry(shortcut);
  std::vector<std::string> asked;
  // A desktop could not start a path with these characters itself, so a shell starts it.
  if (shortcut.bootstrap.native().find_first_of("%=") != std::string::npos) {
    asked = {"/bin/sh", "-c", R"(exec "$0" "$@")"};
  }
  asked.insert(asked.end(), {shortcut.bootstrap, "--data-dir", shortcut.data_root});
  if (!shortcut.game_id.empty()) {
    asked.insert(asked.end(), {"--launch", shortcut.game_id});
  }
  must_hold(ravok::testing::desktop_entry(text).at("Name") == shortcut.name, "an entry shows its name");
  must_hold(ravok::testing::started_by(text) == asked, "an entry starts what was asked for");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  try {
    const ravok::DesktopShortcut shortcut = ravok::parse_macos_launch_document(text);
    try {
      check_document(shortcut);
      if (ravok::os::shortcut_form() == ravok::os::ShortcutForm::desktop_entry) {
        check_entry(shortcut);
      }
    } catch (const std::exception& refusal) {
      must_hold(false, refusal.what());
    }
  } catch (const ravok::Error&) {
    // A refusal; every other exception is a defect and ends the run.
  }
  return 0;
}
