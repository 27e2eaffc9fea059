#include "window/widgets.hpp"

#include <algorithm>
#include <cctype>
#include <utility>

#include <FL/Fl.H>
#include <FL/fl_draw.H>
#include <FL/fl_utf8.h>

namespace ravok {
namespace {

constexpr int ring_width = 2;
constexpr int corner_radius = 6;

void choose_font(const TextStyle& style) { fl_font(style.font, style.size); }

// Returns the width of a text, measured piece by piece: the display counts the pixels of each in 15 bits.
double width_of(std::string_view text) {
  constexpr std::size_t most = 128;
  double width = 0;
  while (!text.empty()) {
    std::size_t size = std::min(text.size(), most);
    while (size > 1 && size < text.size() && (static_cast<unsigned char>(text[size]) & 0xC0U) == 0x80U) {
      --size;
    }
    width += fl_width(text.data(), static_cast<int>(size));
    text.remove_prefix(size);
  }
  return width;
}

// Returns how many bytes of a word, whole characters and at least one, fit into a width.
std::size_t fitting(std::string_view word, int width) {
  std::size_t size = 0;
  while (size < word.size()) {
    const int length = fl_utf8len1(word[size]);
    const std::size_t next = std::min(word.size(), size + static_cast<std::size_t>(std::max(length, 1)));
    if (size != 0 && width_of(word.substr(0, next)) > width) {
      break;
    }
    size = next;
  }
  return size;
}

// Breaks a line between its words, and a word that is too wide by itself anywhere.
void wrap_line(std::string_view line, int width, std::vector<std::string>& lines) {
  std::string current;
  while (!line.empty()) {
    const std::size_t end = std::min(line.find(' ', 1), line.size());
    const std::string_view word = line.substr(0, end);
    if (width_of(current + std::string(word)) <= width) {
      current += word;
      line.remove_prefix(end);
      continue;
    }
    if (!current.empty()) {
      lines.push_back(std::move(current));
      current.clear();
      line.remove_prefix(line.front() == ' ' ? 1 : 0);
      continue;
    }
    const std::size_t part = fitting(word, width);
    lines.emplace_back(word.substr(0, part));
    line.remove_prefix(part);
  }
  lines.push_back(std::move(current));
}

std::vector<std::string> wrapped(std::string_view text, int width) {
  std::vector<std::string> lines;
  while (true) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    wrap_line(text.substr(0, end), width, lines);
    if (end == text.size()) {
      return lines;
    }
    text.remove_prefix(end + 1);
  }
}

void draw_line(std::string_view text, int left, int baseline) {
  fl_draw(text.data(), static_cast<int>(text.size()), left, baseline);
}

// Draws a label with a line below the letter that stands for it.
void draw_mnemonic(const Mnemonic& label, int left, int baseline) {
  draw_line(label.text, left, baseline);
  if (label.place < label.text.size()) {
    const auto start = static_cast<int>(width_of(std::string_view(label.text).substr(0, label.place)));
    const auto width = static_cast<int>(width_of(std::string_view(label.text).substr(label.place, 1)));
    fl_rectf(left + start, baseline + 2, std::max(width, 1), 1);
  }
}

}  // namespace

Mnemonic::Mnemonic(std::string_view label) {
  const std::size_t mark = label.find('&');
  text = label;
  place = label.size();
  if (mark != std::string_view::npos && mark + 1 < label.size()) {
    text.erase(mark, 1);
    place = mark;
  }
}

int Mnemonic::key() const { return place < text.size() ? std::tolower(static_cast<unsigned char>(text[place])) : 0; }

TextBlock::TextBlock(std::string text, const TextStyle& style)
    : Fl_Widget(0, 0, 0, 0), text_(std::move(text)), style_(style) {}

bool TextBlock::set(std::string text, const TextStyle& style) {
  const bool other = text != text_ || style.color != style_.color;
  text_ = std::move(text);
  style_ = style;
  return other;
}

int TextBlock::wrap(int width) {
  lines_.clear();
  if (text_.empty()) {
    return 0;
  }
  choose_font(style_);
  lines_ = wrapped(text_, width);
  return static_cast<int>(lines_.size()) * fl_height();
}

