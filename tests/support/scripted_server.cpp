#include "support/scripted_server.hpp"

#include <array>
#include <charconv>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include "platform/file/handle.hpp"
#include "platform/posix/native.hpp"
#include "support/loopback_listener.hpp"

namespace ravok::testing {
namespace {

struct FreeTls {
  void operator()(BIO* bio) const { BIO_free(bio); }
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(SSL* connection) const { SSL_free(connection); }
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  void operator()(X509* certificate) const { X509_free(certificate); }
};
using Context = std::unique_ptr<SSL_CTX, FreeTls>;
using Text = std::unique_ptr<BIO, FreeTls>;

void require_tls(bool happened) {
  if (!happened) {
    throw std::runtime_error("Cannot make a TLS server for a test");
  }
}

void use_chain(SSL_CTX* context, const std::string& chain) {
  const Text text(BIO_new_mem_buf(chain.data(), static_cast<int>(chain.size())));
  const auto next = [&] {
    return std::unique_ptr<X509, FreeTls>(PEM_read_bio_X509(text.get(), nullptr, nullptr, nullptr));
  };
  require_tls(SSL_CTX_use_certificate(context, next().get()) == 1);
  while (const auto issuer = next()) {
    require_tls(SSL_CTX_add1_chain_cert(context, issuer.get()) == 1);
  }
  // The library takes the end of the text for a mistake.
  ERR_clear_error();
}

void use_key(SSL_CTX* context, const std::string& key) {
  const Text text(BIO_new_mem_buf(key.data(), static_cast<int>(key.size())));
  const std::unique_ptr<EVP_PKEY, FreeTls> read(PEM_read_bio_PrivateKey(text.get(), nullptr, nullptr, nullptr));
  require_tls(read && SSL_CTX_use_PrivateKey(context, read.get()) == 1);
}

Context make_context(const ServerCertificate& certificate, int only_version) {
  Context context(SSL_CTX_new(TLS_server_method()));
  require_tls(context != nullptr);
  SSL_CTX_set_security_level(context.get(), 0);
  require_tls(SSL_CTX_set_min_proto_version(context.get(), only_version) == 1);
  require_tls(SSL_CTX_set_max_proto_version(context.get(), only_version) == 1);
  use_chain(context.get(), certificate.chain);
  use_key(context.get(), certificate.key);
  return context;
}

// How long a request is whose head ends at `head_end`; a body has the length that the head announces.
std::size_t request_size(const std::string& request, std::size_t head_end) {
  constexpr std::string_view field = "\r\nContent-Length: ";
  const std::size_t at = request.find(field);
  std::size_t body = 0;
  if (at < head_end) {
    std::from_chars(request.data() + at + field.size(), request.data() + head_end, body);
  }
  return head_end + body;
}

}  // namespace

struct ScriptedServer::Implementation {
  Implementation(const ServerCertificate& certificate, Script told, int only_version, Greeter asked)
      : context(make_context(certificate, only_version)), script(std::move(told)), greeter(std::move(asked)) {}

  void serve();
  void greet(const Handle& connected);
  void converse(const Handle& connected, SSL_CTX* shown);

  const Context context;
  const Script script;
  const Greeter greeter;
  const LoopbackListener listener;

  std::mutex mutex;
  std::condition_variable changed;
  bool stopping = false;
  std::size_t releases = 0;
  int peer = -1;
  std::vector<std::string> requests;

  std::thread thread;
};

namespace {

class TlsConversation : public Conversation {
 public:
  TlsConversation(SSL* connection, std::function<void(std::string)> on_request, std::function<void()> on_wait)
      : connection_(connection), on_request_(std::move(on_request)), on_wait_(std::move(on_wait)) {}

