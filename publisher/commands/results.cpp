#include "publisher/commands/results.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "domain/display_text.hpp"
#include "domain/paths.hpp"
#include "platform/file/file_digest.hpp"
#include "platform/file/tree_walk.hpp"
#include "publisher/commands/time_left.hpp"
#include "publisher/repository/repository_time.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_entries = 65'536;  // of a package that has been proved
constexpr std::uint64_t fair_root_days = 730;

}  // namespace

CLI::Validator in_range(std::int64_t least, std::int64_t most) {
  const std::string from = std::to_string(least);
  const std::string to = std::to_string(most);
  return {[bounds = CLI::Range(least, most), refusal = " not in range " + from + " to " + to](const std::string& text) {
            return bounds(text).empty() ? std::string() : "Value " + text + refusal;
          },
          "INT in [" + from + " - " + to + "]"};
}

std::string json_text(const std::string& text) { return is_utf8(text) ? text : shown_text(text); }

void tell_root_expiry(TufTime expires, TufTime at, CommandResult& result) {
  const std::string text = tuf_time_text(expires);
  result.lines.push_back("Can be installed until " + text + ", when its root document expires");
  result.document["root_expires"] = text;
  if (expires < days_after(at, fair_root_days)) {
    result.complaints.push_back("The root document in the package expires in " + time_left(expires, at) +
                                ", and nobody can install it from then on. Take one that lasts two years or more.");
  }
}

Json described_file(const std::filesystem::path& path) {
  return {{"path", json_text(path_utf8(path))},
          {"length", std::filesystem::file_size(path)},
          {"sha256", digest_file(path, "sha256")}};
}

Json described_folder(const std::filesystem::path& path) {
  std::vector<std::string> names = names_in(path, maximum_entries);
  std::sort(names.begin(), names.end());
  Json files = Json::array();
  for (const std::string& name : names) {
    Json file = described_file(path / path_from_utf8(name));
    file.erase("path");
    file["name"] = json_text(name);
    files.push_back(std::move(file));
  }
  return {{"path", json_text(path_utf8(path))}, {"files", std::move(files)}};
}

}  // namespace ravok
