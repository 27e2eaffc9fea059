// Finds what a setup window works with, and prints it as a JSON document.
//
//   install SEAL SLOT ARGUMENT...  as an installer does that was built for this seal and whose slot for the place of a
//                                  package in its own file holds this text
//   maintain ARGUMENT...           as the program that removes an installation does

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "app/brand/brand.hpp"
#include "app/screen/setup_subject.hpp"
#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/json.hpp"
#include "domain/paths.hpp"
#include "domain/theme.hpp"
#include "platform/file/managed_paths.hpp"

namespace {

using ravok::Json;

Json described(const ravok::SetupWindow& window) {
  const ravok::SetupSubject& subject = window.subject;
  const ravok::Rgb accent = ravok::theme().accent;
  return {{"data_root", ravok::path_utf8(subject.data_root)},
          {"data_root_chosen", subject.data_root_chosen},
          {"seal", subject.package_seal},
          {"package", ravok::path_utf8(subject.package)},
          {"appended", subject.appended != nullptr},
          {"build", subject.manifests ? Json(subject.manifests->launcher.build_id) : Json()},
          {"game", subject.game ? Json(subject.game->id + " " + subject.game->name) : Json()},
          {"publisher", subject.publisher},
          {"problem", subject.problem},
          {"problem_code", subject.problem_code},
          {"icon", ravok::digest(window.icon, "sha256")},
          {"name", ravok::product_name()},
          {"accent", {accent.red, accent.green, accent.blue}}};
}

ravok::SetupWindow find(const std::vector<std::string>& words) {
  if (words.at(0) == "maintain") {
    const std::vector<std::string> arguments(words.begin() + 1, words.end());
    return ravok::find_maintenance_window(ravok::parse_window_command(arguments, false, ravok::user_data_root));
  }
  const std::vector<std::string> arguments(words.begin() + 3, words.end());
  return ravok::find_install_window(ravok::parse_window_command(arguments, true, ravok::user_data_root), words.at(1),
                                    [&] { return ravok::place_in_slot(words.at(2)); });
}

}  // namespace

int main(int argc, char** argv) {
  ravok::initialize_client_runtime();
  try {
    std::puts(described(find(std::vector<std::string>(argv + 1, argv + argc))).dump().c_str());
    return 0;
  } catch (const ravok::Error& error) {
    std::puts(Json({{"failed", error.code + ": " + error.what()}}).dump().c_str());
    return 1;
  }
}
