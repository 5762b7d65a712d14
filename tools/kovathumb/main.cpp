// kovathumb: the library's command-line front.
#include <iostream>

#include "common.h"
#include "kovathumb/error.h"

int main(int argc, char** argv) {
  using namespace kovathumb::tool;
  CLI::App app{"Thumbnails of photos and videos"};
  app.name("kovathumb");
  app.require_subcommand(1);
  int status = kExitOk;
  AddInfoCommand(app, &status);
  AddConvertCommand(app, &status);
  AddGetCommand(app, &status);
  AddMakeCommand(app, &status);
  AddImportCommand(app, &status);
  AddIndexCommand(app, &status);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
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
