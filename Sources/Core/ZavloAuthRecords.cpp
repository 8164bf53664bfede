// Keyed coding of the five result records: field names are the JSON keys, absent
// optionals are omitted, and decoding never converts between numbers and strings.
#include "Core/ZavloAuthInitSuccessResponse.hpp"
#include "Core/ZavloDeviceBindingEnrollResponse.hpp"
#include "Core/ZavloDeviceBindingSignResponse.hpp"
#include "Core/ZavloDeviceBindingStateResponse.hpp"
#include "Core/ZavloJsonCoding.hpp"
#include "Core/ZavloSnaStartResponse.hpp"

using nlohmann::json;
using namespace ZavloJsonCoding;

void to_json(json& j, const ZavloAuthInitSuccessResponse& r) {
  j = {{"status", r.status}, {"statusCode", r.statusCode}, {"mcc", r.mcc}, {"mnc", r.mnc}};
}
void from_json(const json& j, ZavloAuthInitSuccessResponse& r) {
  r = {requireString(j, "status"), requireString(j, "statusCode"), requireString(j, "mcc"), requireString(j, "mnc")};
}

void to_json(json& j, const ZavloSnaStartResponse& r) {
  j = {{"status", r.status}, {"httpStatusCode", r.httpStatusCode}};
  putOptional(j, "snaToken", r.snaToken);
}
void from_json(const json& j, ZavloSnaStartResponse& r) {
  r = {requireString(j, "status"), requireInt64(j, "httpStatusCode"), optionalString(j, "snaToken")};
}

void to_json(json& j, const ZavloDeviceBindingStateResponse& r) {
  j = {{"status", r.status}, {"state", r.state}};
  putOptional(j, "keyId", r.keyId);
}
void from_json(const json& j, ZavloDeviceBindingStateResponse& r) {
  r = {requireString(j, "status"), requireString(j, "state"), optionalString(j, "keyId")};
}

void to_json(json& j, const ZavloDeviceBindingEnrollResponse& r) {
  j = {{"status", r.status}, {"keyId", r.keyId}, {"publicKey", r.publicKey}, {"algorithm", r.algorithm}};
  putOptional(j, "attestation", r.attestation);
}
void from_json(const json& j, ZavloDeviceBindingEnrollResponse& r) {
  r = {requireString(j, "status"), requireString(j, "keyId"), requireString(j, "publicKey"),
       requireString(j, "algorithm"), optionalString(j, "attestation")};
}

void to_json(json& j, const ZavloDeviceBindingSignResponse& r) {
  j = {{"status", r.status}, {"keyId", r.keyId}, {"signature", r.signature}, {"algorithm", r.algorithm}};
}
void from_json(const json& j, ZavloDeviceBindingSignResponse& r) {
  r = {requireString(j, "status"), requireString(j, "keyId"), requireString(j, "signature"),
       requireString(j, "algorithm")};
}
