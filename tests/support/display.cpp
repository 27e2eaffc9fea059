#include "support/display.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xcb/xcb.h>
#include <zlib.h>

#include "platform/file/handle.hpp"
#include "platform/posix/native.hpp"
#include "support/icon_builder.hpp"
#include "support/process.hpp"

namespace ravok::testing {
namespace {

constexpr std::uint32_t longest_property = 1 << 20;  // words of 4 bytes

struct Freed {
  void operator()(void* memory) const { std::free(memory); }
};
template <typename Reply>
using Owned = std::unique_ptr<Reply, Freed>;

template <typename Reply>
Owned<Reply> owned(Reply* reply) {
  return Owned<Reply>(reply);
}

// Runs in the child. The server ends with the test, however that ends.
void become_server(const DisplayForm& form, pid_t test, int reports) {
  const std::string screen = std::to_string(form.width) + "x" + std::to_string(form.height) + "x24";
  const std::string dpi = std::to_string(form.dpi);
  const std::string descriptor = std::to_string(reports);
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || getppid() != test || fcntl(reports, F_SETFD, 0) != 0 ||
      dup2(null, 0) < 0 || dup2(null, 1) < 0 || dup2(null, 2) < 0) {
    return;
  }
  execlp("Xvfb", "Xvfb", "-displayfd", descriptor.c_str(), "-screen", "0", screen.c_str(), "-dpi", dpi.c_str(),
         "-nolisten", "tcp", "-noreset", nullptr);
}

std::string read_line(int reader) {
  std::string line;
  char c = 0;
  while (posix::retry_interrupted([&] { return read(reader, &c, 1); }) == 1 && c != '\n') {
    line += c;
  }
  return line;
}

std::string deflated(std::string_view bytes) {
  uLongf size = compressBound(bytes.size());
  std::string stream(size, '\0');
  if (compress2(reinterpret_cast<Bytef*>(stream.data()), &size, reinterpret_cast<const Bytef*>(bytes.data()),
                bytes.size(), Z_BEST_COMPRESSION) != Z_OK) {
    throw std::runtime_error("Cannot compress a picture");
  }
  stream.resize(size);
  return stream;
}

std::string png_of(std::string_view pixels, std::uint32_t width, std::uint32_t height) {
  std::string rows;
  rows.reserve((std::size_t{width} * 3 + 1) * height);
  for (std::size_t at = 0; at < pixels.size(); at += 4) {
    if (at % (std::size_t{width} * 4) == 0) {
      rows += '\0';
    }
    rows.append({pixels[at + 2], pixels[at + 1], pixels[at]});
  }
  return png_signature + png_chunk("IHDR", big_number(width) + big_number(height) + std::string("\x08\x02\0\0\0", 5)) +
         png_chunk("IDAT", deflated(rows)) + png_chunk("IEND", "");
}

std::int64_t number_at(const Json& item, const char* key) { return item.at(key).get<std::int64_t>(); }

ShownItem item_of(const Json& item) {
  return {text_at(item, "id"),
          text_at(item, "kind"),
          text_at(item, "text"),
          {number_at(item, "x"), number_at(item, "y"), number_at(item, "width"), number_at(item, "height")},
          item.at("checked").get<bool>()};
}

}  // namespace

const ShownItem* ShownWindow::find(const std::string& id) const {
  const auto found = std::find_if(items.begin(), items.end(), [&](const ShownItem& item) { return item.id == id; });
  return found == items.end() ? nullptr : &*found;
}

bool ShownWindow::offers(const std::string& id) const { return find(id) != nullptr; }

std::string ShownWindow::texts() const {
  std::string texts;
  for (const ShownItem& item : items) {
    texts += item.text + "\n";
  }
  return texts;
}

