// kovathumb: the library's command-line front.
#include <string.h>

#include <iostream>

#include "subcommands.h"
#include "kovathumb/error.h"
#include "kovathumb/log.h"
#include "kovathumb/version.h"

namespace {

// CLI11 takes an unknown word for a stray argument and says only that a
// subcommand is required; name the word and the real ones instead.
bool UnknownSubcommand(const CLI::App& app, int argc, char** argv) {
  if (argc < 2 || argv[1][0] == '-') return false;
  std::string names;
  for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (sub->get_name() == argv[1]) return false;
    names += (names.empty() ? "" : ", ") + sub->get_name();
  }
  std::cerr << "kovathumb: unknown subcommand '" << argv[1] << "'; the subcommands are: " << names
            << "\nRun 'kovathumb --help' for more." << std::endl;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace kovathumb::tool;
  CLI::App app{"Thumbnails of photos and videos"};
  app.name("kovathumb");
  app.require_subcommand(1);
  app.set_version_flag("-V,--version", std::string("kovathumb ") + kovathumb::Version());
  bool verbose = false;
  app.add_flag("-v,--verbose", verbose, "also write the library's log lines to standard error");
  app.fallthrough();  // -v after the subcommand too
  int status = kExitOk;
  AddInfoCommand(app, &status);
  AddConvertCommand(app, &status);
  AddGetCommand(app, &status);
  AddMakeCommand(app, &status);
  AddImportCommand(app, &status);
  AddIndexCommand(app, &status);
  AddWatchCommand(app, &status);
  AddPruneCommand(app, &status);
  if (UnknownSubcommand(app, argc, argv)) return kExitUsage;
  app.parse_complete_callback([&verbose] {
    if (verbose) kovathumb::SetLogToStderr(true);
  });
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e, std::cerr, std::cerr);
    return kExitUsage;
  } catch (const kovathumb::Error& e) {
    std::cerr << e.what() << std::endl;
    return kExitFailed;
  } catch (const std::exception& e) {
    std::cerr << "kovathumb: " << e.what() << std::endl;
    return kExitFailed;
  }
  return status;
}
