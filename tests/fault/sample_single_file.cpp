// A small program that reads the package in an installer's file.
//
//   sample_single_file FILE PLACE SEAL

#include <string>
#include <vector>

#include "app/install/appended_package.hpp"
#include "app/install/native_package.hpp"
#include "sample_main.hpp"

namespace ravok {
namespace {

int run(const std::vector<std::string>& arguments) {
  if (arguments.size() != 3) {
    return 64;
  }
  const auto place = parse_appended_place(arguments[1]);
  if (!place) {
    return 64;
  }
  read_native_package(AppendedPackage::in_file(arguments[0], *place), arguments[2], {});
  return 0;
}

}  // namespace
}  // namespace ravok

int main(int argc, char** argv) { return ravok::testing::sample_main(argc, argv, ravok::run); }
