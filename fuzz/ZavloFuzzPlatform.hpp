#pragma once

// A test platform whose connections answer with the fuzz input: the k-th connection made,
// whatever its host, answers with the k-th answer, and later ones never answer (their hop
// then ends by the client's time-out). Redirect chains therefore end after at most as many
// answered hops as there are answers.
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/ZavloPlatformWrapper.hpp"
#include "Testing/ZavloTestConnection.hpp"
#include "Testing/ZavloTestPlatform.hpp"

// Built before the wrapper that forwards to it (bases are built in declaration order).
struct ZavloFuzzTestPlatformHolder {
  ZavloTestPlatform test_;
};

class ZavloFuzzPlatform final : private ZavloFuzzTestPlatformHolder, public ZavloPlatformWrapper {
 public:
  ZavloFuzzPlatform() : ZavloPlatformWrapper(test_) {}

  /// The answers of the next connections, in order.
  void queueAnswer(std::string_view bytes) { answers_.emplace_back(bytes); }

  std::shared_ptr<ZavloConnection> makeConnection(const std::string& host, std::uint16_t port,
                                                  ZavloConnectionParameters parameters) override {
    std::optional<ZavloTestConnectionScript> script;
    if (!answers_.empty()) {
      script = ZavloTestConnectionScript::answering(answers_.front());
      answers_.pop_front();
    } else {
      script = ZavloTestConnectionScript::silent();
    }
    ++connections_;
    return std::make_shared<ZavloTestConnection>(host, port, std::move(parameters), std::move(script), [] {
      return std::vector<ZavloNetworkInterface>{{"wwan0", ZavloInterfaceType::cellular}};
    });
  }

  ZavloTestPlatform& test() { return test_; }
  [[nodiscard]] std::size_t connectionCount() const { return connections_; }

 private:
  std::deque<std::string> answers_;
  std::size_t connections_ = 0;
};

/// Splits text at every separator (the pieces keep no separator).
inline std::vector<std::string_view> zavloFuzzSplit(std::string_view text, std::string_view separator,
                                                    std::size_t maxPieces) {
  std::vector<std::string_view> pieces;
  while (pieces.size() + 1 < maxPieces) {
    const auto at = text.find(separator);
    if (at == std::string_view::npos) break;
    pieces.push_back(text.substr(0, at));
    text.remove_prefix(at + separator.size());
  }
  pieces.push_back(text);
  return pieces;
}
