#include "publisher/single_file_installer.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/status.hpp"
#include "platform/file/tree_walk.hpp"

namespace ravok {
namespace {

constexpr const char* invalid_program = "invalid_installer";
constexpr std::size_t maximum_package_entries = 65'536;  // of a package that has been proved

// What stands behind each mark of an image, where a slot has its place.
std::vector<std::string_view> texts_behind_marks(std::string_view image) {
  std::vector<std::string_view> texts;
  for (std::size_t at = image.find(appended_package_mark); at != std::string_view::npos;
       at = image.find(appended_package_mark, at + 1)) {
    texts.push_back(image.substr(at + appended_package_mark.size(), appended_place_characters));
  }
  return texts;
}

bool looks_like_place(std::string_view text) {
  const auto fitting = std::count_if(text.begin(), text.end(), [](char c) { return is_lower_hex(c) || c == '-'; });
  return text.size() == appended_place_characters &&
         static_cast<std::size_t>(fitting) >= appended_place_characters / 4 * 3;
}

// What lies in the slots of an image, damaged ones among them. The mark alone makes no slot: this program's own image
// has it too, with something else behind it, of which less looks like a place than damage leaves of one.
std::vector<std::string_view> places_in(std::string_view image) {
  std::vector<std::string_view> places;
  for (const std::string_view text : texts_behind_marks(image)) {
    if (looks_like_place(text)) {
      places.push_back(text);
    }
  }
  return places;
}

// The files of a package, by name, so that the same package always gives the same installer.
std::vector<AppendedFile> files_of(const std::filesystem::path& package) {
  std::vector<AppendedFile> files;
  for (const std::string& name : names_in(package, maximum_package_entries)) {
    const auto status = link_status_of(package / path_from_utf8(name));
    require(status && is_file(*status), "content_mismatch", "Initial package resource changed: " + name);
    files.push_back({name, status->size});
  }
  std::sort(files.begin(), files.end(), [](const auto& one, const auto& other) { return one.name < other.name; });
  return files;
}

void append_file(const std::filesystem::path& package, const AppendedFile& file, OutputFile& output,
                 const ProgressCallback& progress) {
  std::uint64_t left = file.length;
  read_in_pieces(package / path_from_utf8(file.name), [&](std::string_view piece) {
    require(piece.size() <= left, "content_mismatch", "Initial package resource changed: " + file.name);
    left -= piece.size();
    output.write(piece);
    report(progress, piece.size(), 0);
  });
  require(left == 0, "content_mismatch", "Initial package resource changed: " + file.name);
}

}  // namespace

void require_place_for_package(std::string_view image) {
  require(places_in(image).size() == 1, invalid_program, "The program has no place for a package of its own");
}

std::string with_appended_place(std::string image, const AppendedPlace& place) {
  require_place_for_package(image);
  const std::size_t at = static_cast<std::size_t>(places_in(image).front().data() - image.data());
  image.replace(at, appended_place_characters, appended_place_text(place));
  return image;
}

std::optional<AppendedPlace> find_appended_place(std::string_view front) {
  for (const std::string_view text : places_in(front)) {
    if (auto place = place_in_slot(text)) {
      return place;
    }
  }
  return std::nullopt;
}

void require_bare_program(std::string_view image) {
  for (const std::string_view text : texts_behind_marks(image)) {
    require(!place_in_slot(text), invalid_program, "The program carries a package already; give it as it was built");
  }
}

AppendedPlace write_single_file_installer(const std::string& program, const std::filesystem::path& package,
                                          OutputFile& output, const ProgressCallback& progress) {
  const std::vector<AppendedFile> files = files_of(package);
  const std::string index = package_index_text(files);
  AppendedPlace place;
  place.program_bytes = program.size();
  place.index_bytes = index.size();
  place.index_sha256 = digest(index, "sha256");
  place.file_bytes = place.program_bytes + place.index_bytes;
  for (const AppendedFile& file : files) {
    require(file.length <= UINT64_MAX - place.file_bytes, "size_limit", "Initial package payload is too large");
    place.file_bytes += file.length;
  }
  output.write(with_appended_place(program, place));
  output.write(index);
  for (const AppendedFile& file : files) {
    append_file(package, file, output, progress);
  }
  output.make_program();
  return place;
}

}  // namespace ravok
