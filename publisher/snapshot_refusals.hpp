// What is refused of a tree that is to become a snapshot, all of it at once.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "domain/error.hpp"

namespace ravok {

struct SnapshotRefusal {
  std::string code;
  std::string message;  // where nothing else is refused: the client's own, where it has one
  std::string name;     // the path below the tree; empty for the tree as a whole
  std::string rule;
  std::string limit;  // what the rule allows, with its unit
  std::string value;  // what was found
};

// Takes refusals one after the other. It may throw and so end the work at the first of them.
using RefuseSnapshot = std::function<void(SnapshotRefusal refusal)>;

// The failure that refusals become. It has the code of the first of them, in the order of their names; one about the
// tree as a whole comes before all others. The message of a single one is its own. For several, it is a line with
// their number and a line for each that is kept, and a last one with the number of the others.
class SnapshotRefused : public Error {
 public:
  // `refusals` are the first of `count`, one at least.
  SnapshotRefused(std::vector<SnapshotRefusal> refusals, std::size_t count);

  // What to show a user: the lines of the message, and for a single refusal one more with its name, limit and value. A
  // name in them is as the tree has it; in the message of several refusals it is escaped for a terminal.
  std::vector<std::string> lines() const;

  std::vector<SnapshotRefusal> refusals;
  std::size_t count;
};

// Counts refusals and keeps the first 20.
class SnapshotRefusals {
 public:
  static constexpr std::size_t most_kept = 20;

  void add(SnapshotRefusal refusal);
  std::size_t count() const { return count_; }
  // Whether something was refused of this path.
  bool concern(const std::string& name) const { return names_.contains(name); }
  // Fails with SnapshotRefused when there is a refusal.
  void require_none() const;

 private:
  std::multimap<std::string, SnapshotRefusal> first_;
  std::set<std::string> names_;
  std::size_t count_ = 0;
};

}  // namespace ravok
