// zavlo-fuzz-event-decode: ZavloAuthEventLog::decode on any JSON value, then encode.
//
// Input: JSON text (anything else, or text nesting deeper than the page limit, is
// skipped: the decoder receives parsed values only).
//
// Properties: a value decodes only when it is an object with a string "txnid"; a decoded
// event encodes again, and that coded form decodes to the same event; its dictionary
// form serialises strictly.
#include <cstdint>
#include <string>

#include "Telemetry/ZavloAuthEventLog.hpp"
#include "ZavloFuzzSupport.hpp"

namespace {

bool sameEvent(const ZavloAuthEventLog& a, const ZavloAuthEventLog& b) {
  return a.txnid() == b.txnid() && a.entityId == b.entityId && a.timestamp == b.timestamp &&
         a.requestId == b.requestId && a.authProvider == b.authProvider && a.authType == b.authType &&
         a.eventName == b.eventName && a.failureReason == b.failureReason && a.status == b.status &&
         a.userHandle == b.userHandle && a.token == b.token && a.metaData == b.metaData;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto coded = ZavloFuzz::parseBounded(ZavloFuzz::asText(data, size));
  if (!coded) return 0;

  const auto decoded = ZavloAuthEventLog::decode(*coded);
  const bool hasTxnid = coded->is_object() && coded->contains("txnid") && (*coded)["txnid"].is_string();
  if (!hasTxnid) {
    ZAVLO_FUZZ_CHECK(!decoded, "no event without a string txnid");
    return 0;
  }
  if (!decoded) return 0;  // a field of the wrong type, or metaData text that is not JSON
  const auto& event = *decoded.value();
  ZAVLO_FUZZ_CHECK(event.txnid() == (*coded)["txnid"].get<std::string>(), "the txnid is kept");
  ZAVLO_FUZZ_CHECK(!event.metaData || event.metaData->is_object(), "metadata is an object or absent");

  const auto again = event.encode();
  if (!again) std::fprintf(stderr, "zavlo-fuzz: %s\n", again.error().description.c_str());
  ZAVLO_FUZZ_CHECK(again.hasValue(), "a decoded event encodes");
  const auto roundTrip = ZavloAuthEventLog::decode(again.value());
  ZAVLO_FUZZ_CHECK(roundTrip.hasValue(), "an encoded event decodes");
  ZAVLO_FUZZ_CHECK(sameEvent(event, *roundTrip.value()), "encode then decode gives the same event");
  try {
    ZAVLO_FUZZ_CHECK(ZavloFuzz::isUtf8(event.toDictionary().dump()), "the dictionary form is UTF-8");
  } catch (const nlohmann::json::exception& error) {
    std::fprintf(stderr, "zavlo-fuzz: %s\n", error.what());
    ZAVLO_FUZZ_CHECK(false, "the dictionary form serialises strictly");
  }
  return 0;
}
