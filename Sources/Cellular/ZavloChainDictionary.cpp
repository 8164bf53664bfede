#include "Cellular/ZavloChainDictionary.hpp"

#include <type_traits>

namespace {

nlohmann::json dictionary(const ZavloPublicErrors::ChainFailure& failure) {
  return {{"error", failure.word}, {"error_description", failure.description}};
}

std::optional<std::string> stringMember(const nlohmann::json& dictionary, const char* key) {
  const auto member = dictionary.find(key);
  if (member == dictionary.end() || !member->is_string()) return std::nullopt;
  return member->get<std::string>();
}

}  // namespace

nlohmann::json ZavloChainDictionary::convertNetworkErrorToDictionary(const ZavloNetworkError& error) {
  return dictionary(ZavloPublicErrors::networkFailure(error.kind, error.message));
}

nlohmann::json ZavloChainDictionary::convertConnectionResponseToDictionary(const ZavloConnectionResponse& response) {
  nlohmann::json dictionary = {{"httpStatusCode", response.status}};
  if (response.body) {
    auto parsed = nlohmann::json::parse(*response.body, nullptr, /*allow_exceptions=*/false);
    if (parsed.is_object()) {
      for (auto& [key, value] : parsed.items()) dictionary[key] = std::move(value);  // the body wins a clash
    }
  }
  return dictionary;
}

nlohmann::json ZavloChainDictionary::of(const ZavloChainOutcome& outcome) {
  return std::visit(
      [](const auto& ending) -> nlohmann::json {
        using Ending = std::decay_t<decltype(ending)>;
        if constexpr (std::is_same_v<Ending, ZavloNetworkError>) {
          return convertNetworkErrorToDictionary(ending);
        } else if constexpr (std::is_same_v<Ending, ZavloChainAbandoned>) {
          return dictionary(ZavloPublicErrors::clientGone());
        } else {
          return convertConnectionResponseToDictionary(ending);
        }
      },
      outcome);
}

ZavloFinalAnswer ZavloFinalAnswer::read(const ZavloConnectionResponse& response) {
  const auto dictionary = ZavloChainDictionary::convertConnectionResponseToDictionary(response);
  ZavloFinalAnswer answer;
  answer.error = stringMember(dictionary, "error");
  answer.errorDescription = stringMember(dictionary, "error_description");
  if (const auto code = dictionary.find("httpStatusCode"); code != dictionary.end() && code->is_number_integer()) {
    answer.httpStatusCode = code->get<std::int64_t>();
  }
  answer.snaToken = stringMember(dictionary, "snaToken");
  return answer;
}
