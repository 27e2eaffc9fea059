// What a window shows and asks, as data: a heading, items below one another, and buttons. Who decides what is shown
// knows nothing of a toolkit, and who draws it knows nothing of an installation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace ravok {

// In which of a theme's colours a text is drawn. Each has enough contrast on a panel, and `success` on the background.
enum class TextTone { normal, muted, warning, success };

struct ScreenText {
  std::string id;
  std::string text;  // wrapped where it is wider than the window; a line feed begins a new line
  TextTone tone = TextTone::normal;
};

// A folder that the user may write or look for.
struct ScreenField {
  std::string id;
  std::string label;
  std::string text;
  std::string browse;   // the label of the button beside it, which stands for the action "browse"
  std::string problem;  // why the text cannot serve, shown beside it; empty if it can
};

struct ScreenTick {
  std::string id;
  std::string label;
  bool checked = false;
};

struct ScreenProgress {
  std::string id;
  std::string text;  // what is being done, and how much of how much
  std::uint64_t done = 0;
  std::uint64_t total = 0;  // 0 where nobody knows
};

// Entries below one another, of which the user chooses one, or opens one.
struct ScreenList {
  std::string id;
  std::vector<std::string> entries;
  std::optional<std::size_t> chosen;
};

using ScreenItem = std::variant<ScreenText, ScreenField, ScreenTick, ScreenProgress, ScreenList>;

enum class ActionTone { normal, accent, danger };

// A button. In its label, "&" stands before the letter that presses it together with Alt.
struct ScreenAction {
  std::string id;
  std::string label;
  ActionTone tone = ActionTone::normal;
};

struct Screen {
  std::string id;
  std::string title;  // of the window
  std::string heading;
  TextTone heading_tone = TextTone::normal;
  std::vector<ScreenItem> items;
  std::vector<ScreenAction> actions;  // from the one that most users want to the one that leaves
  // The action or item that has the keyboard at first; empty for the first action and, on a busy screen, for none.
  std::string first;
  std::string escape;  // the action that Escape stands for; empty for the closing of the window
  bool busy = false;   // whether the screen changes by itself all the time
};

// One dialog between the user and a program, as a window needs it. A window calls all of it from one thread.
struct ScreenDialog {
  std::function<Screen()> screen;                                            // what is to be shown now
  std::function<void(std::string_view action)> press;                        // a button was pressed
  std::function<void(std::string_view field, std::string_view text)> write;  // a field has another text
  std::function<void(std::string_view tick, bool checked)> tick;             // a tick was set or taken away
  std::function<void(std::string_view list, std::size_t entry)> choose;      // an entry of a list was chosen
  std::function<void(std::string_view list, std::size_t entry)> open;        // and opened
  std::function<void()> close;                                               // the user wants the window closed
  std::function<bool()> closed;                                              // whether it may close now
  // Sets what is called, from any thread, when another screen may be due.
  std::function<void(std::function<void()>)> set_wakeup;
};

}  // namespace ravok
