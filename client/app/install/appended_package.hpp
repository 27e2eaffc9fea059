// An installer in one file: the program, behind it an index, and behind that the files of its initial package, one
// after the other and with nothing between them. A slot in the program's image says how long the three parts are and
// which digest the index has, so that nothing of what is appended is believed before it has been checked.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/file/file_range.hpp"

namespace ravok {

// The most bytes of an index, and of an installer's program.
inline constexpr std::uint64_t maximum_package_index_bytes = 524'288;
inline constexpr std::uint64_t maximum_installer_program_bytes = 268'435'456;

// What a player is told of an installer that is not as it was published.
inline constexpr const char* installer_damaged = "This installer was damaged; get it again";

// Where a package lies in an installer's file.
struct AppendedPlace {
  std::uint64_t program_bytes = 0;  // of the program, with which the file begins
  std::uint64_t index_bytes = 0;    // of the index behind it
  std::uint64_t file_bytes = 0;     // of the whole file
  std::string index_sha256;
};

inline constexpr std::size_t appended_place_characters = 112;

// The place of that record in an installer's image, found by its mark. In a program that carries no package it holds
// nothing but "-".
struct AppendedSlot {
  std::array<char, 24> mark;
  std::array<char, appended_place_characters> place;
};

inline constexpr std::string_view appended_package_mark = "ravok appended package =";

// Returns a slot that holds no place.
constexpr AppendedSlot make_appended_slot() {
  AppendedSlot slot{};
  for (std::size_t i = 0; i < slot.mark.size(); ++i) {
    slot.mark[i] = appended_package_mark[i];
  }
  for (char& character : slot.place) {
    character = '-';
  }
  return slot;
}

// Returns a place as a slot holds it: 16 hexadecimal digits for each length, then the digest.
std::string appended_place_text(const AppendedPlace& place);

// Returns the place that such a text states, or nothing for any other text.
std::optional<AppendedPlace> parse_appended_place(std::string_view text);

// Returns the place that a slot with this content states, or nothing for one that holds nothing but "-". Fails with
// "content_mismatch" for any other content, which only damage leaves there.
std::optional<AppendedPlace> place_in_slot(std::string_view text);

// Returns the place in a slot as it is in the running image, or nothing if it has none. Fails as place_in_slot does.
std::optional<AppendedPlace> read_appended_place(const volatile AppendedSlot& slot);

// A file of a package as the index lists it.
struct AppendedFile {
  std::string name;
  std::uint64_t length = 0;  // in bytes
};

// Returns the text of an index.
std::string package_index_text(const std::vector<AppendedFile>& files);

// Returns the files of an index in their order. They have distinct names of one part, and together exactly `bytes`
// bytes. Fails with "invalid_native_package", with "unsupported_schema", and as parse_json and validate_relative_path
// do.
std::vector<AppendedFile> parse_package_index(std::string_view text, std::uint64_t bytes);

// The package in an installer's file, which stays open as long as the object or any range of it is there.
class AppendedPackage {
 public:
  // Opens the file and reads its index. Fails with "unsafe_path" for a link or a special file; with "file_read"; with
  // "content_mismatch" for a place that cannot be, for a file that is shorter or longer than the place says, and for an
  // index with another digest; and as parse_package_index does.
  static std::shared_ptr<const AppendedPackage> in_file(const std::filesystem::path& installer,
                                                        const AppendedPlace& place);

  // Reads the index of an open file of that name, as in_file does. The file need not have the name yet.
  static std::shared_ptr<const AppendedPackage> in_range(const FileRange& file, const std::filesystem::path& installer,
                                                         const AppendedPlace& place);

  // The installer's file, absolute and normal.
  const std::filesystem::path& path() const { return path_; }

  // The names of the package's files, in their order there.
  const std::vector<std::string>& names() const { return names_; }

  // Returns a file of the package, or nothing for a name that it does not have.
  std::optional<FileRange> find(const std::string& name) const;

 private:
  AppendedPackage() = default;

  std::filesystem::path path_;
  std::vector<std::string> names_;
  std::map<std::string, FileRange> files_;
};

}  // namespace ravok
