// A real server: nginx on the loopback, over TLS, as this user, with all that it keeps in a directory of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <sys/types.h>

#include "support/certificate.hpp"
#include "support/loopback_listener.hpp"
#include "support/temporary_root.hpp"

namespace ravok::testing {

class NginxServer {
 public:
  // Whether this system has the program.
  static bool is_installed();

  // Starts it. `directives` go into its one server, which serves the files given to serve() as they are. It can be
  // connected to from here on.
  explicit NginxServer(const ServerCertificate& certificate, const std::string& directives = {});
  // Ends it.
  ~NginxServer();
  NginxServer(const NginxServer&) = delete;
  NginxServer& operator=(const NginxServer&) = delete;

  // Ends it before its time, with all its connections, and starts it again at the same address.
  void stop();
  void start(const ServerCertificate& certificate, const std::string& directives = {});

  // How many requests it has answered with this status, where the directives have "access_log requests;".
  std::size_t answered(int status) const;

  // The root of its addresses, with a slash at its end.
  std::string url() const { return url_at("localhost"); }
  // The same, with another name of the host.
  std::string url_at(const std::string& host) const;

  // Serves a file under this path.
  void serve(std::string_view path, std::string_view content) const;

  // What it complained of, for the message of a test that fails.
  std::string complaints() const;

 private:
  void run(const ServerCertificate& certificate, const std::string& directives);

  const TemporaryRoot root_;
  const LoopbackPort port_;
  pid_t process_ = 0;
};

}  // namespace ravok::testing
