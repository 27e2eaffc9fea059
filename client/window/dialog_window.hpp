// The window that shows a dialog.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <FL/Fl_Double_Window.H>

#include "app/screen/screen.hpp"
#include "window/picture.hpp"
#include "window/rows.hpp"
#include "window/style.hpp"
#include "window/widgets.hpp"

namespace ravok {

class DialogWindow : public Fl_Double_Window {
 public:
  // `program` names the kind of window to the desktop. `icon_file` holds the bytes of an icon file, or nothing.
  DialogWindow(const ScreenDialog& dialog, const std::string& program, const std::string& icon_file);
  ~DialogWindow() override;

  // Shows what the dialog shows now.
  void refresh();

  // Whether what it shows changes by itself all the time.
  bool busy() const { return screen_.busy; }

  // How often the window was drawn.
  std::uint64_t frames() const { return frames_; }

 protected:
  int handle(int event) override;
  void draw() override;
  void flush() override;
  void resize(int left, int top, int across, int down) override;

 private:
  void build();
  bool update();
  void give_focus(const std::string& id);
  std::string focused() const;
  Fl_Widget* find(const std::string& id) const;

  int place(int across, int down);
  int place_header(int across);
  int place_buttons(int top, int across);
  void fit();
  void draw_panel() const;
  void closing();
  void report();

  const ScreenDialog dialog_;
  const double own_scale_;  // of the display, before this window
  Style style_;
  std::unique_ptr<Picture> icon_;
  std::unique_ptr<Picture> banner_;
  Screen screen_;
  TextBlock* heading_ = nullptr;
  std::vector<Row> rows_;
  std::vector<ActionButton*> buttons_;
  int banner_height_ = 0;
  int icon_side_ = 0;
  int panel_top_ = 0;
  int panel_height_ = 0;
  std::uint64_t frames_ = 0;
};

}  // namespace ravok
