#include <csignal>

#include "domain/crypto.hpp"
#include "publish/publish_console.hpp"

namespace {

volatile std::sig_atomic_t interrupted = 0;

void interrupt(int) { interrupted = 1; }

}  // namespace

int main(int count, char** words) {
  std::signal(SIGINT, interrupt);
  std::signal(SIGTERM, interrupt);
  ravok::initialize_client_runtime();
  return ravok::run_publish_console(count, words, [] { return interrupted != 0; });
}
