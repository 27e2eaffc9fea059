// The input is a sealed descriptor. Whatever it says, a package is read or refused in words, and nothing on the disk
// changes.
//
// The descriptor lies among the resources of a good package. In an input, "@NAME" stands for the digest of a resource
// and "#NAME" for its length.

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <tuple>

#include <sys/stat.h>

#include "app/install/native_package.hpp"
#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "memory_volume.hpp"
#include "property.hpp"
#include "support/package_builder.hpp"
#include "support/temporary_root.hpp"

namespace {

using ravok::fuzz::must_hold;

// The resources, written once.
class GoodPackage {
 public:
  GoodPackage() : root_(ravok::fuzz::memory_volume()) {
    const ravok::testing::InitialPackage package;
    package.write(directory());
    for (const auto& [name, content] : package.files()) {
      words_["@" + name] = ravok::digest(content, "sha256");
      words_["#" + name] = std::to_string(content.size());
    }
  }

  std::filesystem::path directory() const { return root_ / "package"; }
  const std::filesystem::path& root() const { return root_.path(); }

  std::string descriptor_of(std::string text) const {
    for (const auto& [word, meaning] : words_) {
      for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + meaning.size())) {
        text.replace(at, word.size(), meaning);
      }
    }
    return text;
  }

 private:
  ravok::testing::TemporaryRoot root_;
  std::map<std::string, std::string> words_;
};

// What the status of a file shows. Its content is not compared, since it cannot change without the time of change.
using Seen = std::tuple<mode_t, ino_t, off_t, std::time_t, long>;

std::map<std::string, Seen> seen_below(const std::filesystem::path& root) {
  std::map<std::string, Seen> seen;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    struct stat status;
    must_hold(lstat(entry.path().c_str(), &status) == 0, "what is there can be looked at");
    seen[entry.path()] = {status.st_mode, status.st_ino, status.st_size, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
  }
  return seen;
}

template <typename Work>
void must_end_in_words(Work work) {
  try {
    work();
  } catch (const ravok::Error& error) {
    must_hold(!error.code.empty() && error.what()[0] != '\0', "a refusal has a code and words");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const GoodPackage good;
  const std::filesystem::path directory = good.directory();
  const std::string text = good.descriptor_of({reinterpret_cast<const char*>(data), size});
  const std::string seal = ravok::testing::write_descriptor(directory, text);
  const std::map<std::string, Seen> before = seen_below(good.root());
  must_end_in_words([&] {
    const ravok::NativePackage package = ravok::read_native_package(directory, seal, {});
    must_hold(package.descriptor_sha256 == seal && !package.root_json.empty(), "what is read is what is sealed");
  });
  must_end_in_words([&] { ravok::package_brand(directory, seal); });
  must_end_in_words([&] { ravok::package_theme(directory, seal); });
  must_end_in_words([&] { ravok::package_brand_icon(directory, seal); });
  must_end_in_words([&] { ravok::package_featured_game(directory, seal); });
  must_hold(seen_below(good.root()) == before, "nothing on the disk changes");
  return 0;
}
