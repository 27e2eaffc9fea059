// A small program that downloads a target out of a repository that lies in a folder, as the client does. A refusal is
// printed as "CODE: MESSAGE" and ends it with code 1.
//
//   sample_fetch TRUST REPOSITORY DIRECTORY TARGET    TRUST holds a root; REPOSITORY the folders "metadata" and
//   "targets"

#include <string>
#include <vector>

#include "folder_transport.hpp"
#include "sample_main.hpp"
#include "tuf/tuf.hpp"

namespace ravok {
namespace {

int run(const std::vector<std::string>& arguments) {
  if (arguments.size() != 4) {
    return 64;
  }
  testing::FolderTransport transport(arguments[1]);
  TufClient client(arguments[0], transport, transport, testing::sample_limits, testing::sample_time);
  client.download(arguments[3], arguments[2], {}, {}, {.scope = "a purpose", .admission = {}});
  return 0;
}

}  // namespace
}  // namespace ravok

int main(int argc, char** argv) { return ravok::testing::sample_main(argc, argv, ravok::run); }
