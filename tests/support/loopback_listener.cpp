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

}  // namespace

LoopbackListener::LoopbackListener(std::uint16_t port) : socket_(open_socket()) {
  sockaddr_in address = loopback(port);
  socklen_t size = sizeof address;
  // A free port is one that nobody else has, so only a port that is asked for may be shared with connections that end.
  const int again = 1;
  const auto allow = [&] { return setsockopt(socket_.get(), SOL_SOCKET, SO_REUSEADDR, &again, sizeof again) == 0; };
  if ((port != 0 && !allow()) || bind(socket_.get(), general(address), size) != 0 || !allow() ||
      listen(socket_.get(), SOMAXCONN) != 0 ||
      getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    throw std::runtime_error("Cannot listen on the loopback for a test");
  }
  port_ = ntohs(address.sin_port);
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
