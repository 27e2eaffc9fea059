#include "publisher/snapshot_refusals.hpp"

#include <iterator>
#include <utility>

#include "domain/display_text.hpp"

namespace ravok {
namespace {

std::string measure_of(const SnapshotRefusal& refusal) {
  return "limit: " + refusal.limit + "; found: " + refusal.value;
}

std::string line_of(const SnapshotRefusal& refusal) {
  const std::string about = refusal.name.empty() ? "" : refusal.name + ": ";
  return about + refusal.rule + " (" + measure_of(refusal) + ")";
}

std::vector<std::string> lines_of(const std::vector<SnapshotRefusal>& refusals, std::size_t count) {
  if (count == 1) {
    const SnapshotRefusal& only = refusals.front();
    // The message need not have the name, and of two that clash it has one.
    return {only.message, (only.name.empty() ? "" : only.name + ", ") + measure_of(only)};
  }
  std::vector<std::string> lines = {"The snapshot is refused for " + std::to_string(count) + " reasons:"};
  for (const SnapshotRefusal& refusal : refusals) {
    lines.push_back(line_of(refusal));
  }
  if (count > refusals.size()) {
    lines.push_back("and " + std::to_string(count - refusals.size()) + " more");
  }
  return lines;
}

std::string text_of(const std::vector<SnapshotRefusal>& refusals, std::size_t count) {
  if (count == 1) {
    return refusals.front().message;
  }
  std::string text;
  for (const std::string& line : lines_of(refusals, count)) {
    text += (text.empty() ? "" : "\n") + shown_text(line);
  }
  return text;
}

}  // namespace

SnapshotRefused::SnapshotRefused(std::vector<SnapshotRefusal> kept, std::size_t all)
    : Error(kept.front().code, text_of(kept, all)), refusals(std::move(kept)), count(all) {}

std::vector<std::string> SnapshotRefused::lines() const { return lines_of(refusals, count); }

void SnapshotRefusals::add(SnapshotRefusal refusal) {
  ++count_;
  names_.insert(refusal.name);
  std::string name = refusal.name;
  first_.emplace(std::move(name), std::move(refusal));
  if (first_.size() > most_kept) {
    first_.erase(std::prev(first_.end()));
  }
}

void SnapshotRefusals::require_none() const {
  if (count_ == 0) {
    return;
  }
  std::vector<SnapshotRefusal> kept;
  for (const auto& entry : first_) {
    kept.push_back(entry.second);
  }
  throw SnapshotRefused(std::move(kept), count_);
}

}  // namespace ravok
