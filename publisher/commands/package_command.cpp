#include <cstdint>
#include <memory>
#include <string>

#include "app/brand/brand.hpp"
#include "domain/display_text.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "publisher/commands/commands.hpp"
#include "publisher/commands/results.hpp"
#include "publisher/commands/terminal.hpp"
#include "publisher/publish_package.hpp"
#include "publisher/repository/repository_time.hpp"
#include "publisher/repository_origin.hpp"

namespace ravok {
namespace {

struct PackageOptions {
  PackagePublication publication;
  BrandPublication brand;
  std::string featured_game;
};

void add_options(CLI::App& command, PackageOptions& options) {
  PackagePublication& publication = options.publication;
  command.add_option("DIR", publication.output, "The package's directory, which must not exist yet")->required();
  command
      .add_option("--bootstrap", publication.bootstrap_manifest, "The bootstrap's manifest, with its archive beside it")
      ->required()
      ->type_name("FILE");
  command
      .add_option("--launcher", publication.launcher_manifest, "The launcher's manifest, with its archive beside it")
      ->required()
      ->type_name("FILE");
  command.add_option("--root", publication.root, "The repository's first root document")->required()->type_name("FILE");
  command.add_option("--origin", publication.origin, "The repository's origin, such as https://updates.example.com")
      ->required()
      ->type_name("URL");
  command.add_option("--ca-bundle", publication.ca_bundle, "Certificates to trust for the repository, a PEM file")
      ->type_name("FILE");
  CLI::Option* const name =
      command.add_option("--brand-name", options.brand.name, "The product's own name")->type_name("TEXT");
  CLI::Option* const id = command.add_option("--brand-id", options.brand.id, "The brand's identifier")->type_name("ID");
  CLI::Option* const publisher =
      command.add_option("--brand-publisher", options.brand.publisher, "Who publishes it")->type_name("TEXT");
  name->needs(id, publisher);
  id->needs(name);
  publisher->needs(name);
  command.add_option("--brand-icon", options.brand.icon, "The brand's icon, an .ico file with a PNG image in it")
      ->needs(name)
      ->type_name("FILE");
  command.add_option("--theme", options.brand.theme, "The brand's theme: a directory with theme.json and its files")
      ->needs(name)
      ->type_name("DIR");
  command.add_option("--featured-game", options.featured_game, "The game to offer first")->type_name("ID=NAME");
}

FeaturedGame read_featured_game(const std::string& text) {
  const std::size_t separator = text.find('=');
  require(separator != std::string::npos, "usage", "A featured game is named as ID=NAME: " + text);
  return {text.substr(0, separator), text.substr(separator + 1)};
}

void require_options(const PackagePublication& publication) {
  require_reachable_origin(publication.origin);
  if (publication.brand) {
    const BrandPublication& brand = *publication.brand;
    parse_brand(
        {{"name", brand.name}, {"id", brand.id}, {"publisher", brand.publisher}, {"icon", !brand.icon.empty()}});
  }
  if (publication.featured_game) {
    require_featured_game(*publication.featured_game);
    require(is_displayable(publication.featured_game->name, false), "invalid_native_package",
            "The name of a featured game must be plain text");
  }
}

CommandResult publish(const CLI::App& command, const PackageOptions& options, const CommandRun& run) {
  PackagePublication publication = options.publication;
  if (command.count("--brand-name") > 0) {
    publication.brand = options.brand;
  }
  if (command.count("--featured-game") > 0) {
    publication.featured_game = read_featured_game(options.featured_game);
  }
  judge_options([&] { require_options(publication); });
  PublishedPackage published;
  {
    ProgressLine line("Assembling", !run.json);
    published = publish_package(publication, [&](std::uint64_t done, std::uint64_t total) {
      line.show(done, total);
      return !run.cancelled();
    });
  }
  CommandResult result;
  result.lines = {"Package: " + path_utf8(published.directory) + " (" + shown_size(published.length) + ")",
                  "Seal: " + published.seal};
  if (run.json) {
    result.document = {
        {"package", described_folder(published.directory)}, {"length", published.length}, {"seal", published.seal}};
  }
  tell_root_expiry(published.root_expires, present_tuf_time(), result);
  return result;
}

}  // namespace

PublishCommand add_package_command(CLI::App& program) {
  const auto options = std::make_shared<PackageOptions>();
  CLI::App* const command = program.add_subcommand("package", "Assembles the sealed package of a first installation");
  add_options(*command, *options);
  return {command, [command, options](const CommandRun& run) { return publish(*command, *options, run); }};
}

}  // namespace ravok
