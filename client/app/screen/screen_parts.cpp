#include "app/screen/screen_parts.hpp"

#include <cstddef>

#include "app/brand/brand.hpp"
#include "domain/display_text.hpp"

namespace ravok {
namespace {

constexpr std::size_t most_paths = 4;

}  // namespace

std::string sentence(std::string text) {
  if (!text.empty() && text.back() != '.') {
    text += ".";
  }
  return text;
}

Screen new_screen(std::string_view id, std::string_view heading, TextTone tone) {
  Screen screen;
  screen.id = id;
  screen.heading = shown_text(branded(heading));
  screen.title = screen.heading;
  screen.heading_tone = tone;
  return screen;
}

void add_text(Screen& screen, std::string_view id, std::string_view text, TextTone tone) {
  if (!text.empty()) {
    screen.items.emplace_back(ScreenText{std::string(id), shown_text(text), tone});
  }
}

void add_paths(Screen& screen, std::string_view id, std::string_view lead, const Json& paths, TextTone tone) {
  for (std::size_t i = 0; i < paths.size() && i < most_paths; ++i) {
    add_text(screen, id, std::string(lead) + paths.at(i).get<std::string>(), tone);
  }
  if (paths.size() > most_paths) {
    add_text(screen, id, "And " + shown_count(paths.size() - most_paths, "more path") + ".", tone);
  }
}

bool has_action(const Screen& screen, std::string_view id) {
  if (std::any_of(screen.actions.begin(), screen.actions.end(),
                  [&](const ScreenAction& action) { return action.id == id; })) {
    return true;
  }
  return id == browse_action && std::any_of(screen.items.begin(), screen.items.end(), [](const ScreenItem& item) {
           return std::holds_alternative<ScreenField>(item);
         });
}

}  // namespace ravok
