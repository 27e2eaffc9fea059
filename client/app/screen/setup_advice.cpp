#include "app/screen/setup_advice.hpp"

#include <algorithm>
#include <array>

namespace ravok {
namespace {

// What a user can do about a failure, by its code and what failed. The first that applies counts.
struct Advice {
  std::string_view code;
  std::string_view text;
  bool (*applies)(SetupCommandKind kind) = nullptr;  // null where it applies to every command
};

bool is_install(SetupCommandKind kind) { return kind == SetupCommandKind::install; }

constexpr std::string_view get_installer_again = "This installer is damaged or incomplete. Get it again.";
constexpr std::string_view look_at_disk = "Look whether the disk is in order, and whether you may write to the folder.";

constexpr auto advices = std::to_array<Advice>({
    {"insufficient_space", "Free some space, or choose a folder on another disk.", is_install},
    {"insufficient_space", "Free some space, and try again."},
    {"busy", "Wait until the other setup has ended, and try again."},
    {"usage", get_installer_again, needs_package},
    {"native_install_trust", get_installer_again, needs_package},
    {"invalid_native_package", get_installer_again, needs_package},
    {"content_mismatch", get_installer_again, needs_package},
    {"invalid_manifest", get_installer_again, needs_package},
    {"invalid_json", get_installer_again, needs_package},
    {"invalid_theme", get_installer_again, needs_package},
    {"signature_threshold", get_installer_again, needs_package},
    {"size_limit", get_installer_again, needs_package},
    {"length_mismatch", get_installer_again, needs_package},
    {"archive", get_installer_again, needs_package},
    {"archive_path", get_installer_again, needs_package},
    {"archive_inventory", get_installer_again, needs_package},
    {"expired_metadata",
     "This installer is too old, or the clock of this computer is wrong. Set the clock right, or get a newer "
     "installer.",
     needs_package},
    {"launcher_incompatible", "This installer is for another kind of computer. Get the one for yours.", needs_package},
    {"unsupported_schema", "A newer version may have made this installation. Get a newer installer.", needs_package},
    {"file_read", "Look whether the disk is in order, or get the installer again.", needs_package},
    {"file_read", look_at_disk},
    {"file_write", look_at_disk},
    {"file_sync", look_at_disk},
    {"file_remove", look_at_disk},
    {"file_system", look_at_disk},
    {"permissions", look_at_disk},
});

// Whether a removal that failed so had not begun.
bool stops_before_removal(std::string_view code) {
  constexpr auto codes =
      std::to_array<std::string_view>({"not_installed", "busy", "ravok_running", "user_path", "lock_failed"});
  return std::find(codes.begin(), codes.end(), code) != codes.end();
}

}  // namespace

std::string_view setup_advice(std::string_view code, std::string_view message, SetupCommandKind kind) {
  if (message.ends_with("get it again")) {
    return {};
  }
  const auto* const found = std::find_if(advices.begin(), advices.end(), [&](const Advice& advice) {
    return advice.code == code && (advice.applies == nullptr || advice.applies(kind));
  });
  return found == advices.end() ? std::string_view() : found->text;
}

std::string setup_remains(const SetupCommand& command, std::string_view code) {
  std::string text;
  if (command.command != SetupCommandKind::uninstall || !command.remove_data) {
    text = "Your saves and settings were not touched.";
  }
  if (command.command == SetupCommandKind::install) {
    text += " What was begun has been removed, or is finished when you try again.";
  } else if (command.command == SetupCommandKind::uninstall && !stops_before_removal(code)) {
    text += command.remove_data ? "Some of it may be removed already, saves and settings too."
                                : " Some of the rest may be removed already.";
    text += " Trying again removes what is left.";
  }
  return text;
}

}  // namespace ravok
