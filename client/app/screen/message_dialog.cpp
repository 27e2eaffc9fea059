#include "app/screen/message_dialog.hpp"

#include "app/brand/brand.hpp"
#include "domain/display_text.hpp"

namespace ravok {

ScreenDialog message_dialog(std::string_view heading, std::string_view problem) {
  Screen screen;
  screen.id = "message";
  screen.heading = shown_text(branded(heading));
  screen.title = screen.heading;
  screen.items.emplace_back(ScreenText{"problem", shown_text(problem), TextTone::warning});
  screen.actions = {{"close", "&Close", ActionTone::accent}};
  const auto closed = std::make_shared<bool>(false);
  return {[screen] { return screen; },
          [closed](std::string_view action) { *closed = *closed || action == "close"; },
          [](std::string_view, std::string_view) {},
          [](std::string_view, bool) {},
          [](std::string_view, std::size_t) {},
          [](std::string_view, std::size_t) {},
          [closed] { *closed = true; },
          [closed] { return *closed; },
          [](const std::function<void()>&) {}};
}

}  // namespace ravok
