#include "window/dialog_window.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

#include <FL/Fl.H>
#include <FL/fl_draw.H>
#include <FL/platform.H>

#include "domain/json.hpp"
#include "window/screen_report.hpp"

namespace ravok {
namespace {

constexpr int least_width = 600;
constexpr int width_in_lines = 38;  // of the height of the theme's text
constexpr int least_height = 380;
constexpr int largest_icon = 48;
// Of the window's height, for what the desktop draws around it.
constexpr int decoration = 36;
// Of a field, to each side of its text.
constexpr int field_padding = 6;

// What makes two screens have the same widgets.
bool same_shape(const Screen& first, const Screen& second) {
  const auto same_items = [](const ScreenItem& one, const ScreenItem& other) {
    return one.index() == other.index() && std::visit([](const auto& item) { return item.id; }, one) ==
                                               std::visit([](const auto& item) { return item.id; }, other);
  };
  const auto same_actions = [](const ScreenAction& one, const ScreenAction& other) {
    return one.id == other.id && one.label == other.label && one.tone == other.tone;
  };
  return first.id == second.id &&
         std::equal(first.items.begin(), first.items.end(), second.items.begin(), second.items.end(), same_items) &&
         std::equal(first.actions.begin(), first.actions.end(), second.actions.begin(), second.actions.end(),
                    same_actions);
}

// What the toolkit draws by itself, such as the bar beside a list, takes these colours.
void give_toolkit_colors(const Theme& theme) {
  Fl::set_boxtype(FL_FREE_BOXTYPE, fl_rectf, field_padding, field_padding / 3, 2 * field_padding, field_padding);
  const auto set = [](Fl_Color slot, const Rgb& rgb) { Fl::set_color(slot, rgb.red, rgb.green, rgb.blue); };
  Fl::background(theme.panel.red, theme.panel.green, theme.panel.blue);
  Fl::background2(theme.panel.red, theme.panel.green, theme.panel.blue);
  Fl::foreground(theme.text.red, theme.text.green, theme.text.blue);
  set(FL_SELECTION_COLOR, theme.accent);
  set(FL_INACTIVE_COLOR, theme.muted);
}

// The colour of a text that is selected: the theme has one for its accent, and every other pair is the theme's own.
Fl_Color text_color_on(Fl_Color text, Fl_Color background, int, int) {
  return Fl::get_color(background) == Fl::get_color(Style::color(theme().accent)) ? Style::color(theme().accent_text)
                                                                                  : text;
}

// Passes an event on, unless it comes of a key that has pressed something and is held since: that was not meant for
// what stands in its place by now.
int dispatch_event(int event, Fl_Window* window) {
  static int held = 0;
  const int key = Fl::event_key();
  if ((event == FL_KEYUP && key == held) || event == FL_UNFOCUS) {
    held = 0;
  }
  const bool writes = key == ' ' && dynamic_cast<TextField*>(Fl::focus()) != nullptr;
  const bool presses = key == FL_Enter || key == FL_KP_Enter || key == FL_Escape || (key == ' ' && !writes);
  if (event == FL_KEYDOWN && presses) {
    if (key == held) {
      return 1;
    }
    held = key;
  }
  return Fl::handle_(event, window);
}

}  // namespace

DialogWindow::DialogWindow(const ScreenDialog& dialog, const std::string& program, const std::string& icon_file)
    : Fl_Double_Window(least_width, least_height), dialog_(dialog), own_scale_(Fl::screen_scale(0)) {
  end();
  Fl::event_dispatch(dispatch_event);
  give_toolkit_colors(style_.theme());
  fl_contrast_function(text_color_on);
  fl_contrast_mode(FL_CONTRAST_CUSTOM);
  // The window chooses its scale by what it shows.
  Fl::keyboard_screen_scaling(0);
  xclass(program.c_str());
  color(Style::color(style_.theme().background));
  const Theme& theme = style_.theme();
  icon_ = theme.icon ? std::make_unique<Picture>(*theme.icon) : std::make_unique<Picture>(icon_file);
  if (theme.banner) {
    banner_ = std::make_unique<Picture>(*theme.banner);
  }
  if (!icon_->empty()) {
    icon(icon_->image());
  }
  callback([](Fl_Widget* window, void*) { static_cast<DialogWindow*>(window)->closing(); });
}

DialogWindow::~DialogWindow() = default;

void DialogWindow::refresh() {
  Screen next = dialog_.screen();
  const bool same = heading_ != nullptr && same_shape(screen_, next);
  screen_ = std::move(next);
  if (same) {
    if (update()) {
      fit();
      redraw();
    }
  } else {
    build();
    fit();
    redraw();
  }
}

// Makes the widgets of a new screen. What has the keyboard keeps it where it is on both screens.
void DialogWindow::build() {
  const std::string had_focus = focused();
  int position = 0;
  int mark = 0;
  for (const Row& row : rows_) {
    if (const auto* const field = std::get_if<FieldRow>(&row)) {
      position = field->field->insert_position();
      mark = field->field->mark();
    }
  }
  rows_.clear();
  buttons_.clear();
  clear();
  begin();
  heading_ = new TextBlock(screen_.heading, style_.title(screen_.heading_tone));
  for (const ScreenItem& item : screen_.items) {
    rows_.push_back(make_row(item, style_, dialog_, [this] {
      if (!buttons_.empty()) {
        buttons_.front()->do_callback();
      }
    }));
  }
  for (const ScreenAction& action : screen_.actions) {
    buttons_.push_back(
        new ActionButton(action, style_, style_.theme().background, [this, id = action.id] { dialog_.press(id); }));
  }
  end();
  copy_label(screen_.title.c_str());
  give_focus(find(had_focus) != nullptr ? had_focus : screen_.first);
  for (const Row& row : rows_) {
    if (const auto* const field = std::get_if<FieldRow>(&row); field != nullptr && field->id == had_focus) {
      field->field->insert_position(position, mark);
    }
  }
}

// Takes over what has changed on the same screen. Returns whether anything has that takes another place.
bool DialogWindow::update() {
  bool changed = heading_->set(screen_.heading, style_.title(screen_.heading_tone));
  for (std::size_t i = 0; i < rows_.size(); ++i) {
    changed = update_row(rows_[i], screen_.items[i], style_) || changed;
  }
  return changed;
}

std::string DialogWindow::focused() const {
  const Fl_Widget* const focus = Fl::focus();
  for (const Row& row : rows_) {
    if (std::string id = focused_in(row); !id.empty()) {
      return id;
    }
  }
  for (const ActionButton* button : buttons_) {
    if (button == focus) {
      return button->id();
    }
  }
  return {};
}

Fl_Widget* DialogWindow::find(const std::string& id) const {
  for (const Row& row : rows_) {
    if (Fl_Widget* const widget = find_in(row, id)) {
      return widget;
    }
  }
  for (ActionButton* button : buttons_) {
    if (button->id() == id) {
      return button;
    }
  }
  return nullptr;
}

void DialogWindow::give_focus(const std::string& id) {
  Fl_Widget* const widget = find(id);
  if (widget != nullptr) {
    widget->take_focus();
  } else if (screen_.busy) {
    // A key that was pressed twice does not stop what it has begun.
    Fl::focus(this);
  } else if (!buttons_.empty()) {
    buttons_.front()->take_focus();
  }
}

// The toolkit moves the keyboard only from one thing to the next. On a busy screen nothing has it at first.
int DialogWindow::handle(int event) {
  if (screen_.busy && event == FL_FOCUS) {
    return 1;
  }
  if (event == FL_KEYBOARD && Fl::event_key() == FL_Tab && Fl::focus() == this && !buttons_.empty()) {
    buttons_.front()->take_focus();
    return 1;
  }
  return Fl_Double_Window::handle(event);
}

// Gives every widget its place in a window of this width. Returns the height that all of it needs; the panel takes what
// is left of `down` beyond that.
int DialogWindow::place(int across, int down) {
  const int margin = style_.margin();
  const int padding = style_.gap() * 3 / 2;
  panel_top_ = place_header(across);
  int top = panel_top_ + padding;
  const int inner = across - 2 * margin - 2 * padding;
  for (Row& row : rows_) {
    const int height = place_row(row, style_, margin + padding, top, inner);
    top += height + (height == 0 ? 0 : style_.gap());
  }
  const int buttons = place_buttons(0, across);
  const int needed = top + padding + margin + buttons;
  const int bottom = std::max(needed, down) - buttons - margin / 2;
  panel_height_ = bottom - margin / 2 - panel_top_;
  place_buttons(bottom, across);
  return needed;
}

int DialogWindow::place_header(int across) {
  const int margin = style_.margin();
  int top = margin;
  banner_height_ = 0;
  if (banner_ && !banner_->empty()) {
    banner_height_ = std::min(across * banner_->height() / banner_->width(), least_height / 4);
    top += banner_height_;
  }
  int left = margin;
  icon_side_ = icon_->empty() ? 0 : std::min(largest_icon, std::max(icon_->height(), icon_->width()));
  if (icon_side_ != 0) {
    left += icon_side_ + style_.gap();
  }
  const int height = heading_->wrap(across - left - margin);
  const int row = std::max(height, icon_side_);
  heading_->resize(left, top + (row - height) / 2, across - left - margin, height);
  return top + row + style_.gap();
}

// Puts the buttons into rows, to the right, the first one first. Returns the height that they take.
int DialogWindow::place_buttons(int top, int across) {
  const int margin = style_.margin();
  const int room = across - 2 * margin;
  std::size_t next = 0;
  int height = 0;
  while (next < buttons_.size()) {
    int width = 0;
    std::size_t end = next;
    while (end < buttons_.size()) {
      const int more = buttons_[end]->natural_width() + (end == next ? 0 : style_.gap());
      if (end != next && width + more > room) {
        break;
      }
      width += more;
      ++end;
    }
    int left = across - margin - width;
    for (; next < end; ++next) {
      const int natural = std::min(buttons_[next]->natural_width(), room);
      buttons_[next]->resize(std::max(left, margin), top + height, natural, buttons_[next]->natural_height());
      left += natural + style_.gap();
    }
    height += buttons_[end - 1]->natural_height() + style_.gap() / 2;
  }
  return height;
}

// Makes the window as large as its screen needs. What is too large for the display is shown smaller, so that all of it
// can be seen.
void DialogWindow::fit() {
  const int screen = shown() ? screen_num() : 0;
  int left = 0;
  int top = 0;
  int across = 0;
  int down = 0;
  Fl::screen_work_area(left, top, across, down, screen);
  const double scale = Fl::screen_scale(screen);
  const double most_across = across * scale;
  const double most_down = down * scale - decoration * own_scale_;
  const int width = std::max(least_width, width_in_lines * static_cast<int>(style_.theme().body_size));
  const int needed = std::max(place(width, 0), least_height);
  // It does not become lower from screen to screen, unless that made it smaller.
  const int height = std::max(needed, h()) * own_scale_ <= most_down ? std::max(needed, h()) : needed;
  const double fitting = std::min({own_scale_, most_across / width, most_down / height});
  if (std::abs(fitting - scale) > 0.01) {
    Fl::screen_scale(screen, static_cast<float>(fitting));
  }
  size_range(width, height, width, height);
  if (width != w() || height != h()) {
    size(width, height);
  } else {
    place(width, height);
  }
}

void DialogWindow::resize(int left, int top, int across, int down) {
  // The widgets have their places by their contents, and not in proportion to the window.
  Fl_Widget* const proportion = resizable();
  resizable(nullptr);
  Fl_Double_Window::resize(left, top, across, down);
  resizable(proportion);
  if (heading_ != nullptr) {
    place(w(), h());
  }
}

void DialogWindow::draw() {
  draw_panel();
  if (banner_height_ != 0) {
    const int across = banner_height_ * banner_->width() / banner_->height();
    banner_->draw((w() - across) / 2, 0, across, banner_height_);
  }
  if (icon_side_ != 0) {
    icon_->draw(style_.margin(), heading_->y() + (heading_->h() - icon_side_) / 2, icon_side_, icon_side_);
  }
  draw_children();
}

void DialogWindow::draw_panel() const {
  const Theme& theme = style_.theme();
  fl_rectf(0, 0, w(), h(), Style::color(theme.background));
  const int left = style_.margin() / 2;
  const int across = w() - style_.margin();
  draw_face(style_, left, panel_top_, across, panel_height_, Style::color(theme.panel));
  if (theme.frame) {
    const ThemeFrame& frame = *theme.frame;
    const Fl_Color lines[] = {Style::color(frame.outline), Style::color(frame.trim), Style::color(frame.trim),
                              Style::color(frame.gap)};
    int inset = 0;
    for (const Fl_Color line : lines) {
      fl_rect(left + inset, panel_top_ + inset, across - 2 * inset, panel_height_ - 2 * inset, line);
      ++inset;
    }
    constexpr int rivet = 4;
    for (const int x : {left + 1, left + across - rivet - 1}) {
      for (const int y : {panel_top_ + 1, panel_top_ + panel_height_ - rivet - 1}) {
        fl_rectf(x, y, rivet, rivet, Style::color(frame.rivet));
      }
    }
  }
}

void DialogWindow::flush() {
  Fl_Double_Window::flush();
  ++frames_;
  report();
}

// Escape is the screen's own way back where it has one.
void DialogWindow::closing() {
  const bool escape = Fl::event() == FL_SHORTCUT && Fl::event_key() == FL_Escape;
  if (escape && !screen_.escape.empty()) {
    dialog_.press(screen_.escape);
  } else {
    dialog_.close();
  }
}

void DialogWindow::report() {
  std::vector<ShownItem> items;
  items.push_back(shown_item("heading", "heading", heading_->text(), *heading_));
  for (const Row& row : rows_) {
    report_row(row, items);
  }
  for (const ActionButton* button : buttons_) {
    items.push_back(shown_item(button->id(), "button", button->text(), *button));
  }
  report_screen(*this, screen_.id, focused(), frames_, items);
}

}  // namespace ravok
