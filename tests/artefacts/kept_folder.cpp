#include "artefacts/kept_folder.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

#include "domain/crypto.hpp"
#include "support/bytes_of.hpp"
#include "support/fast_volume.hpp"
#include "support/process.hpp"

namespace ravok::testing {
namespace {

// No record that names a place is larger.
constexpr std::uint64_t largest_named_file = 65'536;

std::string run_tool(const std::string& program, const std::vector<std::string>& arguments) {
  const ProgramResult result = run_program({program, arguments, {{"PATH", "/usr/bin:/bin"}, {"LC_ALL", "C"}}, ""});
  if (result.exit_code != 0) {
    throw std::runtime_error(program + " has failed: " + result.errors);
  }
  return result.output;
}

std::vector<int> numbers_of(const std::string& version) {
  std::vector<int> numbers;
  std::istringstream text(version);
  for (std::string number; std::getline(text, number, '.');) {
    numbers.push_back(std::stoi(number));
  }
  return numbers;
}

void write_over(const std::filesystem::path& file, const std::string& bytes) {
  const auto time = std::filesystem::last_write_time(file);
  std::ofstream(file, std::ios::binary) << bytes;
  std::filesystem::last_write_time(file, time);
}

// A ledger of shortcuts, with where the files of its rows lie now.
struct Ledger {
  std::filesystem::path file;
  std::map<std::size_t, std::filesystem::path> unchanged;  // of the rows whose files are as they were recorded
};

Ledger read_ledger(const std::filesystem::path& file, const std::filesystem::path& folder, std::string_view from) {
  Ledger ledger{file, {}};
  const Json entries = Json::parse(bytes_of(file)).at("entries");
  for (std::size_t row = 0; row < entries.size(); ++row) {
    const auto path = entries[row].at("path").get<std::string>();
    if (!path.starts_with(std::string(from) + "/")) {
      continue;
    }
    const std::filesystem::path shortcut = folder / path.substr(from.size() + 1);
    if (std::filesystem::exists(shortcut) && digest(bytes_of(shortcut), "sha256") == entries[row].at("sha256")) {
      ledger.unchanged.emplace(row, shortcut);
    }
  }
  return ledger;
}

void follow_shortcuts(const Ledger& ledger) {
  Json document = Json::parse(bytes_of(ledger.file));
  for (const auto& [row, shortcut] : ledger.unchanged) {
    document["entries"][row]["sha256"] = digest(bytes_of(shortcut), "sha256");
  }
  write_over(ledger.file, document.dump());
}

void rename_in_file(const std::filesystem::path& file, std::string_view from, std::string_view to) {
  std::string bytes = bytes_of(file);
  bool found = false;
  for (std::size_t at = bytes.find(from); at != std::string::npos; at = bytes.find(from, at + to.size())) {
    bytes.replace(at, from.size(), to);
    found = true;
  }
  if (found) {
    write_over(file, bytes);
  }
}

}  // namespace

std::vector<KeptVersion> kept_versions() {
  const char* const chosen = std::getenv("RAVOK_ARTEFACTS");
  const std::filesystem::path folder = chosen != nullptr ? chosen : RAVOK_KEPT_ARTEFACTS;
  std::vector<KeptVersion> versions;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.is_directory()) {
      versions.push_back({entry.path().filename(), entry.path()});
    }
  }
  if (versions.empty()) {
    throw std::runtime_error("No artefacts are kept in " + folder.native());
  }
  std::sort(versions.begin(), versions.end(), [](const KeptVersion& first, const KeptVersion& second) {
    return is_older(first.version, second.version);
  });
  return versions;
}

bool is_older(const std::string& version, const std::string& other) { return numbers_of(version) < numbers_of(other); }

std::vector<std::string> kept_names(const KeptVersion& version, const std::string& artefact) {
  std::istringstream list(run_tool("/bin/tar", {"-tzf", version.archive(artefact)}));
  std::vector<std::string> names;
  for (std::string name; std::getline(list, name);) {
    names.push_back(name.starts_with("./") ? name.substr(2) : name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

void rename_in_files(const std::filesystem::path& folder, std::string_view from, std::string_view to) {
  std::vector<std::filesystem::path> files;
  std::vector<Ledger> ledgers;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    if (entry.is_symlink() || !entry.is_regular_file() || entry.file_size() > largest_named_file) {
      continue;
    }
    files.push_back(entry.path());
    if (entry.path().filename() == "shortcuts.json") {
      ledgers.push_back(read_ledger(entry.path(), folder, from));
    }
  }
  for (const std::filesystem::path& file : files) {
    rename_in_file(file, from, to);
  }
  for (const Ledger& ledger : ledgers) {
    follow_shortcuts(ledger);
  }
}

void copy_artefact(const std::filesystem::path& from, const std::filesystem::path& to) {
  run_tool("/bin/cp", {"-a", from, to});
  rename_in_files(to, from.native(), to.native());
}

KeptFolder::KeptFolder(const KeptVersion& version, const std::string& artefact) : root_(fast_volume()) {
  run_tool("/bin/tar", {"-xpzf", version.archive(artefact), "--no-same-owner", "-C", root_.path()});
  rename_in_files(root_.path(), kept_root, root_.path().native());
}

}  // namespace ravok::testing