  std::string read_request() override {
    std::string request;
    std::size_t head_end = std::string::npos;
    while (head_end == std::string::npos || request.size() < request_size(request, head_end)) {
      std::array<char, 65'536> buffer;
      const int count = SSL_read(connection_, buffer.data(), static_cast<int>(buffer.size()));
      if (count <= 0) {
        broken_ = true;
        break;
      }
      request.append(buffer.data(), static_cast<std::size_t>(count));
      const std::size_t empty_line = request.find("\r\n\r\n");
      head_end = empty_line == std::string::npos ? empty_line : empty_line + 4;
    }
    if (!request.empty()) {
      on_request_(request);
    }
    return request;
  }

  void send(std::string_view bytes) override {
    if (!broken_ && !bytes.empty() && SSL_write(connection_, bytes.data(), static_cast<int>(bytes.size())) <= 0) {
      broken_ = true;
    }
  }

  void wait() override { on_wait_(); }

  void cut() override { broken_ = true; }

  void reset() override { broken_ = reset_ = true; }

  void renew_keys() override {
    if (SSL_version(connection_) >= TLS1_3_VERSION) {
      broken_ =
          broken_ || SSL_key_update(connection_, SSL_KEY_UPDATE_REQUESTED) != 1 || SSL_do_handshake(connection_) != 1;
      return;
    }
    // The first handshake only asks the client for one. The read takes the client's part of it, and no byte behind it.
    broken_ = broken_ || SSL_renegotiate(connection_) != 1 || SSL_do_handshake(connection_) != 1;
    SSL_clear_mode(connection_, SSL_MODE_AUTO_RETRY);
    char none = 0;
    const int count = broken_ ? 0 : SSL_read(connection_, &none, 1);
    broken_ = broken_ || SSL_get_error(connection_, count) != SSL_ERROR_WANT_READ;
    SSL_set_mode(connection_, SSL_MODE_AUTO_RETRY);
  }

  bool is_open() const override { return !broken_; }
  bool is_reset() const { return reset_; }

 private:
  SSL* const connection_;
  const std::function<void(std::string)> on_request_;
  const std::function<void()> on_wait_;
  bool broken_ = false;
  bool reset_ = false;
};

// Makes the system end the connection with an error when it is closed.
void reset_when_closed(int peer) {
  const linger none{.l_onoff = 1, .l_linger = 0};
  setsockopt(peer, SOL_SOCKET, SO_LINGER, &none, sizeof none);
}

// Ends the sending and waits for the client to end too. A socket that is closed over bytes that it has not read would
// take away from the client what it has not read either.
void end_connection(int peer) {
  shutdown(peer, SHUT_WR);
  std::array<char, 65'536> buffer;
  while (posix::retry_interrupted([&] { return recv(peer, buffer.data(), buffer.size(), 0); }) > 0) {
  }
}

// A client that goes away may not end the test.
void take_no_pipe_signals() {
  sigset_t pipe_signal;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);
}

void send_bytes(int peer, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count =
        posix::retry_interrupted([&] { return send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL); });
    if (count <= 0) {
      return;
    }
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

// What the server answers to the first words of the client, which are read for it. Empty where the client goes away.
std::string first_answer(int peer, SSL_CTX* context) {
  const std::unique_ptr<SSL, FreeTls> connection(SSL_new(context));
  BIO* const heard = BIO_new(BIO_s_mem());
  BIO* const said = BIO_new(BIO_s_mem());
  require_tls(connection && heard != nullptr && said != nullptr);
  SSL_set_bio(connection.get(), heard, said);
  while (BIO_pending(said) == 0) {
    std::array<char, 16'384> buffer;
    const ssize_t count = posix::retry_interrupted([&] { return recv(peer, buffer.data(), buffer.size(), 0); });
    if (count <= 0) {
      return {};
    }
    BIO_write(heard, buffer.data(), static_cast<int>(count));
    SSL_accept(connection.get());
  }
  ERR_clear_error();
  std::string answer(BIO_ctrl_pending(said), '\0');
  BIO_read(said, answer.data(), static_cast<int>(answer.size()));
  return answer;
}

void end_or_reset(int peer, bool resets) {
  if (resets) {
    reset_when_closed(peer);
  } else {
    end_connection(peer);
  }
}

}  // namespace

