// How the check of a repository is told: in lines, in a document, and in what is complained of.
#pragma once

#include <string>

#include "publisher/commands/commands.hpp"
#include "publisher/repository/repository_check.hpp"

namespace ravok {

// Adds what a check has found to a result. `place` names the repository. A client that would fail makes the result a
// failed one.
void tell_check(const std::string& place, const RepositoryCheck& check, CommandResult& result);

}  // namespace ravok
