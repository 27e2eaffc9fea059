// The commit that a program was built from. Its source is written by each build, in the library ravok::commit, which
// only programs link, so that a new commit makes nothing but them anew.
#pragma once

#include <string_view>

namespace ravok {

// Returns the whole name of the commit, with "-modified" behind it where the sources were changed after it. Empty for
// a build of sources that lie in no repository of their own.
std::string_view program_commit();

}  // namespace ravok
