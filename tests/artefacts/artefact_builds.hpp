// What the builds in the artefacts hold. Their programs are scripts, so that they stay small and start on any later
// system; the launchers' speak the protocol of a start themselves.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace ravok::testing {

// The console program of a launcher that works: as the candidate of an attempt it takes its leases, acknowledges them
// and says that it is ready. Then it says its build and its arguments.
inline std::string kept_launcher(const std::string& build) {
  return "#!/bin/sh\n"
         "set -eu\n"
         "build=" +
         build +
         R"(
nonce=${RAVOK_LAUNCHER_HEALTH_NONCE:-}
if [ -n "$nonce" ]; then
  umask 077
  cd "$RAVOK_LAUNCHER_DATA_ROOT/launcher"
  sha256=$RAVOK_LAUNCHER_MANIFEST
  exec 8<>"leases/attempts/$nonce.lock" 9<>"leases/versions/$sha256.lock"
  flock -sn 8
  flock -sn 9
  facts='"schema_version":1,"nonce":"'$nonce'","manifest_sha256":"'$sha256'","build_id":"'$build'",'
  facts=$facts'"pid":'$$',"interface":"'$RAVOK_LAUNCHER_INTERFACE'","application_schema":1'
  printf '{%s,"state":"leased","runtime_lease_abi":2}' "$facts" >leases/attempts/writing
  mv leases/attempts/writing "leases/attempts/$nonce.json"
  printf '{%s,"state":"ready","health_abi":1,"console_interrupt_abi":1}' "$facts" >health/writing
  mv health/writing "health/$nonce.json"
fi
echo "$build:$*"
)";
}

// One that ends at once.
inline std::string kept_failing_launcher() { return "#!/bin/sh\nexit 1\n"; }

// The windowed program of a launcher.
inline std::string kept_window(const std::string& build) {
  return "#!/bin/sh\necho \"" + build + " in a window:$*\"\n";
}

// A bootstrap that passes its start check, or fails it.
inline std::string kept_bootstrap(const std::string& build) {
  return "#!/bin/sh\n# " + build + "\nexit " + (build.ends_with("failing") ? "1" : "0") + "\n";
}

// Text that no compression makes much smaller, the same for the same build.
inline std::string kept_filling(const std::string& build, std::size_t size) {
  std::string text;
  std::uint32_t state = 2'166'136'261;
  for (const char character : build) {
    state = (state ^ static_cast<unsigned char>(character)) * 16'777'619;
  }
  while (text.size() < size) {
    state = state * 1'664'525 + 1'013'904'223;
    text += static_cast<char>('!' + (state >> 16) % 90);
  }
  return text;
}

}  // namespace ravok::testing
