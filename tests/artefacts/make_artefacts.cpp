// Makes the artefacts of the present version; see artefact_maker.hpp.
//
//   make_artefacts FOLDER    makes each as a folder in FOLDER, which must be empty
//   make_artefacts STEP ...  carries out one step of a client, for the former

#include <filesystem>
#include <functional>
#include <iostream>
#include <stdexcept>

#include <unistd.h>

#include "app/launcher/launcher_cleanup.hpp"
#include "app/launcher/launcher_store.hpp"
#include "artefacts/artefact_maker.hpp"
#include "artefacts/kept_client.hpp"
#include "artefacts/kept_folder.hpp"
#include "domain/crypto.hpp"
#include "fault/sample_main.hpp"
#include "platform/process/process.hpp"
#include "support/fast_volume.hpp"

namespace ravok::testing {

ArtefactMaker::ArtefactMaker(const std::filesystem::path& output, const std::filesystem::path& self)
    : output_(std::filesystem::canonical(output)), self_(self), work_(fast_volume()) {}

std::filesystem::path ArtefactMaker::new_artefact(const std::string& name) const {
  std::filesystem::create_directories(artefact(name) / "home/.local/share");
  return artefact(name);
}

std::filesystem::path ArtefactMaker::artefact_from(const std::string& name, const std::string& from) const {
  copy_artefact(artefact(from), artefact(name));
  return artefact(name);
}

ProgramResult ArtefactMaker::run(const ProgramRun& run, int exit_code) const {
  ProgramResult result = run_program(run);
  if (result.exit_code != exit_code) {
    std::string words = run.program;
    for (const std::string& argument : run.arguments) {
      words += " " + argument;
    }
    throw std::runtime_error(words + "\nended with " + std::to_string(result.exit_code) + ": " + result.output +
                             result.errors);
  }
  return result;
}

ProgramResult ArtefactMaker::publish(const Arguments& arguments, int exit_code) const {
  return run({RAVOK_PUBLISH, arguments, {}, ""}, exit_code);
}

void ArtefactMaker::name_places() const {
  for (const auto& entry : std::filesystem::directory_iterator(output_)) {
    rename_in_files(entry.path(), entry.path().native(), kept_root);
  }
}

int run_artefact_step(const std::vector<std::string>& arguments) {
  const std::string action = arguments.at(0);
  const std::filesystem::path data = arguments.at(1);
  if (action == "stage" || action == "bootstrap" || action == "refresh") {
    KeptRepository repository(arguments.at(2));
    if (arguments.size() == 4) {
      repository.breaks_after = std::stoull(arguments[3]);
    }
    if (action == "stage") {
      std::cout << stage_launcher(data, repository).dump() << '\n';
    } else if (action == "bootstrap") {
      std::cout << stage_bootstrap(data, repository) << '\n';
    } else {
      KeptTuf(data, repository).client().refresh();
    }
  } else if (action == "apply") {
    std::cout << apply_bootstrap(data) << '\n';
  } else if (action == "try") {
    static_cast<void>(try_candidate(data));
  } else if (action == "try-and-die") {
    const LauncherStore store(data);
    // The bootstrap dies once the launcher has said all that it has to say.
    run_launcher_attempt(store, {"cli", {"self", "status"}, std::chrono::milliseconds(30'000), {}},
                         [](const LauncherProgram& program) -> LauncherChild {
                           static_cast<void>(start_and_wait(program));
                           _exit(0);
                         });
  } else if (action == "clean") {
    std::cout << clean_launcher_store(LauncherStore(data)).dump() << '\n';
  } else {
    return 64;
  }
  return 0;
}

namespace {

int make_artefacts(const std::vector<std::string>& arguments) {
  initialize_client_runtime();
  if (arguments.size() > 1) {
    return run_artefact_step(arguments);
  }
  const ArtefactMaker maker(arguments.at(0), current_executable_path());
  maker.make_publications();
  maker.make_repository();
  maker.make_packages();
  maker.make_installations();
  maker.make_updates();
  maker.make_interrupted_setups();
  maker.make_interrupted_updates();
  maker.make_games();
  maker.name_places();
  return 0;
}

}  // namespace
}  // namespace ravok::testing

int main(int argc, char** argv) { return ravok::testing::sample_main(argc, argv, ravok::testing::make_artefacts); }
