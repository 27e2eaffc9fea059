#include "window/rows.hpp"

#include <algorithm>

#include <FL/Fl.H>

namespace ravok {
namespace {

template <typename... Handlers>
struct Overloaded : Handlers... {
  using Handlers::operator()...;
};
template <typename... Handlers>
Overloaded(Handlers...) -> Overloaded<Handlers...>;

}  // namespace

Row make_row(const ScreenItem& item, const Style& style, const ScreenDialog& dialog,
             const std::function<void()>& entered) {
  const auto text = [&](const ScreenText& shown) -> Row {
    return TextRow{shown.id, new TextBlock(shown.text, style.body(shown.tone))};
  };
  const auto field = [&](const ScreenField& shown) -> Row {
    FieldRow row = {shown.id, new TextBlock(shown.label, style.label()), nullptr, nullptr, nullptr};
    row.field = new TextField(
        style, [&dialog, id = shown.id](const std::string& value) { dialog.write(id, value); }, entered);
    row.field->set(shown.text);
    row.browse = new ActionButton({"browse", shown.browse, ActionTone::normal}, style, style.theme().panel,
                                  [&dialog] { dialog.press("browse"); });
    row.problem = new TextBlock(shown.problem, style.small(TextTone::warning));
    return row;
  };
  const auto tick = [&](const ScreenTick& shown) -> Row {
    return TickRow{shown.id,
                   new TickBox(shown, style, [&dialog, id = shown.id](bool checked) { dialog.tick(id, checked); })};
  };
  const auto progress = [&](const ScreenProgress& shown) -> Row {
    const ProgressRow row = {shown.id, new TextBlock(shown.text, style.body(TextTone::normal)), new ProgressBar(style)};
    row.bar->set(shown.done, shown.total);
    return row;
  };
  const auto list = [&](const ScreenList& shown) -> Row {
    const ListRow row = {shown.id, new ListBox(
                                       style, [&dialog, id = shown.id](std::size_t entry) { dialog.choose(id, entry); },
                                       [&dialog, id = shown.id](std::size_t entry) { dialog.open(id, entry); })};
    row.list->set(shown);
    return row;
  };
  return std::visit(Overloaded{text, field, tick, progress, list}, item);
}

bool update_row(Row& row, const ScreenItem& item, const Style& style) {
  const auto text = [&](const ScreenText& shown) {
    return std::get<TextRow>(row).block->set(shown.text, style.body(shown.tone));
  };
  const auto field = [&](const ScreenField& shown) {
    const FieldRow& widgets = std::get<FieldRow>(row);
    if (widgets.field->text() != shown.text) {
      widgets.field->set(shown.text);
    }
    return widgets.problem->set(shown.problem, style.small(TextTone::warning));
  };
  const auto tick = [&](const ScreenTick& shown) {
    TickBox* const box = std::get<TickRow>(row).box;
    // While the mouse is held down on it, the box shows what letting go would make of it.
    if (Fl::pushed() != box) {
      box->value(shown.checked ? 1 : 0);
    }
    return false;
  };
  const auto progress = [&](const ScreenProgress& shown) {
    const ProgressRow& widgets = std::get<ProgressRow>(row);
    widgets.bar->set(shown.done, shown.total);
    return widgets.text->set(shown.text, style.body(TextTone::normal));
  };
  const auto list = [&](const ScreenList& shown) {
    std::get<ListRow>(row).list->set(shown);
    return false;
  };
  return std::visit(Overloaded{text, field, tick, progress, list}, item);
}

int place_row(Row& row, const Style& style, int left, int top, int across) {
  const auto text = [&](TextRow& widgets) {
    const int height = widgets.block->wrap(across);
    widgets.block->resize(left, top, across, height);
    return height;
  };
  const auto field = [&](FieldRow& widgets) {
    const int label = widgets.label->wrap(across);
    widgets.label->resize(left, top, across, label);
    const int height = std::max(widgets.field->natural_height(), widgets.browse->natural_height());
    const int button = widgets.browse->natural_width();
    const int inset = (height - widgets.field->natural_height()) / 2;
    widgets.field->resize(left, top + label + inset, across - button - style.gap(), widgets.field->natural_height());
    widgets.browse->resize(left + across - button, top + label, button, height);
    const int problem = widgets.problem->wrap(across);
    widgets.problem->resize(left, top + label + height, across, problem);
    return label + height + problem;
  };
  const auto tick = [&](TickRow& widgets) {
    const int height = widgets.box->wrap(across);
    widgets.box->position(left, top);
    return height;
  };
  const auto progress = [&](ProgressRow& widgets) {
    const int label = widgets.text->wrap(across);
    widgets.text->resize(left, top, across, label);
    widgets.bar->resize(left, top + label + style.gap() / 2, across, widgets.bar->natural_height());
    return label + style.gap() / 2 + widgets.bar->natural_height();
  };
  const auto list = [&](ListRow& widgets) {
    widgets.list->resize(left, top, across, widgets.list->natural_height());
    return widgets.list->natural_height();
  };
  return std::visit(Overloaded{text, field, tick, progress, list}, row);
}

std::string focused_in(const Row& row) {
  const Fl_Widget* const focus = Fl::focus();
  const auto of = [focus](const Fl_Widget* widget, const std::string& id) {
    return widget == focus ? id : std::string();
  };
  return std::visit(
      Overloaded{
          [](const TextRow&) { return std::string(); }, [](const ProgressRow&) { return std::string(); },
          [&](const FieldRow& shown) { return shown.browse == focus ? shown.browse->id() : of(shown.field, shown.id); },
          [&](const TickRow& shown) { return of(shown.box, shown.id); },
          [&](const ListRow& shown) { return of(shown.list, shown.id); }},
      row);
}

Fl_Widget* find_in(const Row& row, const std::string& id) {
  const auto of = [&](Fl_Widget* widget, const std::string& own) { return own == id ? widget : nullptr; };
  return std::visit(Overloaded{[](const TextRow&) -> Fl_Widget* { return nullptr; },
                               [](const ProgressRow&) -> Fl_Widget* { return nullptr; },
                               [&](const FieldRow& shown) {
                                 return shown.browse->id() == id ? shown.browse : of(shown.field, shown.id);
                               },
                               [&](const TickRow& shown) { return of(shown.box, shown.id); },
                               [&](const ListRow& shown) { return of(shown.list, shown.id); }},
                    row);
}

void report_row(const Row& row, std::vector<ShownItem>& items) {
  const auto add = [&](const std::string& id, const char* kind, const std::string& text, const Fl_Widget* widget) {
    items.push_back(shown_item(id, kind, text, *widget));
  };
  std::visit(Overloaded{[&](const TextRow& shown) { add(shown.id, "text", shown.block->text(), shown.block); },
                        [&](const FieldRow& shown) {
                          add(shown.id + "_label", "text", shown.label->text(), shown.label);
                          add(shown.id, "field", shown.field->text(), shown.field);
                          add(shown.browse->id(), "button", shown.browse->text(), shown.browse);
                          if (!shown.problem->text().empty()) {
                            add(shown.id + "_problem", "problem", shown.problem->text(), shown.problem);
                          }
                        },
                        [&](const TickRow& shown) {
                          add(shown.id, "tick", shown.box->text(), shown.box);
                          items.back().checked = shown.box->value() != 0;
                        },
                        [&](const ProgressRow& shown) {
                          add(shown.id + "_text", "text", shown.text->text(), shown.text);
                          add(shown.id, "progress", {}, shown.bar);
                        },
                        [&](const ListRow& shown) {
                          std::string entries;
                          for (const std::string& entry : shown.list->entries()) {
                            entries += entry + "\n";
                          }
                          add(shown.id, "list", entries, shown.list);
                        }},
             row);
}

ShownItem shown_item(const std::string& id, const char* kind, const std::string& text, const Fl_Widget& widget) {
  return {id, kind, text, widget.x(), widget.y(), widget.w(), widget.h(), false};
}

}  // namespace ravok
