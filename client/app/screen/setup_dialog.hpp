// The dialog of the setup programs with a window: where to install and with what room, how far it is, how it ended, and
// what to do with an installation that is there.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "app/install/appended_package.hpp"
#include "app/install/native_package.hpp"
#include "app/screen/folder_probe.hpp"
#include "app/screen/folder_view.hpp"
#include "app/screen/screen.hpp"
#include "app/setup/native_setup.hpp"
#include "domain/error.hpp"
#include "domain/json.hpp"

namespace ravok {

// What a dialog works with.
struct SetupSubject {
  std::filesystem::path data_root;  // the folder that the field holds at first
  bool data_root_chosen = false;    // whether the user named it
  std::string package_seal;
  std::filesystem::path package;  // empty for a program that can only remove
  std::shared_ptr<const AppendedPackage> appended = nullptr;
  std::optional<PackageManifests> manifests = std::nullopt;  // of that package
  std::optional<FeaturedGame> game = std::nullopt;           // gets an entry of its own in the menu
  std::string publisher;                                     // of a branded client; empty if none
  std::string problem;       // why nothing can be installed, such as a damaged package; empty if it can
  std::string problem_code;  // of that failure; empty if it has none
};

// Starts a program in its folder, and lets it go its own way. Fails as ChildProcess does.
using StartProgram = std::function<void(const std::filesystem::path& image, const std::filesystem::path& data_root)>;

// To be used from one thread, as ScreenDialog says.
//
// Its screens are that of FolderView, "choose", "installed", "working", "done", "failed", "remove", "removed" and
// "broken". The actions are "browse", "use", "install", "repair", "start", "uninstall", "remove", "cancel", "retry",
// "back" and "close", the field is "folder", the tick "remove_data", the progress "progress".
class SetupDialog {
 public:
  // A dialog without a package is one about the removal of an installation. `start` is for tests; without it, programs
  // are really started.
  explicit SetupDialog(SetupSubject subject, StartProgram start = {});
  // Asks a running command to stop, and waits until it has.
  ~SetupDialog();
  SetupDialog(const SetupDialog&) = delete;
  SetupDialog& operator=(const SetupDialog&) = delete;

  Screen screen();
  // Does nothing for what the screen does not show, as do the two below.
  void press(std::string_view action);
  void write(std::string_view field, std::string_view text);
  void tick(std::string_view tick, bool checked);

  void choose(std::size_t entry) { folders_.choose(entry); }
  void enter(std::size_t entry) { folders_.enter(entry); }

  // Closes the dialog, once a command under way has stopped, which this asks for.
  void close();
  bool closed() const { return closed_; }

  void set_wakeup(const std::function<void()>& wakeup);

  // Returns the exit code of the program: 0, 1 when the last command or start failed, or 4 when the user stopped it.
  int exit_code() const { return exit_code_; }

  // Returns all of this for a window, which must not outlive the dialog.
  ScreenDialog for_window();

 private:
  enum class Page { choose, folders, working, done, failed, remove, removed, broken };

  bool installs() const { return !subject_.package.empty(); }
  void begin(SetupCommandKind kind);
  void advance();
  void take_result(Json result);
  void take_failure(const NativeSetup::View& view);
  void set_folder(std::string text);
  void refuse_folder(const Error& error);
  void show_folder(std::string notice);
  void use_chosen_folder();
  void start_client();

  Screen choose_screen(const FolderFacts& facts) const;
  Screen installed_screen(const FolderFacts& facts) const;
  Screen working_screen() const;
  Screen done_screen() const;
  Screen failed_screen() const;
  Screen remove_screen() const;
  Screen removed_screen() const;
  Screen broken_screen() const;
  ScreenField folder_field(const FolderFacts& facts) const;

  const SetupSubject subject_;
  const StartProgram start_program_;
  Page page_;
  std::string folder_;  // the text of the field
  bool remove_data_ = false;
  SetupCommand command_;    // the last one that was begun
  bool under_way_ = false;  // whether its outcome is still to be taken
  bool stopping_ = false;   // whether the user has asked it to stop
  bool closing_ = false;
  bool closed_ = false;
  int exit_code_ = 0;
  Json document_;        // of the last command that succeeded
  std::string refusal_;  // why a command refused the folder in the field; empty if none did
  std::string notice_;   // what happened last, in a sentence; empty if nothing did
  std::string error_code_;
  std::string error_message_;
  FolderView folders_;
  FolderProbe probe_;
  NativeSetup setup_;
};

}  // namespace ravok
