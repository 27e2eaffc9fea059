#include "support/loopback_listener.hpp"

#include <stdexcept>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include "platform/posix/native.hpp"

namespace ravok::testing {
namespace {

sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

const sockaddr* general(const sockaddr_in& address) { return reinterpret_cast<const sockaddr*>(&address); }

Handle open_socket() {
  Handle made(socket(AF_INET, SOCK_STREAM, 0));
  if (!made || fcntl(made.get(), F_SETFD, FD_CLOEXEC) != 0) {
    throw std::runtime_error("Cannot open a socket for a test");
  }
  return made;
}

// Gives the socket this port, or a free one, and returns which it is. A free port is one that nobody else has, so only
// a port that is asked for is shared, with connections that end and with who holds it.
std::uint16_t bind_to_loopback(const Handle& made, std::uint16_t port) {
  sockaddr_in address = loopback(port);
  socklen_t size = sizeof address;
  const int again = 1;
  const auto allow = [&] { return setsockopt(made.get(), SOL_SOCKET, SO_REUSEADDR, &again, sizeof again) == 0; };
  if ((port != 0 && !allow()) || bind(made.get(), general(address), size) != 0 || !allow() ||
      getsockname(made.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    throw std::runtime_error("Cannot get a port of the loopback for a test");
  }
  return ntohs(address.sin_port);
}

}  // namespace

LoopbackPort::LoopbackPort() : socket_(open_socket()), number_(bind_to_loopback(socket_, 0)) {}

LoopbackListener::LoopbackListener(std::uint16_t port)
    : socket_(open_socket()), port_(bind_to_loopback(socket_, port)) {
  if (listen(socket_.get(), SOMAXCONN) != 0) {
    throw std::runtime_error("Cannot listen on the loopback for a test");
  }
}

Handle LoopbackListener::next() const {
  Handle peer(posix::retry_interrupted([&] { return accept(socket_.get(), nullptr, nullptr); }));
  if (peer) {
    fcntl(peer.get(), F_SETFD, FD_CLOEXEC);
  }
  return peer;
}

bool LoopbackListener::was_reached() const {
  pollfd waiting{.fd = socket_.get(), .events = POLLIN, .revents = 0};
  return posix::retry_interrupted([&] { return poll(&waiting, 1, 0); }) == 1;
}

Handle connect_to_loopback(std::uint16_t port) {
  Handle made = open_socket();
  const sockaddr_in address = loopback(port);
  if (posix::retry_interrupted([&] { return connect(made.get(), general(address), sizeof address); }) != 0) {
    throw std::runtime_error("Cannot connect to the loopback for a test");
  }
  return made;
}

}  // namespace ravok::testing
