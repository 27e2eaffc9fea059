// A socket that listens on a port of 127.0.0.1.
#pragma once

#include <cstdint>

#include "platform/file/handle.hpp"

namespace ravok::testing {

class LoopbackListener {
 public:
  // Once it is made, whoever connects gets through, even before anybody takes the connection. Takes a free port, or the
  // one of an earlier listener again.
  explicit LoopbackListener(std::uint16_t port = 0);

  std::uint16_t port() const { return port_; }
  int descriptor() const { return socket_.get(); }

  // Waits for the next connection and returns it.
  Handle next() const;
  // Whether a connection has come that nobody has taken. Does not wait.
  bool was_reached() const;

 private:
  Handle socket_;
  std::uint16_t port_ = 0;
};

// Connects to a port of 127.0.0.1.
Handle connect_to_loopback(std::uint16_t port);

}  // namespace ravok::testing
