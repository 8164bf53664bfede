#include "Core/ZavloAuthResponseUtils.hpp"
#include "ZavloCli.hpp"

void addCapabilitiesCommand(CLI::App& app, ZavloCliContext& context) {
  app.add_subcommand("capabilities", "Print the capabilities dictionary")->callback([&context] {
    context.printCompletion(ZavloAuthResponseUtils::capabilitiesDictionary());
  });
}
