// A small program that changes the launcher store's document as the client does. A refusal is printed as
// "CODE: MESSAGE" and ends it with code 1.
//
//   sample_store open ROOT                   opens the store for writing, which makes it
//   sample_store save ROOT BUILD             loads the document, makes BUILD the active version and saves it
//   sample_store seed ROOT MANIFEST ARCHIVE  seeds the store with its first version

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "app/launcher/launcher_store.hpp"
#include "platform/file/files.hpp"
#include "sample_main.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t manifest_limit = 1 << 20;

void save(const LauncherStore& store, const std::string& build_id) {
  const auto owner = store.owner();
  Json document = store.load();
  document["active"] = {{"manifest_sha256", std::string(64, 'a')}, {"build_id", build_id}};
  store.save(std::move(document));
}

int run(const std::vector<std::string>& arguments) {
  const std::string action = arguments.empty() ? "" : arguments[0];
  if (action == "open" && arguments.size() == 2) {
    LauncherStore store(arguments[1]);
  } else if (action == "save" && arguments.size() == 3) {
    save(*LauncherStore::existing(arguments[1]), arguments[2]);
  } else if (action == "seed" && arguments.size() == 4) {
    LauncherStore::for_launch(arguments[1])->seed_initial(read_file(arguments[2], manifest_limit), arguments[3], {});
  } else {
    return 64;
  }
  return 0;
}

}  // namespace
}  // namespace ravok

int main(int argc, char** argv) { return ravok::testing::sample_main(argc, argv, ravok::run); }
