// The rows of a window: each shows one item of a screen with the widgets that it needs.
#pragma once

#include <functional>
#include <string>
#include <variant>
#include <vector>

#include "app/screen/screen.hpp"
#include "window/screen_report.hpp"
#include "window/style.hpp"
#include "window/widgets.hpp"

namespace ravok {

// The widgets belong to the group of the toolkit that was being filled when the row was made.
struct TextRow {
  std::string id;
  TextBlock* block;
};

struct FieldRow {
  std::string id;
  TextBlock* label;
  TextField* field;
  ActionButton* browse;
  TextBlock* problem;
};

struct TickRow {
  std::string id;
  TickBox* box;
};

struct ProgressRow {
  std::string id;
  TextBlock* text;
  ProgressBar* bar;
};

struct ListRow {
  std::string id;
  ListBox* list;
};

using Row = std::variant<TextRow, FieldRow, TickRow, ProgressRow, ListRow>;

// Makes the row of an item. What the user does with it goes to the dialog; `entered` is called for Return in a field.
// The style and the dialog must outlive the row.
Row make_row(const ScreenItem& item, const Style& style, const ScreenDialog& dialog,
             const std::function<void()>& entered);

// Takes over what has changed of an item. Returns whether it may need another place.
bool update_row(Row& row, const ScreenItem& item, const Style& style);

// Gives the row its place, and returns its height.
int place_row(Row& row, const Style& style, int left, int top, int across);

// Returns the name of what has the keyboard, or nothing where it is not in the row.
std::string focused_in(const Row& row);

// Returns the widget of this name that takes the keyboard, or null.
Fl_Widget* find_in(const Row& row, const std::string& id);

// Adds what the row shows.
void report_row(const Row& row, std::vector<ShownItem>& items);

// Returns what is told of a widget.
ShownItem shown_item(const std::string& id, const char* kind, const std::string& text, const Fl_Widget& widget);

}  // namespace ravok
