#include "app/screen/setup_dialog.hpp"

#include <algorithm>
#include <array>
#include <exception>
#include <utility>

#include "app/brand/brand.hpp"
#include "app/install/data_folder.hpp"
#include "app/install/installation_record.hpp"
#include "app/screen/screen_parts.hpp"
#include "app/screen/setup_advice.hpp"
#include "app/setup/setup_execution.hpp"
#include "domain/display_text.hpp"
#include "domain/error.hpp"
#include "domain/exit_code.hpp"
#include "domain/paths.hpp"
#include "platform/process/child_process.hpp"

namespace ravok {
namespace {

constexpr const char* folder_id = "folder";
constexpr const char* remove_data_id = "remove_data";

// Whether a command has refused the folder that the user chose, which the user can choose anew.
bool refuses_folder(std::string_view code) {
  constexpr auto codes =
      std::to_array<std::string_view>({"unsafe_path", "already_installed", "user_path", "path_limit"});
  return std::find(codes.begin(), codes.end(), code) != codes.end();
}

void start_client_program(const std::filesystem::path& image, const std::filesystem::path& data_root) {
  // It goes on when this program ends.
  ChildProcess(image, {"--data-dir", path_utf8(data_root)}, image.parent_path(), {}, ChildStreams::joined,
               ChildEnvironment::kept, {}, ChildGroup::own);
}

constexpr const char* close_label = "&Close";

}  // namespace

SetupDialog::SetupDialog(SetupSubject subject, StartProgram start)
    : subject_(std::move(subject)),
      start_program_(start ? std::move(start) : start_client_program),
      page_(!installs() ? Page::remove : Page::choose),
      folder_(path_utf8(subject_.data_root)),
      probe_(
          [this](const std::string& text) {
            return inspect_folder(text, subject_.package, subject_.manifests ? &*subject_.manifests : nullptr);
          },
          inspect_folder(folder_, subject_.package, subject_.manifests ? &*subject_.manifests : nullptr)),
      setup_(subject_.package_seal) {
  if (!subject_.problem.empty()) {
    page_ = Page::broken;
    exit_code_ = 1;
  }
}

SetupDialog::~SetupDialog() = default;

Screen SetupDialog::screen() {
  advance();
  switch (page_) {
    case Page::choose: {
      const FolderFacts facts = probe_.facts();
      const bool found = facts.state == FolderFacts::State::installed ||
                         facts.state == FolderFacts::State::interrupted || facts.state == FolderFacts::State::damaged;
      // What is known of one folder offers nothing for another.
      return found && facts.asked == folder_ ? installed_screen(facts) : choose_screen(facts);
    }
    case Page::folders:
      return folders_.screen();
    case Page::working:
      return working_screen();
    case Page::done:
      return done_screen();
    case Page::failed:
      return failed_screen();
    case Page::remove:
      return remove_screen();
    case Page::removed:
      return removed_screen();
    case Page::broken:
      return broken_screen();
  }
  fail("usage", "Unknown setup page");
}

void SetupDialog::press(std::string_view action) {
  // Another screen may have taken the place of the one whose button was pressed.
  if (!has_action(screen(), action)) {
    return;
  }
  if (action == "cancel") {
    setup_.cancel();
    stopping_ = true;
  } else if (action == "install") {
    begin(SetupCommandKind::install);
  } else if (action == "repair") {
    begin(SetupCommandKind::repair);
  } else if (action == "remove") {
    begin(SetupCommandKind::uninstall);
  } else if (action == browse_action) {
    folders_.show((is_bounded_path_text(folder_) ? path_from_utf8(folder_) : subject_.data_root).lexically_normal());
    page_ = Page::folders;
  } else if (action == "use") {
    use_chosen_folder();
  } else if (action == "retry") {
    begin(command_.command);
  } else if (action == "start") {
    start_client();
  } else if (action == "uninstall") {
    remove_data_ = false;
    notice_.clear();
    page_ = Page::remove;
  } else if (action == "back") {
    if (installs()) {
      show_folder({});
    } else {
      page_ = Page::remove;
    }
  } else if (action == "close") {
    close();
  }
}

void SetupDialog::write(std::string_view field, std::string_view text) {
  if (has_item<ScreenField>(screen(), field)) {
    set_folder(std::string(text));
  }
}

void SetupDialog::set_folder(std::string text) {
  if (text != folder_) {
    folder_ = std::move(text);
    refusal_.clear();
    notice_.clear();
    probe_.ask(folder_);
  }
}

void SetupDialog::tick(std::string_view tick, bool checked) {
  if (has_item<ScreenTick>(screen(), tick)) {
    remove_data_ = checked;
  }
}

void SetupDialog::close() {
  advance();
  if (under_way_) {
    setup_.cancel();
    stopping_ = true;
    closing_ = true;
  } else {
    closed_ = true;
  }
}

// Writes the folder that was looked for into the field.
void SetupDialog::use_chosen_folder() {
  if (const std::optional<std::filesystem::path> place = folders_.place(product_name())) {
    set_folder(path_utf8(*place));
    show_folder({});
  }
}

void SetupDialog::set_wakeup(const std::function<void()>& wakeup) {
  folders_.set_wakeup(wakeup);
  probe_.set_wakeup(wakeup);
  setup_.set_wakeup(wakeup);
}

ScreenDialog SetupDialog::for_window() {
  return {[this] { return screen(); },
          [this](std::string_view action) { press(action); },
          [this](std::string_view field, std::string_view text) { write(field, text); },
          [this](std::string_view name, bool checked) { tick(name, checked); },
          [this](std::string_view, std::size_t entry) { choose(entry); },
          [this](std::string_view, std::size_t entry) { enter(entry); },
          [this] { close(); },
          [this] { return closed(); },
          [this](const std::function<void()>& wakeup) { set_wakeup(wakeup); }};
}

void SetupDialog::begin(SetupCommandKind kind) {
  refusal_.clear();
  notice_.clear();
  SetupCommand command;
  command.command = kind;
  try {
    command.data_root = path_from_utf8(folder_);
  } catch (const Error& error) {
    // Only an installation begins with a text that nobody has looked at.
    refuse_folder(error);
    return;
  }
  command.data_root_chosen = subject_.data_root_chosen || folder_ != path_utf8(subject_.data_root);
  if (needs_package(kind)) {
    command.package = subject_.package;
    command.appended = subject_.appended;
  }
  command.remove_data = kind == SetupCommandKind::uninstall && remove_data_;
  if (needs_package(kind) && subject_.game) {
    command.game = subject_.game->id;
    command.game_name = subject_.game->name;
  }
  command_ = command;
  stopping_ = false;
  under_way_ = true;
  page_ = Page::working;
  setup_.start(std::move(command));
}

// Takes the outcome of a command that has ended.
void SetupDialog::advance() {
  if (!under_way_) {
    return;
  }
  NativeSetup::View view = setup_.view();
  if (view.running) {
    return;
  }
  under_way_ = false;
  if (view.error_code.empty()) {
    take_result(std::move(view.result));
  } else {
    take_failure(view);
  }
  closed_ = closed_ || closing_;
}

void SetupDialog::take_result(Json result) {
  document_ = std::move(result);
  exit_code_ = 0;
  page_ = command_.command == SetupCommandKind::uninstall ? Page::removed : Page::done;
}

void SetupDialog::take_failure(const NativeSetup::View& view) {
  const Error error(view.error_code, view.error_message);
  exit_code_ = ravok::exit_code(error);
  if (error.code == "cancelled") {
    notice_ = sentence(error.what());
    page_ = Page::remove;
    if (installs()) {
      show_folder(notice_);
    }
  } else if (command_.command == SetupCommandKind::install && refuses_folder(error.code)) {
    refuse_folder(error);
  } else {
    error_code_ = error.code;
    error_message_ = error.what();
    page_ = Page::failed;
  }
}

// Shows beside the field why the folder in it cannot serve.
void SetupDialog::refuse_folder(const Error& error) {
  exit_code_ = ravok::exit_code(error);
  refusal_ = error.what();
  show_folder({});
}

void SetupDialog::show_folder(std::string notice) {
  notice_ = std::move(notice);
  page_ = Page::choose;
  probe_.ask(folder_);
}

void SetupDialog::start_client() {
  try {
    const DataPaths paths(data_folder(path_from_utf8(folder_)));
    start_program_(shortcut_bootstrap(paths), paths.root);
    exit_code_ = 0;
    closed_ = true;
  } catch (const std::exception& problem) {
    notice_ = sentence(problem.what());
    exit_code_ = 1;
  }
}

ScreenField SetupDialog::folder_field(const FolderFacts& facts) const {
  ScreenField field = {folder_id, "Folder", folder_, "Chan&ge…", {}};
  if (!refusal_.empty()) {
    field.problem = refusal_;
  } else if (facts.asked == folder_ && facts.state == FolderFacts::State::refused) {
    field.problem = facts.problem;
  }
  field.problem = shown_text(field.problem);
  return field;
}

Screen SetupDialog::choose_screen(const FolderFacts& facts) const {
  Screen screen = new_screen("choose", "Install Ravok");
  std::string about = branded("Ravok");
  if (subject_.manifests) {
    about += " " + subject_.manifests->launcher.build_id;
  }
  if (!subject_.publisher.empty()) {
    about += " by " + subject_.publisher;
  }
  about += " will be installed for your user account.";
  if (subject_.game) {
    about += " " + subject_.game->name + " gets an entry of its own in the menu.";
  }
  add_text(screen, "about", about);
  screen.items.emplace_back(folder_field(facts));
  const bool known = facts.asked == folder_ && facts.room.has_value();
  const bool scarce = known && facts.room->needed > facts.room->available;
  // A blank keeps the line's place until there is something to say.
  std::string room = " ";
  if (known) {
    room = "Needs " + shown_size(facts.room->needed) + (scarce ? ", but only " : "; ") +
           shown_size(facts.room->available) + " are free.";
  }
  add_text(screen, "room", room, scarce ? TextTone::warning : TextTone::muted);
  add_text(screen, "notice", notice_, TextTone::warning);
  screen.actions = {{"install", "&Install", ActionTone::accent}, {"close", close_label}};
  screen.first = "install";
  return screen;
}

Screen SetupDialog::installed_screen(const FolderFacts& facts) const {
  const bool whole = facts.state == FolderFacts::State::installed;
  const bool damaged = facts.state == FolderFacts::State::damaged;
  Screen screen = new_screen("installed",
                             whole     ? "Ravok is installed"
                             : damaged ? "Ravok is damaged"
                                       : "Ravok setup did not finish",
                             whole ? TextTone::success : TextTone::normal);
  SetupCommand status;
  status.command = SetupCommandKind::status;
  add_text(screen, "status", damaged ? sentence(facts.problem) : setup_summary(status, facts.status),
           damaged ? TextTone::warning : TextTone::normal);
  screen.items.emplace_back(folder_field(facts));
  add_text(
      screen, "repair_keeps",
      whole ? "Repair replaces damaged files, and keeps games, saves and settings."
            : branded("Repair makes Ravok whole again, and keeps the games, saves and settings that are still there."),
      TextTone::muted);
  add_text(screen, "uninstall_keeps",
           branded("Uninstall removes Ravok and its games, and keeps saves and settings unless you say otherwise."),
           TextTone::muted);
  add_text(screen, "notice", notice_, TextTone::warning);
  if (whole) {
    screen.actions.push_back({"start", "&Start", ActionTone::accent});
  }
  screen.actions.push_back({"repair", "&Repair", whole ? ActionTone::normal : ActionTone::accent});
  screen.actions.push_back({"uninstall", "&Uninstall", ActionTone::danger});
  screen.actions.push_back({"close", close_label});
  return screen;
}

Screen SetupDialog::working_screen() const {
  const bool install = command_.command == SetupCommandKind::install;
  const bool repair = command_.command == SetupCommandKind::repair;
  Screen screen = new_screen("working", install ? "Installing Ravok" : repair ? "Repairing Ravok" : "Removing Ravok");
  const NativeSetup::View view = setup_.view();
  ScreenProgress progress = {"progress", {}, view.done, view.total};
  // The installation is done but for the game's entry, and cannot be stopped any more.
  const bool making_entry = view.phase == "menu";
  if (view.phase.empty()) {
    progress.text = install || repair ? "Beginning…" : branded("Waiting until Ravok is closed…");
  } else {
    progress.text = setup_phase_line(view.phase);
    if (view.total != 0 && (install || repair)) {
      progress.text += " " + shown_size(view.done) + " of " + shown_size(view.total);
    }
  }
  screen.items.emplace_back(std::move(progress));
  screen.busy = true;
  if (stopping_) {
    add_text(screen, "stopping", "Stopping at the next safe point…", TextTone::muted);
  } else if (!making_entry) {
    screen.actions = {{"cancel", "&Cancel"}};
    screen.escape = "cancel";
  }
  return screen;
}

Screen SetupDialog::done_screen() const {
  const bool repair = command_.command == SetupCommandKind::repair;
  Screen screen = new_screen("done", repair ? "Ravok is repaired" : "Ravok is installed", TextTone::success);
  Json document = document_;
  // The summary names a command of the console for it.
  const bool without_entry = document.erase("shortcut_missing") != 0;
  add_text(screen, "summary", setup_summary(command_, document));
  add_paths(screen, "entry", "Menu entry: ", document.at("shortcuts"), TextTone::muted);
  if (without_entry) {
    add_text(screen, "no_entry", branded("Ravok has no entry in the menu."), TextTone::muted);
  }
  if (document.contains("game_shortcut_problem")) {
    add_text(screen, "entry_problem",
             command_.game_name +
                 " got no entry of its own in the menu: " + sentence(text_at(document, "game_shortcut_problem")),
             TextTone::warning);
  }
  add_text(screen, "notice", notice_, TextTone::warning);
  screen.actions = {{"start", "&Start", ActionTone::accent}, {"close", close_label}};
  return screen;
}

Screen SetupDialog::failed_screen() const {
  const bool install = command_.command == SetupCommandKind::install;
  const bool repair = command_.command == SetupCommandKind::repair;
  Screen screen = new_screen("failed", install  ? "Ravok could not be installed"
                                       : repair ? "Ravok could not be repaired"
                                                : "Ravok could not be removed");
  add_text(screen, "problem", sentence(error_message_), TextTone::warning);
  add_text(screen, "advice", std::string(setup_advice(error_code_, error_message_, command_.command)));
  add_text(screen, "kept", setup_remains(command_, error_code_), TextTone::muted);
  screen.actions = {{"retry", "&Try again", ActionTone::accent}, {"back", "&Back"}, {"close", close_label}};
  screen.escape = "back";
  return screen;
}

Screen SetupDialog::remove_screen() const {
  Screen screen = new_screen("remove", "Remove Ravok?");
  const FolderFacts facts = probe_.facts();
  const bool known = facts.asked == folder_ && !facts.root.empty();
  add_text(screen, "what",
           branded("Ravok and its games will be removed from ") + (known ? path_utf8(facts.root) : folder_) + ".");
  add_text(screen, "data",
           remove_data_ ? "Your saves and settings are removed too, and everything else in this folder. They cannot be "
                          "brought back."
                        : "Your saves and settings stay. Everything else in this folder is removed too.",
           remove_data_ ? TextTone::warning : TextTone::muted);
  screen.items.emplace_back(ScreenTick{remove_data_id, "Remove saves and &settings too", remove_data_});
  add_text(screen, "notice", notice_, TextTone::warning);
  const char* const leave = installs() ? "back" : "close";
  screen.actions = {{"remove", "&Remove", ActionTone::danger}, {leave, installs() ? "&Back" : "&Cancel"}};
  screen.first = leave;
  screen.escape = leave;
  return screen;
}

Screen SetupDialog::removed_screen() const {
  Screen screen = new_screen("removed", "Ravok is removed", TextTone::success);
  add_text(screen, "summary", setup_summary(command_, document_));
  add_paths(screen, "kept", "Kept: ", document_.at("kept"), TextTone::muted);
  add_paths(screen, "changed", "Left in place: ", document_.at("changed_shortcuts"), TextTone::muted);
  add_paths(screen, "deferred", "Could not be removed: ", document_.at("deferred"), TextTone::warning);
  screen.actions = {{"close", close_label, ActionTone::accent}};
  return screen;
}

Screen SetupDialog::broken_screen() const {
  Screen screen = new_screen("broken", "Ravok cannot be installed");
  add_text(screen, "problem", sentence(subject_.problem), TextTone::warning);
  add_text(screen, "advice",
           std::string(setup_advice(subject_.problem_code, subject_.problem, SetupCommandKind::install)));
  screen.actions = {{"close", close_label, ActionTone::accent}};
  return screen;
}

}  // namespace ravok
