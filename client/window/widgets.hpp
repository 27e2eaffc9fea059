// The things that a window is made of, each drawn in the colours of the theme.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <FL/Fl_Button.H>
#include <FL/Fl_Check_Button.H>
#include <FL/Fl_Hold_Browser.H>
#include <FL/Fl_Input.H>
#include <FL/Fl_Widget.H>

#include "app/screen/screen.hpp"
#include "window/style.hpp"

namespace ravok {

// A label whose "&" stands before the letter that is pressed together with Alt.
struct Mnemonic {
  explicit Mnemonic(std::string_view label);

  std::string text;       // without the "&"
  std::size_t place = 0;  // of the letter in the text, in bytes; its size where there is none
  int key() const;        // the letter in lower case; 0 where there is none
};

// Lines of text, wrapped where they are too wide. Nothing in the text is a command to the toolkit.
class TextBlock : public Fl_Widget {
 public:
  TextBlock(std::string text, const TextStyle& style);

  // Sets another text. Returns whether it is another.
  bool set(std::string text, const TextStyle& style);
  const std::string& text() const { return text_; }

  // Returns the height that the text takes within a width, which is its own from now on.
  int wrap(int width);

 protected:
  void draw() override;

 private:
  std::string text_;
  TextStyle style_;
  std::vector<std::string> lines_;
};

// A button in the colours of what it does.
class ActionButton : public Fl_Button {
 public:
  // `surface` is the colour that it lies on.
  ActionButton(const ScreenAction& action, const Style& style, const Rgb& surface, std::function<void()> pressed);

  const std::string& id() const { return id_; }
  const std::string& text() const { return label_.text; }

  // Returns the width and the height that the label needs.
  int natural_width() const;
  int natural_height() const;

 protected:
  int handle(int event) override;
  void draw() override;

 private:
  struct Colors {
    Fl_Color face;
    Fl_Color text;
  };
  Colors colors() const;

  const Style& style_;
  const Fl_Color surface_;
  const std::string id_;
  const ActionTone tone_;
  const Mnemonic label_;
  std::function<void()> pressed_;
};

// A box with a tick and a label.
class TickBox : public Fl_Check_Button {
 public:
  TickBox(const ScreenTick& tick, const Style& style, std::function<void(bool)> changed);

  const std::string& text() const { return label_.text; }
  int wrap(int width);

 protected:
  void draw() override;

 private:
  int box_side() const;

  const Style& style_;
  const Mnemonic label_;
  std::vector<std::string> lines_;  // of the label
  std::function<void(bool)> changed_;
};

// One line that the user writes.
class TextField : public Fl_Input {
 public:
  TextField(const Style& style, std::function<void(const std::string&)> changed, std::function<void()> entered);

  void set(const std::string& text);
  std::string text() const;
  int natural_height() const;

 protected:
  int handle(int event) override;
  void draw() override;

 private:
  const Style& style_;
  std::function<void(const std::string&)> changed_;
  std::function<void()> entered_;
};

// Entries below one another.
class ListBox : public Fl_Hold_Browser {
 public:
  ListBox(const Style& style, std::function<void(std::size_t)> chosen, std::function<void(std::size_t)> opened);

  // Sets the entries and the chosen one, and shows that.
  void set(const ScreenList& list);
  const std::vector<std::string>& entries() const { return entries_; }
  int natural_height() const;

 protected:
  int handle(int event) override;
  void draw() override;

 private:
  const Style& style_;
  std::vector<std::string> entries_;
  std::function<void(std::size_t)> chosen_;
  std::function<void(std::size_t)> opened_;
};

// A bar that tells how much of how much is done, or only that something is being done.
class ProgressBar : public Fl_Widget {
 public:
  explicit ProgressBar(const Style& style);

  void set(std::uint64_t done, std::uint64_t total);
  int natural_height() const;

 protected:
  void draw() override;

 private:
  const Style& style_;
  std::uint64_t done_ = 0;
  std::uint64_t total_ = 0;
  std::uint64_t steps_ = 0;  // of the block that moves where no total is known
};

// Draws a box in the form that the theme gives to corners.
void draw_face(const Style& style, int left, int top, int across, int down, Fl_Color face);

// Draws the ring of what has the keyboard, inside a rectangle.
void draw_focus_ring(const Style& style, int left, int top, int across, int down);

}  // namespace ravok