// The test's own connection to the server.
struct Display::Connection {
  explicit Connection(const std::string& name) : server(xcb_connect(name.c_str(), nullptr)) {
    if (xcb_connection_has_error(server) != 0) {
      xcb_disconnect(server);
      throw std::runtime_error("Cannot reach the X server of a test");
    }
    root = xcb_setup_roots_iterator(xcb_get_setup(server)).data->root;
  }
  ~Connection() { xcb_disconnect(server); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  xcb_atom_t atom(std::string_view name) const {
    const auto reply = owned(xcb_intern_atom_reply(
        server, xcb_intern_atom(server, 0, static_cast<std::uint16_t>(name.size()), name.data()), nullptr));
    return reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
  }

  // A property's bytes; nothing where it is missing.
  std::optional<std::string> property(xcb_window_t window, xcb_atom_t name) const {
    const auto reply = owned(xcb_get_property_reply(
        server, xcb_get_property(server, 0, window, name, XCB_ATOM_ANY, 0, longest_property), nullptr));
    if (!reply || reply->type == XCB_ATOM_NONE) {
      return std::nullopt;
    }
    return std::string(static_cast<const char*>(xcb_get_property_value(reply.get())),
                       static_cast<std::size_t>(xcb_get_property_value_length(reply.get())));
  }

  std::string title(xcb_window_t window) const {
    return property(window, net_name).value_or(property(window, XCB_ATOM_WM_NAME).value_or(""));
  }

  // A window's place on the screen; nothing where it is not shown.
  std::optional<Area> place(xcb_window_t window) const {
    const auto attributes =
        owned(xcb_get_window_attributes_reply(server, xcb_get_window_attributes(server, window), nullptr));
    const auto geometry = owned(xcb_get_geometry_reply(server, xcb_get_geometry(server, window), nullptr));
    const auto origin =
        owned(xcb_translate_coordinates_reply(server, xcb_translate_coordinates(server, window, root, 0, 0), nullptr));
    if (!attributes || attributes->map_state != XCB_MAP_STATE_VIEWABLE || !geometry || !origin) {
      return std::nullopt;
    }
    return Area{origin->dst_x, origin->dst_y, geometry->width, geometry->height};
  }

  // All windows below this one.
  std::vector<xcb_window_t> below(xcb_window_t window) const {
    std::vector<xcb_window_t> all;
    const auto tree = owned(xcb_query_tree_reply(server, xcb_query_tree(server, window), nullptr));
    if (tree) {
      const xcb_window_t* const children = xcb_query_tree_children(tree.get());
      for (int i = 0; i < xcb_query_tree_children_length(tree.get()); ++i) {
        all.push_back(children[i]);
        const std::vector<xcb_window_t> deeper = below(children[i]);
        all.insert(all.end(), deeper.begin(), deeper.end());
      }
    }
    return all;
  }

  // Waits until the server has done all that was asked of it.
  void finish() const { owned(xcb_get_input_focus_reply(server, xcb_get_input_focus(server), nullptr)); }

  xcb_connection_t* server;
  xcb_window_t root = 0;
  const xcb_atom_t shown = atom("_RAVOK_SCREEN");
  const xcb_atom_t net_name = atom("_NET_WM_NAME");
};

Display::Display(const DisplayForm& form) : form_(form) {
  std::array<int, 2> ends;
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw std::runtime_error("Cannot make a pipe for a test");
  }
  const Handle reader(ends[0]);
  Handle writer(ends[1]);
  const pid_t test = getpid();
  process_ = fork();
  if (process_ == 0) {
    become_server(form, test, writer.get());
    _exit(127);
  }
  writer.reset();
  // It tells its number once clients can come.
  const std::string number = process_ > 0 ? read_line(reader.get()) : std::string();
  if (number.empty()) {
    crash();
    throw std::runtime_error("Cannot start Xvfb");
  }
  name_ = ":" + number;
  try {
    connection_ = std::make_unique<Connection>(name_);
  } catch (...) {
    crash();
    throw;
  }
  // Desktops tell their scale in this property.
  const std::string resources = "Xft.dpi:\t" + std::to_string(form.dpi) + "\n";
  xcb_change_property(connection_->server, XCB_PROP_MODE_REPLACE, connection_->root, XCB_ATOM_RESOURCE_MANAGER,
                      XCB_ATOM_STRING, 8, static_cast<std::uint32_t>(resources.size()), resources.data());
  connection_->finish();
}

Display::~Display() {
  connection_.reset();
  if (process_ > 0) {
    kill(process_, SIGTERM);
    posix::retry_interrupted([&] { return waitpid(process_, nullptr, 0); });
  }
}

void Display::crash() {
  if (process_ <= 0) {
    return;
  }
  kill(process_, SIGKILL);
  posix::retry_interrupted([&] { return waitpid(process_, nullptr, 0); });
  process_ = 0;
  // Nobody else removes what it leaves.
  if (!name_.empty()) {
    unlink(("/tmp/.X" + name_.substr(1) + "-lock").c_str());
    unlink(("/tmp/.X11-unix/X" + name_.substr(1)).c_str());
  }
}

std::vector<ShownWindow> Display::windows() const {
  std::vector<ShownWindow> windows;
  for (const xcb_window_t window : connection_->below(connection_->root)) {
    const std::optional<std::string> told = connection_->property(window, connection_->shown);
    const std::optional<Area> area = connection_->place(window);
    if (!told || !area) {
      continue;
    }
    const Json document = parse_json(*told, std::size_t{longest_property} * 4);
    ShownWindow shown = {window,
                         connection_->title(window),
                         *area,
                         text_at(document, "screen"),
                         document.at("frames").get<std::uint64_t>(),
                         text_at(document, "focus"),
                         {}};
    for (const Json& item : document.at("items")) {
      shown.items.push_back(item_of(item));
    }
    windows.push_back(std::move(shown));
  }
  return windows;
}

std::vector<std::string> Display::titles() const {
  std::vector<std::string> titles;
  for (const xcb_window_t window : connection_->below(connection_->root)) {
    const std::string title = connection_->place(window) ? connection_->title(window) : std::string();
    if (!title.empty()) {
      titles.push_back(title);
    }
  }
  return titles;
}

