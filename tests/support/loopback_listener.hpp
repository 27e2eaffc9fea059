// A socket that listens on a port of 127.0.0.1.
#pragma once

#include <cstdint>

#include "platform/file/handle.hpp"

namespace ravok::testing {

// A port of 127.0.0.1 that nobody else gets as long as this is there, whether somebody listens on it or not.
class LoopbackPort {
 public:
  // Takes a free one. It must be there before the first who listens on it.
  LoopbackPort();

  std::uint16_t number() const { return number_; }

 private:
  Handle socket_;
  std::uint16_t number_ = 0;
};

class LoopbackListener {
 public:
  // Once it is made, whoever connects gets through, even before anybody takes the connection. Takes a free port, or the
  // one that a LoopbackPort holds.
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
