// A relative path that the rules accept never leads out of the root that it is joined to, and a portable path is also
// accepted where a path need not be portable.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include <unistd.h>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/managed_paths.hpp"
#include "property.hpp"

namespace {

// A root that holds directories, a file, and links that lead out of it.
std::filesystem::path make_root() {
  std::string pattern = std::filesystem::temp_directory_path() / "ravok-fuzz-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    std::abort();
  }
  const std::filesystem::path root = pattern;
  std::filesystem::create_directories(root / "a/b");
  std::filesystem::create_directory_symlink("/", root / "l");
  std::filesystem::create_directory_symlink("../..", root / "a/l");
  return root;
}

struct Root {
  std::filesystem::path path = make_root();
  ~Root() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
};

bool accepts(std::string_view path, bool portable) {
  try {
    ravok::validate_relative_path(path, portable);
    return true;
  } catch (const ravok::Error& error) {
    ravok::fuzz::must_hold(error.code == "unsafe_path", "a refusal has the one code of its kind");
    return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using ravok::fuzz::must_hold;
  static const Root root;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const bool portable = accepts(text, true);
  must_hold(!portable || accepts(text, false), "what is portable is accepted in both modes");
  try {
    const std::filesystem::path joined = ravok::safe_join(root.path, text, true);
    must_hold(portable, "only an accepted path is joined");
    must_hold(joined.native() == root.path.native() + "/" + std::string(text), "the join appends the text itself");
    must_hold(joined.lexically_normal() == joined, "the join holds nothing to normalise away");
    const std::filesystem::path real = std::filesystem::weakly_canonical(joined);
    must_hold(real.native().starts_with(std::filesystem::canonical(root.path).native() + "/"),
              "the join stays below its root");
  } catch (const ravok::Error& error) {
    must_hold(error.code == "unsafe_path", "a refusal has the one code of its kind");
  } catch (const std::filesystem::filesystem_error&) {
    // The system itself refuses the path, for its length or its bytes: it leads nowhere.
  }
  return 0;
}
