#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "Cellular/ZavloConnectionResult.hpp"

/// The dictionary of a finished chain, made here and nowhere else: an error word with its
/// description, or the final status with the members of a JSON object body laid over it
/// (the body wins a clash, "error" and "httpStatusCode" included).
namespace ZavloChainDictionary {

nlohmann::json convertNetworkErrorToDictionary(const ZavloNetworkError& error);
nlohmann::json convertConnectionResponseToDictionary(const ZavloConnectionResponse& response);
nlohmann::json of(const ZavloChainOutcome& outcome);

}  // namespace ZavloChainDictionary

/// What the flow reads of a final answer's dictionary, each member only when it has the
/// type the flow expects.
struct ZavloFinalAnswer {
  std::optional<std::string> error;             ///< a string "error"
  std::optional<std::string> errorDescription;  ///< a string "error_description"
  std::int64_t httpStatusCode = 0;              ///< 0 unless "httpStatusCode" is an integer
  std::optional<std::string> snaToken;          ///< a string "snaToken"

  static ZavloFinalAnswer read(const ZavloConnectionResponse& response);
};
