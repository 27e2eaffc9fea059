// A TLS server on the loopback that answers what a test tells it, byte for byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/certificate.hpp"

namespace ravok::testing {

// One connection as the server's script deals with it, on the server's thread. Once the client or the test has gone,
// every member returns at once.
class Conversation {
 public:
  virtual ~Conversation() = default;

  // Reads a request, with as much of a body as its content-length announces, keeps it for the test and returns it.
  virtual std::string read_request() = 0;
  virtual void send(std::string_view bytes) = 0;
  // Whether the client still takes what is sent, as far as the server knows.
  virtual bool is_open() const = 0;
  // Waits until the test releases it.
  virtual void wait() = 0;
  // Ends the connection as one that breaks does: TLS says nothing of an end.
  virtual void cut() = 0;
  // Ends the connection at once, with an error for the client, which may lose what it has not read yet.
  virtual void reset() = 0;
  // Asks for new keys: in TLS 1.3 by its message for that, and before by another handshake.
  virtual void renew_keys() = 0;
};

// How a server takes a connection, before its script knows of it.
struct Greeting {
  // Shown in the place of the server's own certificate, where it is given.
  const ServerCertificate* certificate = nullptr;
  // Where it is given, no more than so many bytes of the server's first answer in the handshake come, and the
  // connection ends behind them.
  std::optional<std::size_t> cut_behind = {};
  // Where it is given, this comes instead of all that, and the connection ends.
  std::optional<std::string> instead = {};
  // Whether such an end is an error for the client rather than an end.
  bool resets = false;
};

class ScriptedServer {
 public:
  // Deals with one connection. One that is not cut ends as TLS wants it when the script returns.
  using Script = std::function<void(Conversation&)>;
  // Asked at the beginning of each connection, on the server's thread.
  using Greeter = std::function<Greeting()>;

  // Serves one connection after another. `only_version` is a version of TLS as the library numbers them, or 0 for
  // all that it knows. It asks for no strength of keys, digests or versions: that is for the client to do. Without a
  // greeter every connection begins as TLS wants it.
  ScriptedServer(const ServerCertificate& certificate, Script script, int only_version = 0, Greeter greeter = {});
  // Ends what is under way.
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  std::uint16_t port() const;
  // The root of its addresses, with a slash at its end.
  std::string url() const;

  // The requests that were read so far, heads and bodies as received. One that broke off is among them, as far as it
  // came.
  std::vector<std::string> requests() const;

  // Lets a script go on that waits, now or later.
  void release();

 private:
  struct Implementation;

  const std::unique_ptr<Implementation> implementation_;
};

// A script that reads the request, sends this answer, and ends as TLS wants it.
ScriptedServer::Script answer(std::string bytes);

// The same, but the connection breaks behind the answer.
ScriptedServer::Script answer_and_cut(std::string bytes);

}  // namespace ravok::testing
