// A small program that stages the newest launcher out of a repository that lies in a folder, and cleans a launcher
// store, as the client does. A refusal is printed as "CODE: MESSAGE" and ends it with code 1.
//
//   sample_staging stage ROOT TRUST REPOSITORY   TRUST holds a root; REPOSITORY the folders "metadata" and "targets"
//   sample_staging clean ROOT

#include <string>
#include <vector>

#include <openssl/rand.h>

#include "app/launcher/launcher_cleanup.hpp"
#include "app/launcher/launcher_store.hpp"
#include "folder_transport.hpp"
#include "sample_main.hpp"
#include "tuf/tuf.hpp"

// Each random name begins with its number, so that the names of every run sort in the order of their making, and its
// calls are the same.
extern "C" int __real_RAND_bytes(unsigned char* bytes, int length);
extern "C" int __wrap_RAND_bytes(unsigned char* bytes, int length) {
  static unsigned char number = 0;
  const int result = __real_RAND_bytes(bytes, length);
  bytes[0] = number++;
  return result;
}

namespace ravok {
namespace {

void stage(const std::string& root, const std::string& trust, const std::string& repository) {
  testing::FolderTransport transport(repository);
  TufClient client(trust, transport, transport, testing::sample_limits, testing::sample_time);
  LauncherStore(root).stage(client, {}, {}, false);
}

int run(const std::vector<std::string>& arguments) {
  const std::string action = arguments.empty() ? "" : arguments[0];
  if (action == "stage" && arguments.size() == 4) {
    stage(arguments[1], arguments[2], arguments[3]);
  } else if (action == "clean" && arguments.size() == 2) {
    clean_launcher_store(LauncherStore(arguments[1]));
  } else {
    return 64;
  }
  return 0;
}

}  // namespace
}  // namespace ravok

int main(int argc, char** argv) { return ravok::testing::sample_main(argc, argv, ravok::run); }
