#include "support/poisoned_network.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <deque>
#include <fstream>
#include <mutex>
#include <optional>
#include <random>
#include <sstream>
#include <thread>
#include <utility>

#include "domain/crypto.hpp"
#include "support/scripted_server.hpp"

namespace ravok::testing {
namespace {

constexpr const char* targets_folder = "tuf/targets/";

constexpr const char* ok = "200 OK";
constexpr const char* partial_content = "206 Partial Content";
constexpr const char* not_found = "404 Not Found";

constexpr std::array<const char*, 7> refusals = {"403 Forbidden",
                                                 not_found,
                                                 "408 Request Timeout",
                                                 "429 Too Many Requests",
                                                 "500 Internal Server Error",
                                                 "502 Bad Gateway",
                                                 "503 Service Unavailable"};
constexpr std::array<const char*, 6> redirects = {"301 Moved Permanently",  "302 Found",
                                                  "303 See Other",          "304 Not Modified",
                                                  "307 Temporary Redirect", "308 Permanent Redirect"};

// More than any client of a repository takes in memory.
constexpr std::size_t endless_bytes = 18 * 1'048'576;
constexpr std::size_t endless_lines = 60'000;
// Answers beyond this size are not kept to be played again, and of each path no more than so many are.
constexpr std::size_t kept_bytes = 1'048'576;
constexpr std::size_t kept_answers = 6;

struct Answer {
  std::string status = ok;
  std::vector<std::pair<std::string, std::string>> fields;
  std::string body;

  void set(const std::string& name, const std::string& value) {
    for (auto& [known, old] : fields) {
      if (known == name) {
        old = value;
        return;
      }
    }
    fields.emplace_back(name, value);
  }
  void drop(const std::string& name) {
    std::erase_if(fields, [&](const auto& field) { return field.first == name; });
  }
  std::string head() const {
    std::string text = "HTTP/1.1 " + status + "\r\n";
    for (const auto& [name, value] : fields) {
      text.append(name).append(": ").append(value).append("\r\n");
    }
    return text + "\r\n";
  }
  std::string text() const { return head() + body; }
  bool operator==(const Answer&) const = default;
};

Answer with_length(std::string status, std::string body) {
  Answer answer{std::move(status), {}, std::move(body)};
  answer.set("Content-Length", std::to_string(answer.body.size()));
  return answer;
}

struct Request {
  std::string path;
  std::optional<std::size_t> first;  // byte that is asked for, where it is a part
};

Request parse_request(const std::string& text) {
  Request request;
  const std::size_t begin = text.find('/');
  const std::size_t end = text.find(' ', begin);
  if (begin == std::string::npos || end == std::string::npos) {
    return request;
  }
  request.path = text.substr(begin + 1, end - begin - 1);
  constexpr std::string_view field = "\r\nRange: bytes=";
  if (const std::size_t at = text.find(field); at != std::string::npos) {
    std::size_t first = 0;
    std::from_chars(text.data() + at + field.size(), text.data() + text.size(), first);
    request.first = first;
  }
  return request;
}

std::string range_text(std::size_t first, std::size_t last, std::size_t whole) {
  return "bytes " + std::to_string(first) + "-" + std::to_string(last) + "/" + std::to_string(whole);
}

std::string chunk(std::string_view bytes) {
  std::array<char, 16> size{};
  const auto end = std::to_chars(size.data(), size.data() + size.size(), bytes.size(), 16);
  return std::string(size.data(), end.ptr) + "\r\n" + std::string(bytes) + "\r\n";
}

}  // namespace

const char* poison_name(Poison poison) {
  static constexpr std::array<const char*, poison_kinds> names = {"refused connection",
                                                                  "no handshake",
                                                                  "cut handshake",
                                                                  "no TLS",
                                                                  "other certificate",
                                                                  "delayed",
                                                                  "dropped",
                                                                  "stalled",
                                                                  "interim answers",
                                                                  "tiny pieces",
                                                                  "reset",
                                                                  "ended early",
                                                                  "cut",
                                                                  "flipped and cut",
                                                                  "doubled bytes",
                                                                  "answered twice",
                                                                  "flipped head",
                                                                  "flipped body",
                                                                  "garbage",
                                                                  "older answer",
                                                                  "other path",
                                                                  "refusal",
                                                                  "redirect",
                                                                  "wrong length",
                                                                  "no length",
                                                                  "chunked",
                                                                  "broken chunks",
                                                                  "encoded",
                                                                  "endless head",
                                                                  "endless body",
                                                                  "wrong range",
                                                                  "other bytes",
                                                                  "changed tag",
                                                                  "whole for part",
                                                                  "part for whole"};
  return names.at(static_cast<std::size_t>(poison));
}

struct PoisonedNetwork::Implementation {
  Implementation(const CertificateAuthority& authority, std::filesystem::path served, std::uint64_t seed)
      : folder(std::move(served)),
        random(seed),
        strange_certificate(CertificateAuthority().issue()),
        server(
            authority.issue(), [this](Conversation& peer) { converse(peer); }, 0, [this] { return greet(); }) {}

