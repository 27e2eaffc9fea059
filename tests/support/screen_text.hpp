// A screen of a dialog in lines of text, so that a test can compare the whole of it.
#pragma once

#include <string>
#include <string_view>

#include "app/screen/screen.hpp"

namespace ravok::testing {

inline const char* tone_name(TextTone tone) {
  switch (tone) {
    case TextTone::normal:
      return "";
    case TextTone::muted:
      return " muted";
    case TextTone::warning:
      return " warning";
    case TextTone::success:
      return " success";
  }
  return " unknown";
}

struct ScreenItemLines {
  std::string operator()(const ScreenText& text) const {
    return text.id + tone_name(text.tone) + ": " + text.text + "\n";
  }
  std::string operator()(const ScreenField& field) const {
    return field.id + " [" + field.label + "|" + field.text + "|" + field.browse + "]" +
           (field.problem.empty() ? "" : " " + field.problem) + "\n";
  }
  std::string operator()(const ScreenTick& tick) const {
    return tick.id + (tick.checked ? " [x] " : " [ ] ") + tick.label + "\n";
  }
  std::string operator()(const ScreenProgress& progress) const {
    return progress.id + " " + std::to_string(progress.done) + "/" + std::to_string(progress.total) + ": " +
           progress.text + "\n";
  }
  std::string operator()(const ScreenList& list) const {
    std::string lines = list.id + (list.chosen ? " " + std::to_string(*list.chosen) : "") + ":\n";
    for (const std::string& entry : list.entries) {
      lines += "  " + entry + "\n";
    }
    return lines;
  }
};

// One line for each item: its name, its tone unless that is the normal one, and what it shows.
inline std::string items_of(const Screen& screen) {
  std::string lines;
  for (const ScreenItem& item : screen.items) {
    lines += std::visit(ScreenItemLines(), item);
  }
  return lines;
}

// The buttons in their order: each name and label, with "!" for the accent and "!!" for danger.
inline std::string actions_of(const Screen& screen) {
  std::string line;
  for (const ScreenAction& action : screen.actions) {
    line += (line.empty() ? "" : ", ") + action.id + " " + action.label +
            (action.tone == ActionTone::normal   ? ""
             : action.tone == ActionTone::accent ? "!"
                                                 : "!!");
  }
  return line;
}

// All of a screen.
inline std::string whole_screen(const Screen& screen) {
  return screen.id + (screen.busy ? " busy" : "") + tone_name(screen.heading_tone) + ": " + screen.heading +
         (screen.title == screen.heading ? "" : " titled " + screen.title) + "\n" + items_of(screen) + "(" +
         actions_of(screen) + ")" + (screen.first.empty() ? "" : " first " + screen.first) +
         (screen.escape.empty() ? "" : " escape " + screen.escape);
}

// The text of an item, or nothing where the screen has none of that name.
inline std::string text_of(const Screen& screen, std::string_view id) {
  for (const ScreenItem& item : screen.items) {
    if (const auto* const text = std::get_if<ScreenText>(&item); text != nullptr && text->id == id) {
      return text->text;
    }
  }
  return "";
}

// What a field says against its text.
inline std::string problem_of(const Screen& screen) {
  for (const ScreenItem& item : screen.items) {
    if (const auto* const field = std::get_if<ScreenField>(&item)) {
      return field->problem;
    }
  }
  return "";
}

}  // namespace ravok::testing