void ScriptedServer::Implementation::greet(const Handle& connected) {
  const Greeting greeting = greeter ? greeter() : Greeting{};
  const int socket = connected.get();
  if (greeting.instead) {
    send_bytes(socket, *greeting.instead);
    end_or_reset(socket, greeting.resets);
  } else if (greeting.cut_behind) {
    if (*greeting.cut_behind > 0) {
      send_bytes(socket, std::string_view(first_answer(socket, context.get())).substr(0, *greeting.cut_behind));
    }
    end_or_reset(socket, greeting.resets);
  } else if (greeting.certificate != nullptr) {
    const Context other = make_context(*greeting.certificate, 0);
    converse(connected, other.get());
  } else {
    converse(connected, context.get());
  }
}

void ScriptedServer::Implementation::converse(const Handle& connected, SSL_CTX* shown) {
  const std::unique_ptr<SSL, FreeTls> connection(SSL_new(shown));
  if (connection && SSL_set_fd(connection.get(), connected.get()) == 1 && SSL_accept(connection.get()) == 1) {
    const auto keep = [this](std::string request) {
      const std::lock_guard lock(mutex);
      requests.push_back(std::move(request));
    };
    const auto wait = [this] {
      std::unique_lock lock(mutex);
      changed.wait(lock, [this] { return stopping || releases > 0; });
      releases -= releases > 0 ? 1 : 0;
    };
    TlsConversation conversation(connection.get(), keep, wait);
    script(conversation);
    if (conversation.is_reset()) {
      reset_when_closed(connected.get());
      return;
    }
    if (conversation.is_open()) {
      SSL_shutdown(connection.get());
    }
  }
  end_connection(connected.get());
}

void ScriptedServer::Implementation::serve() {
  take_no_pipe_signals();
  while (const Handle connected = listener.next()) {
    {
      const std::lock_guard lock(mutex);
      if (stopping) {
        return;
      }
      peer = connected.get();
    }
    greet(connected);
    const std::lock_guard lock(mutex);
    peer = -1;
  }
}

ScriptedServer::ScriptedServer(const ServerCertificate& certificate, Script script, int only_version, Greeter greeter)
    : implementation_(
          std::make_unique<Implementation>(certificate, std::move(script), only_version, std::move(greeter))) {
  implementation_->thread = std::thread([served = implementation_.get()] { served->serve(); });
}

ScriptedServer::~ScriptedServer() {
  {
    const std::lock_guard lock(implementation_->mutex);
    implementation_->stopping = true;
    if (implementation_->peer >= 0) {
      shutdown(implementation_->peer, SHUT_RDWR);
    }
  }
  implementation_->changed.notify_all();
  // Ends the wait for the next connection.
  connect_to_loopback(port());
  implementation_->thread.join();
}

std::uint16_t ScriptedServer::port() const { return implementation_->listener.port(); }

std::string ScriptedServer::url() const { return "https://localhost:" + std::to_string(port()) + "/"; }

std::vector<std::string> ScriptedServer::requests() const {
  const std::lock_guard lock(implementation_->mutex);
  return implementation_->requests;
}

void ScriptedServer::release() {
  {
    const std::lock_guard lock(implementation_->mutex);
    ++implementation_->releases;
  }
  implementation_->changed.notify_all();
}

ScriptedServer::Script answer(std::string bytes) {
  return [sent = std::move(bytes)](Conversation& client) {
    client.read_request();
    client.send(sent);
  };
}

ScriptedServer::Script answer_and_cut(std::string bytes) {
  return [sent = std::move(bytes)](Conversation& client) {
    client.read_request();
    client.send(sent);
    client.cut();
  };
}

}  // namespace ravok::testing
