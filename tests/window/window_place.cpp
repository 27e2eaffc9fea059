#include "window/window_place.hpp"

#include <array>
#include <chrono>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "app/install/native_install.hpp"
#include "platform/posix/native.hpp"
#include "publisher/publish_installer.hpp"
#include "support/bytes_of.hpp"

namespace ravok::testing {
namespace {

constexpr std::chrono::minutes patience(10);
constexpr std::chrono::milliseconds between_looks(3);

Handle fifo(const std::filesystem::path& path) {
  if (mkfifo(path.c_str(), 0600) != 0) {
    throw std::runtime_error("Cannot make a FIFO for a test");
  }
  // Opened for both, so that opening waits for nobody.
  Handle opened(open(path.c_str(), O_RDWR | O_CLOEXEC));
  if (!opened) {
    throw std::runtime_error("Cannot open a FIFO of a test");
  }
  return opened;
}

}  // namespace

HeldCall::HeldCall(const std::string& call, const std::string& path_end)
    : call_(call + " " + path_end), reached_(fifo(root_ / "reached")), go_(fifo(root_ / "go")) {}

Environment HeldCall::environment() const {
  return {{"LD_PRELOAD", RAVOK_HELD_CALL_LIBRARY}, {"RAVOK_HELD_CALL", call_}, {"RAVOK_HELD_PLACE", root_.path()}};
}

void HeldCall::wait(const std::function<bool()>& has_ended) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  for (pollfd events = {reached_.get(), POLLIN, 0}; ::poll(&events, 1, 10) != 1;) {
    if (has_ended() || std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error("The program has not made the call \"" + call_ + "\"");
    }
  }
  char byte = 0;
  if (read(reached_.get(), &byte, 1) != 1) {
    throw std::runtime_error("Cannot read from a FIFO of a test");
  }
}

void HeldCall::release() {
  if (write(go_.get(), ".", 1) != 1) {
    throw std::runtime_error("Cannot write to a FIFO of a test");
  }
}

ShownWindow WindowUser::wait_for(const std::string& wanted,
                                 const std::function<bool(const ShownWindow&)>& condition) const {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  std::optional<ShownWindow> last;
  for (;;) {
    for (const ShownWindow& now : display_.windows()) {
      if (condition(now)) {
        return now;
      }
      last = now;
    }
    const std::optional<std::string> end = end_();
    if (end || std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error("The window never showed " + wanted +
                               (last ? ", but last " + last->screen + ":\n" + last->texts() : "") +
                               (end ? "\nThe program has ended: " + *end : ""));
    }
    std::this_thread::sleep_for(between_looks);
  }
}

ShownWindow WindowUser::wait_for_screen(const std::string& screen) const {
  return wait_for("the screen " + screen, [&](const ShownWindow& shown) { return shown.screen == screen; });
}

ShownWindow WindowUser::wait_for_item(const std::string& id) const {
  return wait_for("the item " + id, [&](const ShownWindow& shown) { return shown.offers(id); });
}

void WindowUser::wait_for_frames(std::uint64_t count) const {
  const std::uint64_t now = wait_for("a frame", [](const ShownWindow&) { return true; }).frames;
  wait_for(std::to_string(count) + " more frames",
           [&](const ShownWindow& shown) { return shown.frames >= now + count; });
}

void WindowUser::click(const std::string& id) const {
  const ShownWindow shown = wait_for_item(id);
  const Area area = shown.find(id)->area;
  display_.focus(shown.window);
  display_.click(shown.area.x + area.x + area.width / 2, shown.area.y + area.y + area.height / 2);
}

void WindowUser::double_click(const std::string& id) const {
  const ShownWindow shown = wait_for_item(id);
  const Area area = shown.find(id)->area;
  display_.focus(shown.window);
  display_.double_click(shown.area.x + area.x + area.width / 2, shown.area.y + area.y + area.height / 2);
}

void WindowUser::hold(const std::string& key) const {
  display_.focus(wait_for("a window", [](const ShownWindow&) { return true; }).window);
  display_.hold(key);
}

void WindowUser::tab_to(const std::string& id, const std::string& key) const {
  ShownWindow shown = wait_for_item(id);
  for (std::size_t presses = 0; shown.focus != id; ++presses) {
    if (presses > shown.items.size()) {
      throw std::runtime_error(key + " does not lead to the item " + id);
    }
    press(key);
    shown = wait_for("another focus than " + shown.focus,
                     [&](const ShownWindow& next) { return next.focus != shown.focus; });
  }
}

