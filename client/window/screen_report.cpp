#include "window/screen_report.hpp"

#include <cmath>

#include <FL/Fl.H>
#include <FL/Fl_Window.H>
#include <FL/platform.H>

#include "domain/json.hpp"

namespace ravok {

void report_screen(Fl_Window& window, const std::string& screen, const std::string& focus, std::uint64_t frames,
                   const std::vector<ShownItem>& items) {
  const double scale = Fl::screen_scale(window.screen_num());
  const auto pixels = [scale](int units) { return std::lround(units * scale); };
  Json shown = Json::array();
  for (const ShownItem& item : items) {
    shown.push_back({{"id", item.id},
                     {"kind", item.kind},
                     {"text", item.text},
                     {"checked", item.checked},
                     {"x", pixels(item.left)},
                     {"y", pixels(item.top)},
                     // The two edges are rounded alike, so that neighbours share theirs.
                     {"width", pixels(item.left + item.across) - pixels(item.left)},
                     {"height", pixels(item.top + item.down) - pixels(item.top)}});
  }
  const Json document = {{"screen", screen},
                         {"focus", focus},
                         {"frames", frames},
                         {"width", pixels(window.w())},
                         {"height", pixels(window.h())},
                         {"items", std::move(shown)}};
  // What a user writes need not be UTF-8.
  const std::string text = document.dump(-1, ' ', false, Json::error_handler_t::replace);
  static const Atom property = XInternAtom(fl_display, "_RAVOK_SCREEN", False);
  static const Atom type = XInternAtom(fl_display, "UTF8_STRING", False);
  XChangeProperty(fl_display, fl_xid(&window), property, type, 8, PropModeReplace,
                  reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
}

}  // namespace ravok
