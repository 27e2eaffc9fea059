// An installer with a window, an X server for it, and the home of whoever uses it.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "programs/started_program.hpp"
#include "support/display.hpp"
#include "support/install_place.hpp"
#include "window/held_call.hpp"

namespace ravok::testing {

using Arguments = std::vector<std::string>;
using Environment = std::map<std::string, std::string>;

// Whoever looks at the windows of a display and uses them. An item is looked for in all of them; a key goes to the
// first.
class WindowUser {
 public:
  // `end` tells how the program has ended, once it has.
  WindowUser(Display& display, std::function<std::optional<std::string>()> end)
      : display_(display), end_(std::move(end)) {}

  // Waits until a window shows what is wanted, for as long as a slow machine may take, and returns what it shows.
  // Fails at once when the program has ended.
  ShownWindow wait_for(const std::string& wanted, const std::function<bool(const ShownWindow&)>& condition) const;
  ShownWindow wait_for_screen(const std::string& screen) const;
  // Waits until there is an item of this name.
  ShownWindow wait_for_item(const std::string& id) const;
  // Waits until so many more frames are drawn.
  void wait_for_frames(std::uint64_t count) const;

  // Clicks into the middle of an item, once it is there.
  void click(const std::string& id) const;
  void double_click(const std::string& id) const;
  // Moves the focus by Tab, or another key, until it is on the item.
  void tab_to(const std::string& id, const std::string& key = "Tab") const;
  // Presses a key with the window in focus.
  void press(const std::string& key) const;
  // Keeps a key down, with the window in focus, until it is let go.
  void hold(const std::string& key) const;
  void let_go(const std::string& key) const { display_.let_go(key); }
  // Replaces what stands in a field.
  void fill(const std::string& id, const std::string& text) const;
  void ask_to_close() const;

  // Writes a picture of the window into the build folder.
  void picture(const std::string& name) const;

 private:
  Display& display_;
  std::function<std::optional<std::string>()> end_;
};

// A program with a window, and its user.
class WindowProgram : public WindowUser {
 public:
  WindowProgram(Display& display, ProgramStart start);

  std::string errors() { return program_.errors(); }
  bool has_ended() { return program_.has_ended(); }
  void send_signal(int signal) const { program_.send_signal(signal); }
  // Waits for its end and returns its exit code, or minus the signal that ended it.
  int wait() { return program_.wait(); }

 private:
  static ProgramStart with_file(ProgramStart start, const std::filesystem::path& errors);

  const TemporaryRoot root_;
  StartedProgram program_;
};

// So many descriptors that what a program opens after them gets numbers beyond 1023.
inline constexpr std::size_t too_many_for_a_window = 1100;

// The same for all programs that are started on one display.
Environment window_environment(const Display& display, const std::filesystem::path& home, Environment more = {});

class WindowPlace {
 public:
  explicit WindowPlace(const DisplayForm& form = {});

  // Makes the installer of the package as it is now.
  void publish();

  std::filesystem::path installer() const { return place.root() / "installer/ravok-install-gui"; }
  Environment environment(Environment more = {}) const;

  // Starts the installer for the data folder of the test.
  std::unique_ptr<WindowProgram> start(const Environment& more = {}, const Arguments& arguments = {});
  // The same with a call of its worker that is held.
  std::unique_ptr<WindowProgram> start_held(const HeldCall& held, const Arguments& arguments = {});
  // Starts any program with a window.
  std::unique_ptr<WindowProgram> start_program(const std::string& program, const Arguments& arguments,
                                               const Environment& more = {});

  // The data folder holds a whole installation and nothing unfinished.
  void expect_installed() const;
  // Everything is as it was before the installer was started for the first time.
  void expect_nothing_left() const;
  // The names below the root, without what desktops' libraries keep in a home.
  std::vector<std::string> names() const;

  InstallPlace place;
  Display display;
  std::vector<std::string> before;
};

}  // namespace ravok::testing
