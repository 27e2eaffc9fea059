// A signed repository behind a network that poisons what it carries: at random, by a seed, it delays, drops, resets,
// cuts, doubles and changes answers, puts others in their place, and ends connections while they begin. Whoever poisons
// has the key of the server's certificate, so that TLS alone saves the client from little of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/certificate.hpp"

namespace ravok::testing {

// What can happen to a connection.
enum class Poison {
  // While it begins.
  refused,            // it is reset at once
  no_handshake,       // it ends at once
  cut_handshake,      // it ends within the server's part of the handshake, or is reset there
  no_tls,             // bytes that are no TLS come
  other_certificate,  // the server shows the certificate of an authority that the client does not know
  // Before the answer.
  delayed,  // the answer comes after a few milliseconds
  dropped,  // there is no answer
  stalled,  // a part of the answer comes, and then nothing more while the client waits
  interim,  // some interim answers come before it
  // In its bytes.
  pieces,           // it comes in tiny pieces
  reset,            // the connection is reset within it
  ended,            // the connection ends within it, as TLS wants it
  cut,              // the connection breaks within it
  flipped_and_cut,  // some bits of its body are others, and the connection breaks behind them
  doubled_bytes,    // some of its bytes come twice
  twice,            // it comes twice
  flipped_head,     // some bits of its head are others
  flipped_body,     // some bits of its body are others
  garbage,          // random bytes come in its place
  // Another answer.
  older,       // the answer that this path had earlier
  other_path,  // the answer of another path
  refusal,     // 403, 404, 408, 429, 500, 502 or 503
  redirect,    // to another place, or to none
  // What it says of itself.
  wrong_length,    // it announces more or less than comes, two lengths, or none that is a number
  no_length,       // it announces no length, and its end is that of the connection
  chunked,         // it comes in chunks
  broken_chunks,   // it comes in chunks of wrong sizes, or without an end
  encoded,         // it claims to be encoded
  endless_head,    // its header lines do not end
  endless_body,    // its body does not end
  wrong_range,     // a part of the file that is not the one that was asked for
  other_bytes,     // the right range with bytes of another place in the file
  changed_tag,     // the right part of the file under another entity tag
  whole_for_part,  // the whole file where a part was asked for
  part_for_whole,  // a part of the file where the whole was asked for
};

inline constexpr std::size_t poison_kinds = static_cast<std::size_t>(Poison::part_for_whole) + 1;

const char* poison_name(Poison poison);

// What was done to one connection.
struct PoisonedConnection {
  std::string path;  // below the server's root; empty where the connection ended before a request
  Poison poison = Poison::refused;
};

struct PoisonDose {
  unsigned percent = 0;  // of the connections
  // Whether only requests for targets are poisoned, so that a client gets as far as that.
  bool only_targets = false;
  // Whether a few answers stall. Whoever waits on one must watch is_stalled(), or be patient.
  bool may_stall = false;
};

class PoisonedNetwork {
 public:
  // Serves the files of the folder, as they are when they are asked for. It poisons nothing yet.
  PoisonedNetwork(const CertificateAuthority& authority, std::filesystem::path folder, std::uint64_t seed);
  ~PoisonedNetwork();
  PoisonedNetwork(const PoisonedNetwork&) = delete;
  PoisonedNetwork& operator=(const PoisonedNetwork&) = delete;

  // The root of its addresses, without a slash at its end.
  std::string origin() const;

  // What happens from here on.
  void poison(const PoisonDose& dose);

  // Whether an answer has stopped and the client waits.
  bool is_stalled() const;

  // What has been done since this was called last.
  std::vector<PoisonedConnection> take_connections();

  // How many connections there were, and how often each kind of poison was injected.
  std::uint64_t connections() const;
  std::map<Poison, std::uint64_t> counts() const;

 private:
  struct Implementation;

  const std::unique_ptr<Implementation> implementation_;
};

}  // namespace ravok::testing