void WindowUser::press(const std::string& key) const {
  display_.focus(wait_for("a window", [](const ShownWindow&) { return true; }).window);
  display_.press(key);
}

void WindowUser::fill(const std::string& id, const std::string& text) const {
  click(id);
  wait_for("the focus on " + id, [&](const ShownWindow& shown) { return shown.focus == id; });
  display_.press("ctrl+a");
  display_.type(text);
  wait_for("the text " + text, [&](const ShownWindow& shown) { return shown.find(id)->text == text; });
}

void WindowUser::ask_to_close() const {
  display_.ask_to_close(wait_for("a window", [](const ShownWindow&) { return true; }).window);
}

void WindowUser::picture(const std::string& name) const {
  const ShownWindow shown = wait_for("a window", [](const ShownWindow&) { return true; });
  display_.picture(shown.area, std::filesystem::path(RAVOK_PICTURES) / (name + ".png"));
}

WindowProgram::WindowProgram(Display& display, ProgramStart start)
    : WindowUser(display,
                 [this] {
                   return program_.has_ended() ? std::optional(std::to_string(program_.wait()) + " " + errors())
                                               : std::nullopt;
                 }),
      program_(with_file(std::move(start), root_ / "errors")) {}

// A sanitizer may have more to say than a pipe has room for that nobody reads meanwhile.
ProgramStart WindowProgram::with_file(ProgramStart start, const std::filesystem::path& errors) {
  start.errors_path = errors;
  return start;
}

Environment window_environment(const Display& display, const std::filesystem::path& home, Environment more) {
  more.insert({{"DISPLAY", display.name()},
               {"HOME", home},
               {"PATH", "/usr/bin:/bin"},
               {"LC_ALL", "C.UTF-8"},
               {"XDG_CACHE_HOME", RAVOK_WINDOW_CACHE}});
#if defined(__SANITIZE_ADDRESS__)
  // The toolkit is compiled without what the quick way to see who has allocated needs.
  more.insert({{"ASAN_OPTIONS", "verify_asan_link_order=0:fast_unwind_on_malloc=0"},
               {"LSAN_OPTIONS", "print_suppressions=0:suppressions=" RAVOK_TOOLKIT_LEAKS}});
#endif
  return more;
}

WindowPlace::WindowPlace(const DisplayForm& form) : display(form) {
  // Folders that every user's home has. Setup makes them where they are missing, and leaves them.
  place.root().directory("home/.local/share");
  place.package.featured_game.reset();
  publish();
}

void WindowPlace::publish() {
  place.republish();
  const std::filesystem::path program =
      place.root().write("installer/ravok-install-gui", with_seal(bytes_of(RAVOK_INSTALL_GUI), place.seal()));
  std::filesystem::permissions(program, std::filesystem::perms(0755));
  before = names();
}

Environment WindowPlace::environment(Environment more) const {
  return window_environment(display, place.home(), std::move(more));
}

std::unique_ptr<WindowProgram> WindowPlace::start(const Environment& more, const Arguments& arguments) {
  Arguments all = {"--package", place.package_directory(), "--data-dir", place.data()};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return start_program(installer(), all, more);
}

std::unique_ptr<WindowProgram> WindowPlace::start_held(const HeldCall& held, const Arguments& arguments) {
  return start(held.environment(), arguments);
}

std::unique_ptr<WindowProgram> WindowPlace::start_program(const std::string& program, const Arguments& arguments,
                                                          const Environment& more) {
  return std::make_unique<WindowProgram>(
      display, ProgramStart{.program = program, .arguments = arguments, .environment = environment(more)});
}

void WindowPlace::expect_installed() const {
  const NativeInstallStatus status = NativeInstaller::status(place.data());
  EXPECT_TRUE(status.installed);
  EXPECT_FALSE(status.incomplete);
  EXPECT_FALSE(std::filesystem::exists(place.paths().staging));
  // A repair looks at every file, and replaces the parts in which it finds one damaged.
  EXPECT_EQ(place.repair().replaced, std::vector<std::string>());
}

void WindowPlace::expect_nothing_left() const { EXPECT_EQ(names(), before); }

std::vector<std::string> WindowPlace::names() const { return place.root().names(); }

}  // namespace ravok::testing
