// A small program that stages or applies an update of the bootstrap, as the client and the bootstrap do, and says what
// came of it. A refusal is printed as "CODE: MESSAGE" and ends it with code 1.
//
//   sample_bootstrap_update apply ROOT
//   sample_bootstrap_update stage ROOT TRUST REPOSITORY    TRUST holds a root; REPOSITORY the folders "metadata" and
//   "targets"

#include <cstdio>
#include <string>
#include <vector>

#include "app/launcher/bootstrap_apply.hpp"
#include "app/launcher/bootstrap_update.hpp"
#include "folder_transport.hpp"
#include "sample_main.hpp"
#include "support/patient_start.hpp"
#include "tuf/tuf.hpp"

namespace ravok {
namespace {

int apply(const std::string& root) {
  const BootstrapUpdateResult result = apply_bootstrap_update(root, testing::endless_trial_clock());
  constexpr const char* words[] = {"none", "postponed", "applied", "rejected"};
  std::puts(words[static_cast<int>(result.end)]);
  if (result.problem) {
    std::fprintf(stderr, "%s: %s\n", result.problem->code.c_str(), result.problem->what());
  }
  return 0;
}

int stage(const std::vector<std::string>& arguments) {
  testing::FolderTransport transport(arguments[3]);
  TufClient client(arguments[2], transport, transport, testing::sample_limits, testing::sample_time);
  std::puts(stage_bootstrap_update(arguments[1], client, {}).c_str());
  return 0;
}

int run(const std::vector<std::string>& arguments) {
  if (arguments.size() == 2 && arguments[0] == "apply") {
    return apply(arguments[1]);
  }
  return arguments.size() == 4 && arguments[0] == "stage" ? stage(arguments) : 64;
}

}  // namespace
}  // namespace ravok

int main(int argc, char** argv) { return ravok::testing::sample_main(argc, argv, ravok::run); }
