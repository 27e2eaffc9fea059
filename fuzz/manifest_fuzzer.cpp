// A manifest that is accepted keeps every bound and every path rule, which a second, naive check confirms, and is
// accepted again, unchanged, when it is written out.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "domain/error.hpp"
#include "domain/manifest.hpp"
#include "domain/paths.hpp"
#include "property.hpp"

namespace {

using ravok::fuzz::must_hold;

std::string folded(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  return text;
}

void check(const ravok::SnapshotManifest& manifest) {
  std::set<std::string> files;
  std::map<std::string, std::string> directories;
  std::uint64_t total = 0;
  for (const auto& [path, file] : manifest.files) {
    ravok::validate_relative_path(path, true);
    must_hold(std::all_of(path.begin(), path.end(), [](char c) { return c >= 32 && c <= 126; }), "paths are ASCII");
    must_hold(files.insert(folded(path)).second, "no two paths are equal but for case");
    for (std::size_t end = path.find('/'); end != std::string::npos; end = path.find('/', end + 1)) {
      const std::string prefix = path.substr(0, end);
      must_hold(directories.try_emplace(folded(prefix), prefix).first->second == prefix,
                "no two directories differ only in case");
    }
    must_hold(file.sha256.size() == 64, "every file has a digest");
    total += file.length;
    must_hold(total <= std::uint64_t{1} << 42, "the files stay within their bound");
  }
  for (const auto& [directory, spelling] : directories) {
    must_hold(!files.contains(directory), "no file stands where another needs a directory");
  }
  must_hold(total == manifest.expanded_length, "the sum is the sum");
  must_hold(!manifest.files.empty() && manifest.files.size() <= 100000, "the files are counted");
  must_hold(manifest.archive_length >= 1 && manifest.archive_length <= std::uint64_t{1} << 42,
            "the archive is bounded");
  must_hold(manifest.files.at(manifest.executable).executable, "the executable is one");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  try {
    const ravok::SnapshotManifest manifest = ravok::SnapshotManifest::parse(ravok::parse_json(text, 1 << 20));
    check(manifest);
    const std::string written = manifest.raw.dump();
    const ravok::SnapshotManifest again = ravok::SnapshotManifest::parse(ravok::parse_json(written, written.size()));
    must_hold(again.raw == manifest.raw && again.files.size() == manifest.files.size(), "it reads the same again");
  } catch (const ravok::Error&) {
    // A refusal; every other exception is a defect and ends the run.
  }
  return 0;
}
