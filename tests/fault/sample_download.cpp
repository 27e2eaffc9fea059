// A small program that tells a launcher store of the phases of a download, and retires downloads, as the client does. A
// refusal is printed as "CODE: MESSAGE" and ends it with code 1.
//
//   sample_download tell STORE TARGET PHASE CONTENT MANIFEST_SHA256 [PARTIAL]  of a target with this content
//   sample_download retire STORE MANIFEST_SHA256

#include <string>
#include <vector>

#include "app/download/launcher_downloads.hpp"
#include "app/download/target_downloads.hpp"
#include "domain/crypto.hpp"
#include "sample_main.hpp"

namespace ravok {
namespace {

Json reference(const std::string& sha256) { return {{"manifest_sha256", sha256}, {"build_id", "build-1"}}; }

int run(const std::vector<std::string>& arguments) {
  const std::string action = arguments.empty() ? "" : arguments[0];
  if (action == "tell" && arguments.size() >= 6) {
    const std::string& content = arguments[4];
    TargetDownloads(arguments[1])
        .observer(arguments[2], reference(arguments[5]))(
            arguments[3], {{"length", content.size()}, {"hashes", {{"sha256", digest(content, "sha256")}}}},
            arguments.size() > 6 ? arguments[6] : "");
  } else if (action == "retire" && arguments.size() == 3) {
    LauncherDownloads(arguments[1]).retire(reference(arguments[2]));
  } else {
    return 64;
  }
  return 0;
}

}  // namespace
}  // namespace ravok

int main(int argc, char** argv) { return ravok::testing::sample_main(argc, argv, ravok::run); }
