#include "Core/ZavloAuthException.hpp"

#include "Core/ZavloJsonCoding.hpp"

using namespace ZavloJsonCoding;

void nlohmann::adl_serializer<ZavloAuthException>::to_json(json& json, const ZavloAuthException& exception) {
  json = json::object();
  json["status"] = exception.status();
  putOptional(json, "errorCode", exception.errorCode());
  json["errorMessage"] = exception.errorMessage();
}

ZavloAuthException nlohmann::adl_serializer<ZavloAuthException>::from_json(const json& json) {
  return {requireString(json, "status"), optionalString(json, "errorCode"), requireString(json, "errorMessage")};
}
