#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// What `zavlo-auth demo` did, in a form both the terminal report and the HTML page read.
/// Times are milliseconds.
struct ZavloDemoReport {
  struct Step {
    std::string via;   ///< "native" or "bridge"
    std::string name;  ///< the operation, or what was checked
    bool succeeded = false;
    double milliseconds = 0;
    std::string detail;  ///< one short line: the outcome, or why it failed
  };
  struct Hop {
    std::string url;
    std::int64_t status = 0;
    std::optional<std::string> redirect;
    std::optional<std::string> failure;
    double start = 0;  ///< from the chain's first connection
    std::optional<double> connect;
    std::optional<double> request;
    std::optional<double> response;
  };
  struct Chain {
    std::string via;
    std::vector<Hop> hops;
  };
  struct Event {
    std::string name;
    std::string status;  ///< empty when the event has none
    std::string requestId;
  };

  std::vector<std::pair<std::string, std::string>> setting;  ///< what ran where: label, text
  std::vector<Step> steps;
  std::vector<Chain> chains;
  std::vector<Event> events;  ///< as the collector received them
  std::size_t eventsSent = 0;
  struct Key {
    std::string via;
    std::string keyId;
    std::string fingerprint;  ///< SHA-256 of the public key (SubjectPublicKeyInfo), hex
  };
  std::vector<Key> keys;  ///< enrolled during the demo; never a private byte

  [[nodiscard]] bool succeeded() const;
  [[nodiscard]] std::map<std::string, std::size_t> eventCounts() const;
};

/// One line per step, as the terminal report prints it while the demo runs.
std::string zavloDemoStepLine(const ZavloDemoReport::Step& step);
/// The rest of the terminal report: hop traces, telemetry counts, the verdict.
std::string zavloDemoSummary(const ZavloDemoReport& report);
/// One self-contained HTML page: no external scripts, fonts or styles.
std::string zavloDemoHtml(const ZavloDemoReport& report);
