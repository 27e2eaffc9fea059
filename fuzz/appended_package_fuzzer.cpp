// The input is what lies behind an installer's program: up to its first line feed an index, and behind that the files.
// Whatever it holds, it is refused in words, or its files are exactly what lies behind the index, one after the other.

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/install/appended_package.hpp"
#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "memory_volume.hpp"
#include "property.hpp"
#include "support/temporary_root.hpp"

namespace {

using ravok::fuzz::must_hold;

constexpr std::string_view program = "program";

// Returns what `work` returns, or nothing where it refuses in words.
template <typename Work>
auto unless_refused(Work work) -> std::optional<decltype(work())> {
  try {
    return work();
  } catch (const ravok::Error& error) {
    must_hold(!error.code.empty() && error.what()[0] != '\0', "a refusal has a code and words");
    return std::nullopt;
  }
}

void check_place(std::string_view text) {
  if (const auto place = ravok::parse_appended_place(text)) {
    must_hold(ravok::appended_place_text(*place) == text, "a place is the one that its text states");
  }
}

void check_index(std::string_view text, std::uint64_t bytes) {
  const auto files = unless_refused([&] { return ravok::parse_package_index(text, bytes); });
  if (files) {
    std::uint64_t total = 0;
    for (const ravok::AppendedFile& file : *files) {
      must_hold(file.length <= bytes - total, "no file reaches beyond the end");
      must_hold(!file.name.empty() && file.name.find('/') == std::string::npos, "a name has one part");
      total += file.length;
    }
    must_hold(total == bytes, "the files fill their place");
    const auto again =
        unless_refused([&] { return ravok::parse_package_index(ravok::package_index_text(*files), bytes); });
    must_hold(again && again->size() == files->size(), "an index that is written is read");
  }
}

void check_file(std::string_view index, std::string_view files) {
  static const ravok::testing::TemporaryRoot root(ravok::fuzz::memory_volume());
  const std::string path = root / "installer";
  std::ofstream(path, std::ios::binary) << program << index << files;
  const std::uint64_t size = program.size() + index.size() + files.size();
  const ravok::AppendedPlace place = {program.size(), index.size(), size, ravok::digest(index, "sha256")};
  const auto package = unless_refused([&] { return ravok::AppendedPackage::in_file(path, place); });
  if (package) {
    std::string joined;
    for (const std::string& name : (*package)->names()) {
      joined += ravok::read_range((*package)->find(name).value(), files.size());
    }
    must_hold(joined == files, "the files are what lies behind the index");
  }
  for (const std::uint64_t wrong : {size - 1, size + 1}) {
    ravok::AppendedPlace other = place;
    other.file_bytes = wrong;
    must_hold(!unless_refused([&] { return ravok::AppendedPackage::in_file(path, other); }),
              "a file of another length is refused");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  check_place(input);
  const std::size_t end = input.find('\n');
  const std::string_view index = input.substr(0, end);
  const std::string_view files = end == std::string_view::npos ? std::string_view() : input.substr(end + 1);
  check_index(index, files.size());
  check_file(index, files);
  return 0;
}
