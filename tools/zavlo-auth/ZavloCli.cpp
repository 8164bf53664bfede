#include "ZavloCli.hpp"

#include <iostream>

void ZavloCliContext::printCompletion(const nlohmann::json& dictionary) {
  // Replacement keeps a line printable even if a server sent bytes that are not UTF-8.
  std::cout << dictionary.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n' << std::flush;
  const auto status = dictionary.find("status");
  exitStatus = (status != dictionary.end() && *status == "SUCCESS") ? 0 : 1;
}

void ZavloCliContext::trace(const std::string& line) const {
  if (options.verbose) std::cerr << line << '\n' << std::flush;
}