void Display::focus(std::uint32_t window) const {
  xcb_set_input_focus(connection_->server, XCB_INPUT_FOCUS_PARENT, window, XCB_CURRENT_TIME);
  connection_->finish();
}

void Display::ask_to_close(std::uint32_t window) const {
  xcb_client_message_event_t message = {};
  message.response_type = XCB_CLIENT_MESSAGE;
  message.format = 32;
  message.window = window;
  message.type = connection_->atom("WM_PROTOCOLS");
  message.data.data32[0] = connection_->atom("WM_DELETE_WINDOW");
  message.data.data32[1] = XCB_CURRENT_TIME;
  xcb_send_event(connection_->server, 0, window, XCB_EVENT_MASK_NO_EVENT, reinterpret_cast<const char*>(&message));
  connection_->finish();
}

namespace {

void do_input(const std::string& display, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "xdotool");
  const ProgramResult result = run_program(
      {"/usr/bin/env", std::move(arguments), {{"DISPLAY", display}, {"PATH", "/usr/local/bin:/usr/bin:/bin"}}, ""});
  if (result.exit_code != 0) {
    throw std::runtime_error("xdotool: " + result.errors);
  }
}

}  // namespace

void Display::click(std::int64_t x, std::int64_t y) const {
  // From elsewhere, so that it is no second click of a double click.
  do_input(name_, {"mousemove", "0", "0", "mousemove", std::to_string(x), std::to_string(y), "click", "1"});
}

void Display::double_click(std::int64_t x, std::int64_t y) const {
  do_input(name_, {"mousemove", "0", "0", "mousemove", std::to_string(x), std::to_string(y), "click", "--repeat", "2",
                   "--delay", "0", "1"});
}

void Display::point_at(std::int64_t x, std::int64_t y) const {
  do_input(name_, {"mousemove", std::to_string(x), std::to_string(y)});
}

void Display::press(const std::string& key) const { do_input(name_, {"key", "--delay", "0", key}); }

void Display::hold(const std::string& key) const { do_input(name_, {"keydown", "--delay", "0", key}); }

void Display::let_go(const std::string& key) const { do_input(name_, {"keyup", "--delay", "0", key}); }

void Display::type(const std::string& text) const { do_input(name_, {"type", "--delay", "0", "--", text}); }

std::string Display::pixels(const Area& area) const {
  const auto image = owned(xcb_get_image_reply(
      connection_->server,
      xcb_get_image(connection_->server, XCB_IMAGE_FORMAT_Z_PIXMAP, connection_->root,
                    static_cast<std::int16_t>(area.x), static_cast<std::int16_t>(area.y),
                    static_cast<std::uint16_t>(area.width), static_cast<std::uint16_t>(area.height), ~std::uint32_t{0}),
      nullptr));
  std::string pixels;
  if (image) {
    pixels.assign(reinterpret_cast<const char*>(xcb_get_image_data(image.get())),
                  static_cast<std::size_t>(xcb_get_image_data_length(image.get())));
  }
  if (pixels.size() != static_cast<std::size_t>(area.width * area.height * 4)) {
    throw std::runtime_error("Cannot take a picture of the screen");
  }
  return pixels;
}

std::uint32_t Display::color_at(std::int64_t x, std::int64_t y) const {
  const std::string pixel = pixels({x, y, 1, 1});
  const auto byte = [&](std::size_t at) { return std::uint32_t{static_cast<unsigned char>(pixel[at])}; };
  return byte(2) << 16 | byte(1) << 8 | byte(0);
}

std::size_t Display::property_size(std::uint32_t window, const std::string& name) const {
  return connection_->property(window, connection_->atom(name)).value_or("").size();
}

void Display::picture(const Area& area, const std::filesystem::path& path) const {
  const std::int64_t x = std::max<std::int64_t>(area.x, 0);
  const std::int64_t y = std::max<std::int64_t>(area.y, 0);
  const Area seen = {x, y, std::min(area.right(), screen().right()) - x,
                     std::min(area.bottom(), screen().bottom()) - y};
  const std::string png =
      png_of(pixels(seen), static_cast<std::uint32_t>(seen.width), static_cast<std::uint32_t>(seen.height));
  std::filesystem::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << png;
  file.close();
  if (!file) {
    throw std::runtime_error("Cannot write a picture");
  }
}

void Display::watch(std::uint32_t window) const {
  const std::uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
  xcb_change_window_attributes(connection_->server, window, XCB_CW_EVENT_MASK, &events);
  connection_->finish();
}

std::vector<std::uint32_t> Display::changes() const {
  std::vector<std::uint32_t> changes;
  while (const auto event = owned(xcb_poll_for_event(connection_->server))) {
    if ((event->response_type & 0x7f) == XCB_PROPERTY_NOTIFY) {
      const auto& change = reinterpret_cast<const xcb_property_notify_event_t&>(*event);
      if (change.atom == connection_->shown && change.state == XCB_PROPERTY_NEW_VALUE) {
        changes.push_back(change.time);
      }
    }
  }
  return changes;
}

}  // namespace ravok::testing
