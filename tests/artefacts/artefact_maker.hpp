// Makes the artefacts of the present version: each a folder with what the programs of this tree write.
//
// Keys and random names differ each time, and so does whatever is signed or named by them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "fault/fault_runner.hpp"
#include "support/process.hpp"
#include "support/temporary_root.hpp"

namespace ravok::testing {

class ArtefactMaker {
 public:
  using Arguments = std::vector<std::string>;

  // `output` is where the artefacts' folders are made; `self` is this program, which also carries out single steps.
  ArtefactMaker(const std::filesystem::path& output, const std::filesystem::path& self);

  // Make all of them. Each begins with what those before it have made.
  void make_publications() const;
  void make_repository() const;
  void make_packages() const;
  void make_installations() const;
  void make_updates() const;
  void make_interrupted_setups() const;
  void make_interrupted_updates() const;
  void make_games() const;

  // Puts kept_root in the place of every artefact's own path.
  void name_places() const;

 private:
  // Where a program is killed, or its call fails: at its call number `nth` of a function whose name begins so, on a
  // path that has this text in it; a path ends in "$" here.
  struct Cut {
    std::string function;
    std::string path_part;
    std::uint64_t nth = 1;
    FaultMode mode = FaultMode::exit;
  };

  std::filesystem::path artefact(const std::string& name) const { return output_ / name; }
  std::filesystem::path data(const std::string& name) const { return output_ / name / "data"; }
  // A new artefact, which has an empty home, or one that goes on from another.
  std::filesystem::path new_artefact(const std::string& name) const;
  std::filesystem::path artefact_from(const std::string& name, const std::string& from) const;

  // Run a program, which must end with this code.
  ProgramResult run(const ProgramRun& run, int exit_code = 0) const;
  ProgramResult publish(const Arguments& arguments, int exit_code = 0) const;
  ProgramRun step(const Arguments& arguments) const { return {self_, arguments, {}, ""}; }
  // Makes an artefact of what a program leaves that is killed there. It goes on from another artefact, or begins anew.
  void cut(const std::string& name, const std::string& from, const std::function<ProgramRun()>& run,
           const Cut& place) const;

  // Publish builds, each into a folder of its own, and return their manifests.
  std::filesystem::path make_launcher(const std::string& build, const std::string& console) const;
  std::filesystem::path make_bootstrap(const std::string& build) const;
  std::filesystem::path make_game(const std::string& build) const;
  void release(const std::vector<std::filesystem::path>& manifests) const;

  // The run of the installer of a package, for an artefact.
  ProgramRun setup(const std::string& name, const std::string& package, const std::string& command) const;
  ProgramRun maintenance(const std::string& name, Arguments arguments) const;
  // The start of an artefact's client.
  ProgramRun start(const std::string& name, const Arguments& arguments) const;
  void write_player_data(const std::string& name) const;

  const std::filesystem::path output_;
  const std::filesystem::path self_;
  const TemporaryRoot work_;
};

// Carries out a step of a client, or of one that dies in it, and returns the exit code.
int run_artefact_step(const std::vector<std::string>& arguments);

}  // namespace ravok::testing