void TextBlock::draw() {
  choose_font(style_);
  fl_color(style_.color);
  int baseline = y() + fl_height() - fl_descent();
  for (const std::string& line : lines_) {
    draw_line(line, x(), baseline);
    baseline += fl_height();
  }
}

ActionButton::ActionButton(const ScreenAction& action, const Style& style, const Rgb& surface,
                           std::function<void()> pressed)
    : Fl_Button(0, 0, 0, 0),
      style_(style),
      surface_(Style::color(surface)),
      id_(action.id),
      tone_(action.tone),
      label_(action.label),
      pressed_(std::move(pressed)) {
  if (label_.key() != 0) {
    shortcut(FL_ALT | label_.key());
  }
  callback([](Fl_Widget* widget, void*) { static_cast<ActionButton*>(widget)->pressed_(); });
}

int ActionButton::natural_width() const {
  choose_font(style_.button(FL_BLACK));
  return static_cast<int>(width_of(label_.text)) + 2 * style_.margin();
}

int ActionButton::natural_height() const {
  choose_font(style_.button(FL_BLACK));
  return fl_height() + 2 * style_.gap();
}

int ActionButton::handle(int event) {
  // The second click of two was meant for the screen before.
  if (event == FL_PUSH && Fl::event_clicks() != 0) {
    return 1;
  }
  if (event == FL_ENTER || event == FL_LEAVE) {
    redraw();
    return 1;
  }
  if (event == FL_KEYBOARD && (Fl::event_key() == FL_Enter || Fl::event_key() == FL_KP_Enter)) {
    do_callback();
    return 1;
  }
  return Fl_Button::handle(event);
}

ActionButton::Colors ActionButton::colors() const {
  const Theme& theme = style_.theme();
  const bool hover = Fl::belowmouse() == this || value() != 0;
  switch (tone_) {
    case ActionTone::accent:
      return {Style::color(hover ? theme.accent_hover : theme.accent), Style::color(theme.accent_text)};
    case ActionTone::danger:
      return {Style::color(hover ? theme.danger_hover : theme.danger), Style::color(theme.danger_text)};
    case ActionTone::normal:
      break;
  }
  return {Style::color(hover ? theme.hover : theme.button.value_or(theme.raised)), Style::color(theme.text)};
}

void ActionButton::draw() {
  const Colors used = colors();
  fl_rectf(x(), y(), w(), h(), surface_);
  const int inset = ring_width + 1;
  draw_face(style_, x() + inset, y() + inset, w() - 2 * inset, h() - 2 * inset, used.face);
  if (Fl::focus() == this) {
    draw_focus_ring(style_, x(), y(), w(), h());
  }
  choose_font(style_.button(used.text));
  fl_color(used.text);
  const int left = x() + (w() - static_cast<int>(width_of(label_.text))) / 2;
  draw_mnemonic(label_, left, y() + (h() + fl_height()) / 2 - fl_descent());
}

TickBox::TickBox(const ScreenTick& tick, const Style& style, std::function<void(bool)> changed)
    : Fl_Check_Button(0, 0, 0, 0), style_(style), label_(tick.label), changed_(std::move(changed)) {
  value(tick.checked ? 1 : 0);
  if (label_.key() != 0) {
    shortcut(FL_ALT | label_.key());
  }
  callback([](Fl_Widget* widget, void*) {
    auto* const box = static_cast<TickBox*>(widget);
    box->changed_(box->value() != 0);
  });
}

int TickBox::box_side() const { return static_cast<int>(style_.theme().body_size); }

int TickBox::wrap(int width) {
  choose_font(style_.body(TextTone::normal));
  const int left = box_side() + style_.gap() + ring_width + 2;
  lines_ = wrapped(label_.text, width - left - style_.gap());
  double widest = 0;
  for (const std::string& line : lines_) {
    widest = std::max(widest, width_of(line));
  }
  size(left + static_cast<int>(widest) + style_.gap(), static_cast<int>(lines_.size()) * fl_height() + style_.gap());
  return h();
}

