// What a started game says of itself: that it starts, is ready or has ended cleanly, and what a crash report would
// tell.
#pragma once

#include <cstdint>
#include <string>

#include "domain/json.hpp"

namespace ravok {

// What the client itself fixed when it started the game.
struct SessionBinding {
  std::string session_id;
  std::string nonce;
  std::string game_id;
  std::string build_id;
  std::uint64_t pid = 0;
};

// Returns the record that a game wrote, once it is known to be of this session and to keep every rule. `last_sequence`
// is the sequence number of the last record that was accepted, 0 before the first; the same number may come again. The
// texts are still the game's own: an attachment's path may name anything, and keys that are not known are kept.
// Fails with "session_replay" for a sequence number that is 0 or below the last, and with "invalid_session" for every
// other rule.
Json validate_sdk_record(Json record, const SessionBinding& binding, std::uint64_t last_sequence);

}  // namespace ravok
