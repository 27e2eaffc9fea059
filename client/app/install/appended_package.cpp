#include "app/install/appended_package.hpp"

#include <set>
#include <utility>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/json.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"

namespace ravok {
namespace {

constexpr std::string_view invalid_index = "invalid_native_package";
constexpr const char* malformed_index = "The index of this installer's package is malformed";
constexpr std::size_t length_digits = 16;

static_assert(appended_package_mark.size() == AppendedSlot().mark.size());
static_assert(appended_place_characters == 3 * length_digits + sha256_characters);

std::string length_text(std::uint64_t length) {
  std::string text(length_digits, '0');
  for (auto digit = text.rbegin(); digit != text.rend(); ++digit) {
    *digit = lower_hex_digits[static_cast<std::size_t>(length % 16)];
    length /= 16;
  }
  return text;
}

// The length that the digits at the front state, which this takes away from the text.
std::uint64_t take_length(std::string_view& text) {
  std::uint64_t length = 0;
  for (const char digit : text.substr(0, length_digits)) {
    length = length << 4 | hex_value(digit);
  }
  text.remove_prefix(length_digits);
  return length;
}

AppendedFile parse_index_entry(const Json& value) {
  require(has_exactly(value, {"name", "length"}) && value.at("length").is_number_unsigned(), invalid_index,
          malformed_index);
  AppendedFile file = {text_at(value, "name"), value.at("length").get<std::uint64_t>()};
  validate_relative_path(file.name, true);
  require(file.name.find('/') == std::string::npos, invalid_index, malformed_index);
  return file;
}

// Accepts only an installer's file of exactly so many bytes.
void require_length(const FileRange& file, std::uint64_t bytes) {
  require(file.length() >= bytes, "content_mismatch",
          "This installer was cut short: it has " + std::to_string(file.length()) + " of its " + std::to_string(bytes) +
              " bytes; get it again");
  require(file.length() == bytes, "content_mismatch",
          "This installer has bytes behind its end that do not belong to it; get it again");
}

void require_possible(const AppendedPlace& place) {
  require(place.program_bytes <= maximum_installer_program_bytes && place.index_bytes <= maximum_package_index_bytes &&
              place.program_bytes + place.index_bytes <= place.file_bytes,
          "content_mismatch", installer_damaged);
}

}  // namespace

std::string appended_place_text(const AppendedPlace& place) {
  return length_text(place.program_bytes) + length_text(place.index_bytes) + length_text(place.file_bytes) +
         place.index_sha256;
}

std::optional<AppendedPlace> parse_appended_place(std::string_view text) {
  if (!is_lower_hex(text, appended_place_characters)) {
    return std::nullopt;
  }
  AppendedPlace place;
  place.program_bytes = take_length(text);
  place.index_bytes = take_length(text);
  place.file_bytes = take_length(text);
  place.index_sha256 = text;
  return place;
}

std::optional<AppendedPlace> place_in_slot(std::string_view text) {
  if (text == std::string(appended_place_characters, '-')) {
    return std::nullopt;
  }
  std::optional<AppendedPlace> place = parse_appended_place(text);
  require(place.has_value(), "content_mismatch", installer_damaged);
  return place;
}

std::optional<AppendedPlace> read_appended_place(const volatile AppendedSlot& slot) {
  // Reads the running image, since the place was put there after the compiler saw the slot. Leaves the mark alone, so
  // that the compiler puts no second copy of it into the image.
  const volatile char* const bytes = reinterpret_cast<const volatile char*>(&slot) + offsetof(AppendedSlot, place);
  std::string text;
  for (std::size_t i = 0; i < appended_place_characters; ++i) {
    text += bytes[i];
  }
  return place_in_slot(text);
}

std::string package_index_text(const std::vector<AppendedFile>& files) {
  Json list = Json::array();
  for (const AppendedFile& file : files) {
    list.push_back({{"name", file.name}, {"length", file.length}});
  }
  return Json({{"schema_version", 1}, {"files", list}}).dump();
}

std::vector<AppendedFile> parse_package_index(std::string_view text, std::uint64_t bytes) {
  return refuse_malformed(invalid_index, malformed_index, [&] {
    const Json index = parse_json(text, maximum_package_index_bytes);
    require(index.is_object() && index.contains("schema_version"), invalid_index, malformed_index);
    require(is_integer(index.at("schema_version"), 1), "unsupported_schema",
            "The index of this installer's package has a form that is not known here");
    require(has_exactly(index, {"schema_version", "files"}) && index.at("files").is_array(), invalid_index,
            malformed_index);
    std::vector<AppendedFile> files;
    std::set<std::string> names;
    std::uint64_t left = bytes;
    for (const Json& value : index.at("files")) {
      AppendedFile file = parse_index_entry(value);
      require(names.insert(file.name).second, invalid_index, "Initial package resources overlap");
      require(file.length <= left, invalid_index, malformed_index);
      left -= file.length;
      files.push_back(std::move(file));
    }
    require(left == 0, invalid_index, malformed_index);
    return files;
  });
}

std::shared_ptr<const AppendedPackage> AppendedPackage::in_file(const std::filesystem::path& installer,
                                                                const AppendedPlace& place) {
  return in_range(FileRange::whole_file(installer), installer, place);
}

std::shared_ptr<const AppendedPackage> AppendedPackage::in_range(const FileRange& file,
                                                                 const std::filesystem::path& installer,
                                                                 const AppendedPlace& place) {
  require_possible(place);
  require_length(file, place.file_bytes);
  const std::string text = read_range(file.part(place.program_bytes, place.index_bytes), maximum_package_index_bytes);
  require(digest(text, "sha256") == place.index_sha256, "content_mismatch", installer_damaged);

  std::shared_ptr<AppendedPackage> package(new AppendedPackage);
  package->path_ = std::filesystem::absolute(installer).lexically_normal();
  std::uint64_t offset = place.program_bytes + place.index_bytes;
  for (AppendedFile& listed : parse_package_index(text, place.file_bytes - offset)) {
    package->files_.emplace(listed.name, file.part(offset, listed.length));
    package->names_.push_back(std::move(listed.name));
    offset += listed.length;
  }
  return package;
}

std::optional<FileRange> AppendedPackage::find(const std::string& name) const {
  const auto found = files_.find(name);
  return found == files_.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace ravok