  // --- What happens, on the server's thread ------------------------------------------------------

  Greeting greet() {
    const std::lock_guard lock(mutex);
    ++connections;
    poisons = below(100) < dose.percent;
    if (!poisons || dose.only_targets || !one_in(7)) {
      return {};
    }
    poisons = false;
    Greeting greeting;
    greeting.resets = one_in(2);
    const auto kind = static_cast<Poison>(below(static_cast<std::size_t>(Poison::other_certificate) + 1));
    switch (kind) {
      case Poison::refused:
        greeting.cut_behind = 0;
        greeting.resets = true;
        break;
      case Poison::no_handshake:
        greeting.cut_behind = 0;
        greeting.resets = false;
        break;
      case Poison::cut_handshake:
        greeting.cut_behind = 1 + below(one_in(2) ? 10 : 2'000);
        break;
      case Poison::no_tls:
        greeting.instead = one_in(2) ? with_length(ok, "Not over TLS.").text() : noise(1 + below(500));
        break;
      default:
        greeting.certificate = &strange_certificate;
    }
    note({}, kind);
    return greeting;
  }

  void converse(Conversation& peer) {
    const Request request = parse_request(peer.read_request());
    if (request.path.empty()) {
      return;
    }
    Answer answer = true_answer(request);
    std::optional<Poison> kind;
    {
      const std::lock_guard lock(mutex);
      if (poisons && (!dose.only_targets || request.path.starts_with(targets_folder))) {
        kind = choose(request, answer);
        note(request.path, *kind);
      }
      keep(request, answer);
    }
    if (!kind) {
      peer.send(answer.text());
      return;
    }
    send_poisoned(peer, *kind, request, std::move(answer));
  }

  Answer true_answer(const Request& request) const {
    std::ifstream file(folder / request.path, std::ios::binary);
    if (!file) {
      return with_length(not_found, "There is no such file.\n");
    }
    std::ostringstream bytes;
    bytes << file.rdbuf();
    std::string content = bytes.str();
    const std::string tag = "\"" + digest(content, "sha256").substr(0, 16) + "\"";
    const std::size_t whole = content.size();
    const bool is_part = request.first && *request.first < whole;
    Answer answer =
        is_part ? with_length(partial_content, content.substr(*request.first)) : with_length(ok, std::move(content));
    answer.set("ETag", tag);
    answer.set("Accept-Ranges", "bytes");
    if (is_part) {
      answer.set("Content-Range", range_text(*request.first, whole - 1, whole));
    }
    return answer;
  }

  // Keeps an answer for its path, so that it can be played again once there is another.
  void keep(const Request& request, const Answer& answer) {
    if (request.first || answer.body.size() > kept_bytes) {
      return;
    }
    std::deque<Answer>& known = former[request.path];
    if (known.empty() || known.back() != answer) {
      known.push_back(answer);
    }
    if (known.size() > kept_answers) {
      known.pop_front();
    }
  }
  bool has_older(const Request& request, const Answer& answer) const {
    const auto found = former.find(request.path);
    return found != former.end() &&
           std::any_of(found->second.begin(), found->second.end(), [&](const Answer& old) { return old != answer; });
  }

  // A kind of poison that this answer can have. Those that few answers can have would come too seldom by lot, so they
  // come first, and so do those after which a download has something to go on with.
  Poison choose(const Request& request, const Answer& answer) {
    const bool is_part = answer.status == partial_content;
    if (has_older(request, answer) && one_in(4)) {
      return Poison::older;
    }
    if (is_part && !one_in(3)) {
      constexpr std::array kinds = {Poison::wrong_range, Poison::other_bytes, Poison::changed_tag,
                                    Poison::whole_for_part};
      return kinds.at(below(kinds.size()));
    }
    if (!is_part && answer.body.size() > 5'000 && one_in(3)) {
      constexpr std::array kinds = {Poison::reset, Poison::ended, Poison::cut, Poison::flipped_and_cut};
      return kinds.at(below(kinds.size()));
    }
    while (true) {
      const auto first = static_cast<std::size_t>(Poison::delayed);
      const auto kind = static_cast<Poison>(first + below(poison_kinds - first));
      const bool is_only_for_parts = kind == Poison::wrong_range || kind == Poison::other_bytes ||
                                     kind == Poison::changed_tag || kind == Poison::whole_for_part;
      const bool is_rare = kind == Poison::endless_body || kind == Poison::endless_head || kind == Poison::stalled;
      if ((is_only_for_parts && !is_part) || (kind == Poison::older && !has_older(request, answer)) ||
          (kind == Poison::part_for_whole && is_part) || (kind == Poison::other_path && former.size() < 2) ||
          (kind == Poison::stalled && !dose.may_stall) || (is_rare && !one_in(4))) {
        continue;
      }
      return kind;
    }
  }

  void send_poisoned(Conversation& peer, Poison kind, const Request& request, Answer answer) {
    const std::string text = answer.text();
    switch (kind) {
      case Poison::delayed:
        pause(1 + draw(20));
        return peer.send(text);
      case Poison::dropped:
        return draw(2) == 0 ? peer.cut() : void();
      case Poison::stalled:
        return stall(peer, text);
      case Poison::interim:
        return peer.send(interim(1 + draw(12)) + text);
      case Poison::pieces:
        return send_pieces(peer, text);
      case Poison::reset:
        peer.send(beginning_of(text));
        return peer.reset();
      case Poison::ended:
        return peer.send(beginning_of(text));
      case Poison::cut:
        peer.send(beginning_of(text));
        return peer.cut();
      case Poison::flipped_and_cut:
        peer.send(answer.head() + flipped(answer.body.substr(0, answer.body.size() * (1 + draw(9)) / 10)));
        return peer.cut();
      case Poison::doubled_bytes:
        return peer.send(doubled(text));
      case Poison::twice:
        return peer.send(text + text);
      case Poison::flipped_head:
        return peer.send(flipped(answer.head()) + answer.body);
      case Poison::flipped_body:
        return peer.send(answer.head() + flipped(answer.body));
      case Poison::garbage:
        return peer.send(drawn_noise(1 + draw(500)));
      case Poison::older:
        return peer.send(older(request, answer).text());
      case Poison::other_path:
        return peer.send(of_other_path(request, answer).text());
      case Poison::refusal:
        return peer.send(refused().text());
      case Poison::redirect:
        return peer.send(redirected(request).text());
      case Poison::broken_chunks:
        return peer.send(broken_chunks(std::move(answer)));
      case Poison::endless_head:
        return send_endless_head(peer, answer);
      case Poison::endless_body:
        return send_endless_body(peer, std::move(answer));
      default:
        spoil_head(kind, request, answer);
        return peer.send(answer.text());
    }
  }

  void spoil_head(Poison kind, const Request& request, Answer& answer) {
    const std::size_t size = answer.body.size();
    switch (kind) {
      case Poison::wrong_length: {
        const std::array<std::string, 6> lengths = {std::to_string(size + 1 + draw(1'000)),
                                                    std::to_string(size - std::min(size, 1 + draw(size + 1))),
                                                    "+" + std::to_string(size),
                                                    std::to_string(size) + ", " + std::to_string(size + 1),
                                                    "-1",
                                                    "99999999999999999999999"};
        answer.set("Content-Length", lengths.at(draw(lengths.size())));
        if (draw(5) == 0) {
          answer.fields.emplace_back("Content-Length", std::to_string(size + 1));
        }
        return;
      }
      case Poison::no_length:
        answer.drop("Content-Length");
        answer.set("Connection", "close");
        return;
      case Poison::chunked:
        chunk_body(answer);
        return;
      case Poison::encoded:
        answer.set("Content-Encoding", draw(2) == 0 ? "gzip" : "br");
        return;
      case Poison::changed_tag:
        answer.set("ETag", "\"" + std::to_string(draw(1'000'000)) + "\"");
        return;
      case Poison::other_bytes: {
        // As a server does whose file has become another one meanwhile.
        const std::string content = bytes_at(request.path);
        const std::size_t from = draw(content.size() - size + 1);
        answer.body = content.substr(from == content.size() - size ? 0 : from, size);
        return;
      }
      case Poison::whole_for_part: {
        Request whole = request;
        whole.first.reset();
        answer = true_answer(whole);
        return;
      }
      case Poison::part_for_whole: {
        const std::size_t first = draw(size + 1);
        answer = with_length(partial_content, answer.body.substr(first));
        answer.set("Content-Range", range_text(first, size == 0 ? 0 : size - 1, size));
        return;
      }
      default:
        spoil_range(request, answer);
    }
  }

  void spoil_range(const Request& request, Answer& answer) {
    const std::string content = bytes_at(request.path);
    const std::size_t first = *request.first;
    const std::size_t whole = content.size();
    switch (draw(7)) {
      case 0:  // one byte too early
        answer.body = content.substr(first - 1);
        answer.set("Content-Range", range_text(first - 1, whole - 1, whole));
        break;
      case 1:  // it ends early
        answer.body.pop_back();
        answer.set("Content-Range", range_text(first, whole - 2, whole));
        break;
      case 2:  // a longer file
        answer.set("Content-Range", range_text(first, whole - 1, whole + 1));
        break;
      case 3:  // the right bytes, and a wrong range
        answer.set("Content-Range", range_text(first + 1, whole, whole + 1));
        break;
      case 4:
        answer.set("Content-Range", "bytes " + std::to_string(first) + "-" + std::to_string(whole - 1) + "/*");
        break;
      case 5:
        answer.drop("Content-Range");
        break;
      default:
        answer.drop("Content-Range");
        answer.set("Content-Type", "multipart/byteranges; boundary=x");
    }
    answer.set("Content-Length", std::to_string(answer.body.size()));
  }

  // --- Answers ---------------------------------------------------------------------------------

  std::string bytes_at(const std::string& path) const { return true_answer({path, {}}).body; }

  Answer older(const Request& request, const Answer& answer) {
    const std::lock_guard lock(mutex);
    std::vector<Answer> others;
    for (const Answer& known : former[request.path]) {
      if (known != answer) {
        others.push_back(known);
      }
    }
    if (others.empty()) {
      return answer;
    }
    // The last one before is the hardest to know as an older one.
    return one_in(2) ? others.back() : others.at(below(others.size()));
  }

  Answer of_other_path(const Request& request, const Answer& answer) {
    const std::lock_guard lock(mutex);
    std::vector<Answer> others;
    for (const auto& [path, known] : former) {
      if (path != request.path && known.back().status == ok) {
        others.push_back(known.back());
      }
    }
    return others.empty() ? answer : others.at(below(others.size()));
  }

  Answer refused() {
    Answer answer = with_length(refusals.at(draw(refusals.size())), "Not now.\n");
    if (draw(2) == 0) {
      answer.set("Retry-After", draw(2) == 0 ? std::to_string(draw(86'400)) : "Fri, 31 Dec 2049 23:59:59 GMT");
    }
    return answer;
  }

  Answer redirected(const Request& request) {
    Answer answer = with_length(redirects.at(draw(redirects.size())), "");
    const std::array<std::string, 4> places = {"/" + request.path, server.url() + request.path,
                                               "http://localhost/" + request.path, "file:///etc/passwd"};
    if (draw(4) != 0) {
      answer.set("Location", places.at(draw(places.size())));
    }
    return answer;
  }

  void chunk_body(Answer& answer) {
    std::string chunks;
    std::string_view rest = answer.body;
    while (!rest.empty()) {
      const std::string_view piece = rest.substr(0, 1 + draw(20'000));
      chunks += chunk(piece);
      rest.remove_prefix(piece.size());
    }
    answer.body = chunks + "0\r\n\r\n";
    answer.drop("Content-Length");
    answer.set("Transfer-Encoding", "chunked");
  }

  std::string broken_chunks(Answer answer) {
    chunk_body(answer);
    switch (draw(3)) {
      case 0:
        answer.body.resize(answer.body.size() - std::min(answer.body.size(), 1 + draw(answer.body.size())));
        break;
      case 1:
        answer.body = "zz\r\n" + answer.body;
        break;
      default:
        answer.body.insert(0, "5\r\nx");
    }
    return answer.text();
  }

  static std::string interim(std::size_t count) {
    std::string answers;
    for (std::size_t at = 0; at < count; ++at) {
      answers += at % 2 == 0 ? "HTTP/1.1 103 Early Hints\r\n\r\n" : "HTTP/1.1 102 Processing\r\n\r\n";
    }
    return answers;
  }

  std::string beginning_of(const std::string& text) { return text.substr(0, draw(text.size())); }

  std::string doubled(const std::string& text) {
    const std::size_t from = draw(text.size());
    const std::size_t count = 1 + draw(std::min<std::size_t>(text.size() - from, 4'096));
    return text.substr(0, from + count) + text.substr(from);
  }

  std::string flipped(std::string bytes) {
    for (std::size_t flips = 1 + draw(4); flips > 0 && !bytes.empty(); --flips) {
      char& byte = bytes[draw(bytes.size())];
      byte = static_cast<char>(static_cast<unsigned char>(byte) ^ (1U << draw(8)));
    }
    return bytes;
  }

  // --- Ways of sending -----------------------------------------------------------------------------

  void stall(Conversation& peer, const std::string& text) {
    peer.send(beginning_of(text));
    stalls(true);
    // Nobody asks twice over one connection, so this ends when the client does.
    peer.read_request();
    stalls(false);
  }
  void stalls(bool now) {
    const std::lock_guard lock(mutex);
    is_stalling = now;
  }

  void send_pieces(Conversation& peer, std::string_view text) {
    for (int piece = 0; piece < 200 && !text.empty(); ++piece) {
      const std::string_view next = text.substr(0, 1 + draw(64));
      peer.send(next);
      text.remove_prefix(next.size());
      if (draw(20) == 0) {
        pause(1);
      }
    }
    peer.send(text);
  }

  static void send_endless_head(Conversation& peer, const Answer& answer) {
    std::string head = answer.head();
    head.resize(head.size() - 2);
    peer.send(head);
    for (std::size_t line = 0; line < endless_lines && peer.is_open(); line += 100) {
      std::string lines;
      for (std::size_t more = 0; more < 100; ++more) {
        lines += "X-Line: " + std::to_string(line + more) + "\r\n";
      }
      peer.send(lines);
    }
  }

  static void send_endless_body(Conversation& peer, Answer answer) {
    answer.drop("Content-Length");
    answer.set("Connection", "close");
    peer.send(answer.text());
    const std::string more(65'536, ' ');
    for (std::size_t sent = 0; sent < endless_bytes && peer.is_open(); sent += more.size()) {
      peer.send(more);
    }
  }

  static void pause(std::size_t milliseconds) { std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds)); }

  // --- Chance, under the lock --------------------------------------------------------------------

  std::size_t below(std::size_t bound) { return static_cast<std::size_t>(random() % bound); }
  bool one_in(std::size_t count) { return below(count) == 0; }
  std::string noise(std::size_t size) {
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
      byte = static_cast<char>(below(256));
    }
    return bytes;
  }
  void note(std::string path, Poison kind) {
    ++injected[kind];
    noted.push_back({std::move(path), kind});
  }
  // The same for those who do not have it.
  std::size_t draw(std::size_t bound) {
    const std::lock_guard lock(mutex);
    return below(bound == 0 ? 1 : bound);
  }
  std::string drawn_noise(std::size_t size) {
    const std::lock_guard lock(mutex);
    return noise(size);
  }

  const std::filesystem::path folder;

  mutable std::mutex mutex;
  std::mt19937_64 random;
  PoisonDose dose;
  bool is_stalling = false;
  bool poisons = false;  // whether the answer on the present connection is to be poisoned
  std::uint64_t connections = 0;
  std::map<Poison, std::uint64_t> injected;
  std::vector<PoisonedConnection> noted;
  std::map<std::string, std::deque<Answer>> former;

  const ServerCertificate strange_certificate;
  ScriptedServer server;
};

PoisonedNetwork::PoisonedNetwork(const CertificateAuthority& authority, std::filesystem::path folder,
                                 std::uint64_t seed)
    : implementation_(std::make_unique<Implementation>(authority, std::move(folder), seed)) {}

PoisonedNetwork::~PoisonedNetwork() = default;

std::string PoisonedNetwork::origin() const {
  std::string url = implementation_->server.url();
  url.pop_back();
  return url;
}

void PoisonedNetwork::poison(const PoisonDose& dose) {
  const std::lock_guard lock(implementation_->mutex);
  implementation_->dose = dose;
}

bool PoisonedNetwork::is_stalled() const {
  const std::lock_guard lock(implementation_->mutex);
  return implementation_->is_stalling;
}

std::vector<PoisonedConnection> PoisonedNetwork::take_connections() {
  const std::lock_guard lock(implementation_->mutex);
  return std::exchange(implementation_->noted, {});
}

std::uint64_t PoisonedNetwork::connections() const {
  const std::lock_guard lock(implementation_->mutex);
  return implementation_->connections;
}

std::map<Poison, std::uint64_t> PoisonedNetwork::counts() const {
  const std::lock_guard lock(implementation_->mutex);
  return implementation_->injected;
}

}  // namespace ravok::testing
