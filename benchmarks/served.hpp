// What the figures have in common that need a real server.
#pragma once

#include <benchmark/benchmark.h>

#include "support/nginx_server.hpp"

namespace ravok::benchmarks {

// Whether this system has the server. Where it has none, the figure says so.
inline bool has_server(benchmark::State& state) {
  if (!testing::NginxServer::is_installed()) {
    state.SkipWithError("nginx is not installed");
    return false;
  }
  return true;
}

}  // namespace ravok::benchmarks
