// What servers with a script answer, what they were asked, and where tests of them work.
#pragma once

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/scripted_server.hpp"
#include "transport/network_place.hpp"

namespace ravok::testing {

inline const std::string whole = "The whole of it.";  // 16 bytes
inline constexpr const char* partial = "HTTP/1.1 206 Partial Content";
inline constexpr const char* untrusted = "SSL peer certificate or SSH remote key was not OK";

// An answer with these header lines, each with its end.
inline std::string response(const std::string& lines, const std::string& body,
                            const std::string& status = "HTTP/1.1 200 OK") {
  return status + "\r\n" + lines + "\r\n" + body;
}

inline std::string sized(const std::string& body, const std::string& status = "HTTP/1.1 200 OK") {
  return response("Content-Length: " + std::to_string(body.size()) + "\r\n", body, status);
}

// A body of 6 to 20 bytes in two chunks, and behind them these trailer lines.
inline std::string chunked(const std::string& body, const std::string& trailers = {}) {
  const std::string rest = body.substr(5);
  return response("Transfer-Encoding: chunked\r\n", "5\r\n" + body.substr(0, 5) + "\r\n" +
                                                        "0123456789abcdef"[rest.size()] + "\r\n" + rest + "\r\n0\r\n" +
                                                        trailers + "\r\n");
}

inline std::string interim(int count) {
  std::string answers;
  for (int at = 0; at < count; ++at) {
    answers += "HTTP/1.1 103 Early Hints\r\n\r\n";
  }
  return answers;
}

// An answer whose header lines have so many bytes together.
inline std::string with_header_bytes(std::size_t size) {
  std::string lines = "Content-Length: 16\r\n";
  std::size_t left = size - response(lines, {}).size();
  while (left > 0) {
    const std::size_t line = left > 8'192 ? 4'096 : left > 4'096 ? left / 2 : left;
    lines += "X: " + std::string(line - 5, 'x') + "\r\n";
    left -= line;
  }
  return response(lines, whole);
}

// The lines of a request's head, sorted, with its first line at the front.
inline std::vector<std::string> head_of(const std::string& request) {
  std::vector<std::string> lines;
  std::size_t at = 0;
  for (std::size_t end = 0; (end = request.find("\r\n", at)) != at && end != std::string::npos; at = end + 2) {
    lines.push_back(request.substr(at, end - at));
  }
  if (!lines.empty()) {
    std::sort(lines.begin() + 1, lines.end());
  }
  return lines;
}

inline std::string body_of(const std::string& request) { return request.substr(request.find("\r\n\r\n") + 4); }

// A script that gives each connection the next of these answers.
inline ScriptedServer::Script in_turn(std::vector<std::string> answers) {
  return [answers = std::move(answers), next = std::size_t{0}](Conversation& peer) mutable {
    peer.read_request();
    peer.send(answers.at(next++));
  };
}

// The byte of a file that a request asks to begin with.
inline std::size_t first_byte_of(const std::string& request) {
  constexpr std::string_view field = "\r\nRange: bytes=";
  const std::size_t at = request.find(field);
  std::size_t first = 0;
  if (at != std::string::npos) {
    std::from_chars(request.data() + at + field.size(), request.data() + request.size(), first);
  }
  return first;
}

// An answer with a file from the byte on that its request asks for.
inline std::string rest_of(const std::string& content, const std::string& request) {
  const std::size_t first = first_byte_of(request);
  if (first == 0) {
    return sized(content);
  }
  const std::string size = std::to_string(content.size());
  const std::string range = std::to_string(first) + "-" + std::to_string(content.size() - 1) + "/" + size;
  return response("Content-Range: bytes " + range + "\r\n", content.substr(first), partial);
}

// The first half of the file comes, and nothing more until the test ends.
inline void send_half(Conversation& peer) {
  peer.read_request();
  peer.send(response("Content-Length: 16\r\n", whole.substr(0, 8)));
  peer.wait();
}

class ScriptedPlace : public NetworkPlace {
 protected:
  // Runs a server with this script for one download of the whole.
  void download_from(const ScriptedServer::Script& script) const {
    const ScriptedServer server(authority_.issue(), script);
    client(server.url()).download("file", destination(), whole.size(), {});
  }

  static std::string host_of(const ScriptedServer& server) {
    return "Host: localhost:" + std::to_string(server.port());
  }
};

}  // namespace ravok::testing
