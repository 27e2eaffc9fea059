// A client that has nothing new to take, as a whole process.
//
//   refresh_program TRUSTED URL AUTHORITY    refreshes the trusted directory from the repository's metadata at the URL

#include <chrono>
#include <cstdint>

#include "transport/https.hpp"
#include "tuf/tuf.hpp"

int main(int count, char** arguments) {
  if (count != 4) {
    return 2;
  }
  constexpr ravok::TufLimits limits{.root_bytes = 100'000,
                                    .timestamp_bytes = 10'000,
                                    .metadata_bytes = 1'000'000,
                                    .root_rotations = 10,
                                    .delegations = 20};
  ravok::HttpsTransport transport(arguments[2], arguments[3]);
  ravok::TufClient client(arguments[1], transport, transport, limits, [] {
    return std::chrono::floor<std::chrono::microseconds>(std::chrono::system_clock::now());
  });
  client.refresh();
}
