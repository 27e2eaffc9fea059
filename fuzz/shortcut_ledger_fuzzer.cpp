// A ledger of shortcuts is refused with one code, or every row of it is one that a creation could have written.
// Whatever it says, a removal takes no file but one whose digest the ledger knows, and none through a user's link. In
// the input, "@" stands for the directory that the shortcuts lie in.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "platform/shortcut/shortcuts.hpp"
#include "property.hpp"
#include "support/temporary_root.hpp"

namespace {

using ravok::fuzz::must_hold;

constexpr const char* content = "a shortcut";

std::string with_directory(std::string_view input, const std::string& directory) {
  std::string text;
  for (const char c : input) {
    if (c == '@') {
      text += directory;
    } else {
      text += c;
    }
  }
  return text;
}

std::optional<std::vector<ravok::OwnedShortcut>> rows_of(const std::filesystem::path& root) {
  try {
    return ravok::owned_native_shortcuts(root);
  } catch (const ravok::Error& refusal) {
    must_hold(refusal.code == "shortcut_ledger", "a ledger is refused by its own code");
    return std::nullopt;
  }
}

void check_rows(const std::filesystem::path& data, const std::vector<ravok::OwnedShortcut>& rows) {
  must_hold(rows.size() <= 128, "the rows are counted");
  std::set<std::string> paths;
  for (const ravok::OwnedShortcut& row : rows) {
    must_hold(row.path.is_absolute() && row.path == row.path.lexically_normal(), "a path is absolute and normal");
    must_hold(row.path.extension() == ravok::native_shortcut_extension(), "a path is of this system's form");
    must_hold(!row.path.native().starts_with(data.native() + "/"), "a path leads out of the data folder");
    must_hold(paths.insert(row.path).second, "no path stands twice");
    must_hold(!row.name.empty() && row.name.size() <= 512, "a name is bounded");
    must_hold(row.game.size() <= 80, "a game is bounded");
    must_hold(row.sha256.size() == 64 && row.sha256.find_first_not_of("0123456789abcdef") == std::string::npos,
              "a digest is one");
  }
}

void make_link(const std::filesystem::path& target, const std::filesystem::path& link) {
  if (!std::filesystem::is_symlink(link)) {
    std::filesystem::create_symlink(target, link);
    // A link of user 0 may count as the system's own, so it is given to another user.
    must_hold(!ravok::testing::is_root() || lchown(link.c_str(), 65534, 65534) == 0, "a link is a user's");
  }
}

void check_removal(const ravok::testing::TemporaryRoot& root, const std::vector<ravok::OwnedShortcut>& rows) {
  const std::string name = "ours" + std::string(ravok::native_shortcut_extension());
  const std::filesystem::path ours = root.write("desktop/" + name, content);
  const std::filesystem::path far = root.write("elsewhere/" + name, content);
  const std::filesystem::path link = root / ("desktop/link" + std::string(ravok::native_shortcut_extension()));
  make_link(name, link);
  make_link("../elsewhere", root / "desktop/far");
  const bool known = std::any_of(rows.begin(), rows.end(), [&](const ravok::OwnedShortcut& row) {
    return row.path == ours && row.sha256 == ravok::digest(content, "sha256");
  });
  const ravok::ShortcutRemoval removal = ravok::remove_owned_native_shortcuts(root / "data");
  must_hold(known == !std::filesystem::exists(ours), "what is known is removed, and nothing else");
  must_hold(removal.removed.size() == (known ? 1u : 0u), "what is removed is told");
  must_hold(std::filesystem::is_symlink(link), "a link is never removed");
  must_hold(std::filesystem::exists(far), "nothing is removed through a link");
  must_hold(removal.removed.size() + removal.changed.size() <= rows.size(), "every row is told of once");
  must_hold(rows_of(root / "data").value().empty(), "a removal empties the ledger");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const ravok::testing::TemporaryRoot root;
  const std::filesystem::path native = root.directory("data/native");
  const std::string directory = root.directory("desktop");
  must_hold(chmod(native.c_str(), 0700) == 0, "the ledger's directory is private");
  root.write("data/native/shortcuts.json",
             with_directory(std::string_view(reinterpret_cast<const char*>(data), size), directory));
  const auto rows = rows_of(root / "data");
  if (!rows) {
    return 0;
  }
  check_rows(root / "data", *rows);
  // Removes files in the test's own directory only, so that no input can reach any of the machine's.
  if (std::all_of(rows->begin(), rows->end(), [&](const ravok::OwnedShortcut& row) {
        return row.path.lexically_normal().native().starts_with(directory + "/");
      })) {
    check_removal(root, *rows);
  }
  return 0;
}
