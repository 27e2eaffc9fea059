// What is known of a folder that a user considers for an installation. It is found out on a thread of its own, since a
// folder may lie on a volume that does not answer.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "app/install/install_folder.hpp"
#include "app/install/native_package.hpp"
#include "app/screen/latest_answer.hpp"
#include "domain/json.hpp"

namespace ravok {

struct FolderFacts {
  enum class State {
    unknown,      // nothing has been found out yet
    free,         // an installation can begin here
    refused,      // `problem` says why none can
    installed,    // a whole installation
    interrupted,  // one that a setup has begun and not ended
    damaged,      // one whose status cannot be told, as `problem` says, and that can be repaired or removed
  };

  std::string asked;  // the text that was asked about
  State state = State::unknown;
  std::filesystem::path root;       // absolute and normal; empty where the text is no folder
  std::string problem;              // the refusal or the damage, as it is
  std::optional<InstallRoom> room;  // for a folder that is free, where it is known
  Json status;                      // the document of `status` for an installation, otherwise null
};

// Returns the facts of a folder. `package` and `manifests` are those of the package that would be installed;
// `manifests` may be null, and the place and the room are then not judged. Never fails: what fails is a refusal.
FolderFacts inspect_folder(std::string_view text, const std::filesystem::path& package,
                           const PackageManifests* manifests);

// Finds out about one folder after the other, always about the one asked about last. To be used from one thread, whose
// calls never wait, except for the destructor: that waits for an answer under way.
class FolderProbe {
 public:
  using Inspect = std::function<FolderFacts(const std::string& text)>;

  // `first` is the answer until there is another.
  FolderProbe(Inspect inspect, FolderFacts first) : answers_(std::move(inspect), std::move(first)) {}

  // Asks about a folder. A system that has no room for a thread is asked on the caller's.
  void ask(std::string text) { answers_.ask(std::move(text)); }

  // Returns the last answer.
  FolderFacts facts() const { return answers_.last(); }

  // Sets what is called after each answer, mostly on another thread, with no lock held.
  void set_wakeup(std::function<void()> wakeup) { answers_.set_wakeup(std::move(wakeup)); }

 private:
  LatestAnswer<std::string, FolderFacts> answers_;
};

}  // namespace ravok
