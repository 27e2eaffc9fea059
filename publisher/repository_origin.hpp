// The origin of a repository, as a publisher may write it into a package that is installed again and again.
#pragma once

#include <string>

namespace ravok {

// Accepts only an origin that a client can reach. The client itself takes some that lead nowhere: it asks for no number
// behind the colon, and for no host that any name server could know. Fails with "invalid_origin", and as
// require_plain_origin does.
void require_reachable_origin(const std::string& origin);

}  // namespace ravok
