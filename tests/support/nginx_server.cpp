#include "support/nginx_server.hpp"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/posix/native.hpp"

namespace ravok::testing {
namespace {

const char* installed_program() {
  for (const char* const program : {"/usr/sbin/nginx", "/usr/local/sbin/nginx", "/usr/bin/nginx"}) {
    if (access(program, X_OK) == 0) {
      return program;
    }
  }
  return nullptr;
}

// Keeps everything below the prefix. The process that serves is of this user too.
std::string configuration(std::uint16_t port, const std::string& directives) {
  return std::string(is_root() ? "user root root;\n" : "") +
         "daemon off;\n"
         "worker_processes 1;\n"
         "pid pid;\n"
         "error_log complaints;\n"
         "events { worker_connections 64; }\n"
         "http {\n"
         "  access_log off;\n"
         "  default_type application/octet-stream;\n"
         "  client_body_temp_path temporary/body;\n"
         "  proxy_temp_path temporary/proxy;\n"
         "  fastcgi_temp_path temporary/fastcgi;\n"
         "  uwsgi_temp_path temporary/uwsgi;\n"
         "  scgi_temp_path temporary/scgi;\n"
         "  server {\n"
         "    listen 127.0.0.1:" +
         std::to_string(port) +
         " ssl;\n"
         "    ssl_certificate chain.pem;\n"
         "    ssl_certificate_key key.pem;\n"
         "    root served;\n" +
         directives +
         "\n  }\n"
         "}\n";
}

// Starts it with the socket on which it shall listen as descriptor 3, so that no other process can take the port
// meanwhile, and nobody has to wait until it listens.
pid_t start_process(const std::string& program, const TemporaryRoot& root, const LoopbackListener& listener) {
  if (fcntl(listener.descriptor(), F_SETFL, O_NONBLOCK) != 0) {
    throw std::runtime_error("Cannot prepare a socket for nginx");
  }
  std::vector<std::string> arguments = {
      program, "-p", root.path(), "-c", root / "nginx.conf", "-e", root / "complaints"};
  std::vector<std::string> environment = {"NGINX=3;"};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  const std::string said = root / "said";
  posix_spawn_file_actions_addopen(&actions, 2, said.c_str(), O_WRONLY | O_CREAT, 0600);
  posix_spawn_file_actions_adddup2(&actions, listener.descriptor(), 3);
  pid_t process = 0;
  const int problem = posix_spawn(&process, program.c_str(), &actions, nullptr, posix::pointers_to(arguments).data(),
                                  posix::pointers_to(environment).data());
  posix_spawn_file_actions_destroy(&actions);
  if (problem != 0) {
    throw std::runtime_error("Cannot start nginx");
  }
  return process;
}

}  // namespace

bool NginxServer::is_installed() { return installed_program() != nullptr; }

NginxServer::NginxServer(const ServerCertificate& certificate, const std::string& directives) {
  if (!is_installed()) {
    throw std::runtime_error("nginx is not installed");
  }
  root_.directory("served");
  root_.directory("temporary");
  run(certificate, directives);
}

NginxServer::~NginxServer() { stop(); }

void NginxServer::stop() {
  // It forgets a signal that comes after it has begun to take signals and before it begins to wait for them, so it is
  // told again.
  for (int round = 0; process_ != 0; ++round) {
    if (round % 100 == 0) {
      kill(process_, SIGTERM);
    }
    if (posix::retry_interrupted([&] { return waitpid(process_, nullptr, WNOHANG); }) == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    } else {
      process_ = 0;
    }
  }
}

void NginxServer::start(const ServerCertificate& certificate, const std::string& directives) {
  stop();
  run(certificate, directives);
}

void NginxServer::run(const ServerCertificate& certificate, const std::string& directives) {
  root_.write("chain.pem", certificate.chain);
  root_.write("key.pem", certificate.key);
  root_.write("nginx.conf", configuration(port_.number(), directives));
  process_ = start_process(installed_program(), root_, LoopbackListener(port_.number()));
}

std::size_t NginxServer::answered(int status) const {
  const std::string log = root_.read("requests");
  const std::string wanted = "\" " + std::to_string(status) + " ";
  std::size_t count = 0;
  for (std::size_t at = log.find(wanted); at != std::string::npos; at = log.find(wanted, at + 1)) {
    ++count;
  }
  return count;
}

std::string NginxServer::url_at(const std::string& host) const {
  return "https://" + host + ":" + std::to_string(port_.number()) + "/";
}

void NginxServer::serve(std::string_view path, std::string_view content) const {
  root_.write("served/" + std::string(path), content);
}

std::string NginxServer::complaints() const {
  std::string all;
  for (const char* const name : {"said", "complaints"}) {
    if (std::filesystem::exists(root_ / name)) {
      all += root_.read(name);
    }
  }
  return all;
}

}  // namespace ravok::testing
