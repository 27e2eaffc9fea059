// One call to the file system of a program's worker, held for as long as a test likes. held_call.cpp is its other half.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "platform/file/handle.hpp"
#include "support/temporary_root.hpp"

namespace ravok::testing {

class HeldCall {
 public:
  // Holds the first call of this name by another thread than the first whose path ends so.
  HeldCall(const std::string& call, const std::string& path_end);

  // What the program needs in its environment.
  std::map<std::string, std::string> environment() const;

  // Waits until the program makes the call. Fails when `has_ended` says that it no longer can.
  void wait(const std::function<bool()>& has_ended);
  // Lets the call go on.
  void release();

 private:
  const TemporaryRoot root_;
  const std::string call_;
  Handle reached_;
  Handle go_;
};

}  // namespace ravok::testing
