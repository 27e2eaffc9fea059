// A ledger of shortcuts is refused by one code, or is within its bounds; and whatever it says, a removal by it takes
// no file but one whose digest it knows. In the input an "@" stands for the directory that the shortcuts lie in.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "platform/shortcuts.hpp"
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

void check_removal(const ravok::testing::TemporaryRoot& root, const std::vector<ravok::OwnedShortcut>& rows) {
  const std::filesystem::path ours = root.write("desktop/ours", content);
  const std::filesystem::path link = root / "desktop/link";
  if (!std::filesystem::is_symlink(link)) {
    std::filesystem::create_symlink("ours", link);
  }
  const bool known = std::any_of(rows.begin(), rows.end(), [&](const ravok::OwnedShortcut& row) {
    return row.sha256 == ravok::digest(content, "sha256");
  });
  const ravok::ShortcutRemoval removal = ravok::remove_owned_native_shortcuts(root / "data");
  must_hold(known || (removal.removed.empty() && std::filesystem::exists(ours)), "only what is known is removed");
  must_hold(std::filesystem::is_symlink(link), "a link is never removed");
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
  must_hold(rows->size() <= 128, "the rows are counted");
  // Nothing of the machine's own is at stake, whatever the input names.
  if (std::all_of(rows->begin(), rows->end(), [&](const ravok::OwnedShortcut& row) {
        return row.path.lexically_normal().native().starts_with(directory + "/");
      })) {
    check_removal(root, *rows);
  }
  return 0;
}