void TickBox::draw() {
  const TextStyle text = style_.body(TextTone::normal);
  const int side = box_side();
  const int left = x() + ring_width + 2;
  const int top = y() + (lines_.size() == 1 ? (h() - side) / 2 : style_.gap() / 2);
  fl_rectf(x(), y(), w(), h(), Style::color(style_.theme().panel));
  fl_rectf(left, top, side, side, Style::color(style_.theme().paper));
  fl_rect(left, top, side, side, Style::color(style_.theme().muted));
  if (value() != 0) {
    fl_color(Style::color(style_.theme().ink));
    fl_line_style(FL_SOLID | FL_CAP_ROUND | FL_JOIN_ROUND, 2);
    fl_line(left + side / 5, top + side / 2, left + side * 2 / 5, top + side * 3 / 4, left + side * 4 / 5,
            top + side / 4);
    fl_line_style(FL_SOLID, 0);
  }
  choose_font(text);
  fl_color(text.color);
  const int text_left = left + side + style_.gap();
  int baseline = y() + style_.gap() / 2 + fl_height() - fl_descent();
  if (lines_.size() == 1) {
    draw_mnemonic(label_, text_left, baseline);
  } else {
    for (const std::string& line : lines_) {
      draw_line(line, text_left, baseline);
      baseline += fl_height();
    }
  }
  if (Fl::focus() == this) {
    draw_focus_ring(style_, x(), y(), w(), h());
  }
}

TextField::TextField(const Style& style, std::function<void(const std::string&)> changed, std::function<void()> entered)
    : Fl_Input(0, 0, 0, 0), style_(style), changed_(std::move(changed)), entered_(std::move(entered)) {
  const TextStyle text = style_.field();
  textfont(text.font);
  textsize(text.size);
  textcolor(text.color);
  cursor_color(text.color);
  color(Style::color(style_.theme().paper));
  selection_color(Style::color(style_.theme().accent));
  box(FL_FREE_BOXTYPE);
  when(FL_WHEN_CHANGED);
  callback([](Fl_Widget* widget, void*) {
    auto* const field = static_cast<TextField*>(widget);
    field->changed_(field->text());
  });
}

void TextField::set(const std::string& text) { value(text.data(), static_cast<int>(text.size())); }

std::string TextField::text() const { return {value(), static_cast<std::size_t>(Fl_Input::size())}; }

int TextField::natural_height() const {
  choose_font(style_.field());
  return fl_height() + style_.gap() + 2 * ring_width;
}

int TextField::handle(int event) {
  if (event == FL_KEYBOARD && (Fl::event_key() == FL_Enter || Fl::event_key() == FL_KP_Enter)) {
    entered_();
    return 1;
  }
  const int handled = Fl_Input::handle(event);
  if (event == FL_FOCUS || event == FL_UNFOCUS) {
    redraw();
  }
  return handled;
}

void TextField::draw() {
  Fl_Input::draw();
  if (Fl::focus() == this) {
    draw_focus_ring(style_, x(), y(), w(), h());
  } else {
    fl_rect(x(), y(), w(), h(), Style::color(style_.theme().border));
  }
}

ListBox::ListBox(const Style& style, std::function<void(std::size_t)> chosen, std::function<void(std::size_t)> opened)
    : Fl_Hold_Browser(0, 0, 0, 0), style_(style), chosen_(std::move(chosen)), opened_(std::move(opened)) {
  const TextStyle text = style_.field();
  textfont(text.font);
  textsize(text.size);
  textcolor(text.color);
  color(Style::color(style_.theme().paper));
  selection_color(Style::color(style_.theme().accent));
  box(FL_FREE_BOXTYPE);
  has_scrollbar(Fl_Browser_::VERTICAL);
  // A name is a name, whatever characters it holds.
  format_char(0);
  column_char(0);
  when(FL_WHEN_CHANGED);
  callback([](Fl_Widget* widget, void*) {
    auto* const list = static_cast<ListBox*>(widget);
    if (list->value() > 0) {
      const auto entry = static_cast<std::size_t>(list->value() - 1);
      if (Fl::event() == FL_PUSH && Fl::event_clicks() != 0) {
        Fl::event_clicks(0);
        list->opened_(entry);
      } else {
        list->chosen_(entry);
      }
    }
  });
}

void ListBox::set(const ScreenList& list) {
  if (list.entries != entries_) {
    entries_ = list.entries;
    clear();
    for (const std::string& entry : entries_) {
      add(entry.c_str());
    }
  }
  const int line = list.chosen ? static_cast<int>(*list.chosen) + 1 : 0;
  if (value() != line) {
    value(line);
  }
}

int ListBox::natural_height() const {
  constexpr int rows = 8;
  choose_font(style_.field());
  return rows * fl_height();
}

int ListBox::handle(int event) {
  const bool enter = event == FL_KEYBOARD && (Fl::event_key() == FL_Enter || Fl::event_key() == FL_KP_Enter);
  if (enter && value() > 0) {
    opened_(static_cast<std::size_t>(value() - 1));
    return 1;
  }
  const int handled = Fl_Hold_Browser::handle(event);
  if (event == FL_FOCUS || event == FL_UNFOCUS) {
    redraw();
    return 1;
  }
  return handled;
}

void ListBox::draw() {
  Fl_Hold_Browser::draw();
  if (Fl::focus() == this) {
    draw_focus_ring(style_, x(), y(), w(), h());
  } else {
    fl_rect(x(), y(), w(), h(), Style::color(style_.theme().border));
  }
}

ProgressBar::ProgressBar(const Style& style) : Fl_Widget(0, 0, 0, 0), style_(style) {}

void ProgressBar::set(std::uint64_t done, std::uint64_t total) {
  done_ = std::min(done, total);
  total_ = total;
  ++steps_;
  redraw();
}

int ProgressBar::natural_height() const { return static_cast<int>(style_.theme().body_size); }

void ProgressBar::draw() {
  fl_rectf(x(), y(), w(), h(), Style::color(style_.theme().paper));
  const int inner = w() - 2;
  if (total_ != 0) {
    const double part = static_cast<double>(done_) / static_cast<double>(total_);
    fl_rectf(x() + 1, y() + 1, static_cast<int>(part * inner), h() - 2, Style::color(style_.theme().accent));
  } else {
    // A block that goes from one end to the other and back.
    const int block = inner / 4;
    const int way = std::max(2 * (inner - block), 1);
    const int at = static_cast<int>((steps_ * 6) % static_cast<std::uint64_t>(way));
    fl_rectf(x() + 1 + (at < way / 2 ? at : way - at), y() + 1, block, h() - 2, Style::color(style_.theme().accent));
  }
  fl_rect(x(), y(), w(), h(), Style::color(style_.theme().border));
}

void draw_face(const Style& style, int left, int top, int across, int down, Fl_Color face) {
  const Fl_Color border = Style::color(style.theme().border);
  if (style.theme().rounded) {
    fl_color(face);
    fl_rounded_rectf(left, top, across, down, corner_radius);
    fl_color(border);
    fl_rounded_rect(left, top, across, down, corner_radius);
    return;
  }
  fl_rectf(left, top, across, down, face);
  fl_rect(left, top, across, down, border);
  if (style.theme().bevel) {
    fl_color(fl_color_average(FL_WHITE, face, 0.3F));
    fl_xyline(left + 1, top + 1, left + across - 2);
    fl_yxline(left + 1, top + 1, top + down - 2);
    fl_color(fl_color_average(FL_BLACK, face, 0.3F));
    fl_xyline(left + 1, top + down - 2, left + across - 2);
    fl_yxline(left + across - 2, top + 1, top + down - 2);
  }
}

void draw_focus_ring(const Style& style, int left, int top, int across, int down) {
  fl_color(Style::color(style.theme().focus));
  for (int i = 0; i < ring_width; ++i) {
    fl_rect(left + i, top + i, across - 2 * i, down - 2 * i);
  }
}

}  // namespace ravok
