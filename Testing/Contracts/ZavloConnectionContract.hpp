#pragma once

// The connection contracts. ZavloConnectionContract: the exchange with a peer, every report
// on the queue, cancel reported once whenever it comes. ZavloConnectionInterfaceRulesContract:
// a required type and prohibited types decide which links a connection may take, and a
// connection waits for one rather than use another. A host instantiates them with drivers:
//
//   struct MyDriver {
//     ZavloQueue& queue();                          // the queue connections start on
//     // A connection to a peer that answers a request with `answer`, or never when empty.
//     std::shared_ptr<ZavloConnection> connect(const std::string& answer);
//     bool runUntil(const std::function<bool()>& done);  // drives the queue; returns done()
//     void settle();                                // gives late reports the time to arrive
//   };
//   INSTANTIATE_TYPED_TEST_SUITE_P(My, ZavloConnectionContract, ::testing::Types<MyDriver>);
//
//   struct MyNetwork {  // one per test case, fresh
//     // A network where each of these types is a link to the same server, the routes
//     // preferring any link over the cellular one; false (and why) when it cannot be built.
//     bool build(const std::vector<ZavloInterfaceType>& present, std::string& whyNot);
//     // One zavloRunHop() to the server; when the connection waits and addedWhileWaiting is
//     // given, a link of that type appears. The outcome's `reached` names the links used.
//     ZavloHopOutcome hop(ZavloConnectionParameters parameters,
//                         std::optional<ZavloInterfaceType> addedWhileWaiting = std::nullopt);
//   };
//   INSTANTIATE_TYPED_TEST_SUITE_P(My, ZavloConnectionInterfaceRulesContract, ::testing::Types<MyNetwork>);
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "Platform/ZavloConnection.hpp"
#include "Testing/Contracts/ZavloConnectionRecorder.hpp"

// Readable failures, found by argument-dependent lookup.
inline void PrintTo(ZavloInterfaceType type, std::ostream* out) { *out << toString(type); }
inline void PrintTo(const ZavloConnectionError& error, std::ostream* out) {
  *out << error.code << " \"" << error.localizedDescription << '"';
}

template <class Driver>
class ZavloConnectionContract : public ::testing::Test {
 protected:
  static constexpr auto kAnswer = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
  Driver driver;
};

TYPED_TEST_SUITE_P(ZavloConnectionContract);

TYPED_TEST_P(ZavloConnectionContract, ReadyThenSendThenReceiveGivesThePeersBytesOnTheQueue) {
  ZavloConnectionRecorder recorder(this->driver.connect(this->kAnswer), this->driver.queue());
  recorder.start();
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("ready"); }))
      << ::testing::PrintToString(recorder.events());
  recorder.send("GET / HTTP/1.1\r\nHost: operator.test\r\n\r\n");
  recorder.receive(1, 65536);
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("received") && recorder.has("sent"); }));
  EXPECT_EQ(recorder.received(), this->kAnswer);
  EXPECT_FALSE(recorder.receiveError());
  const auto events = recorder.events();
  ASSERT_GE(events.size(), 2U);
  EXPECT_EQ(events[0], "preparing");
  EXPECT_EQ(events[1], "ready");
  EXPECT_FALSE(recorder.offQueue());

  recorder.connection().cancel();
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("cancelled"); }));
  EXPECT_EQ(recorder.events().back(), "cancelled");
}

TYPED_TEST_P(ZavloConnectionContract, CancelWhileReceivingReportsCancelledOnceAndDropsTheReceive) {
  ZavloConnectionRecorder recorder(this->driver.connect(""), this->driver.queue());
  recorder.start();
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("ready"); }));
  recorder.send("GET / HTTP/1.1\r\n\r\n");
  recorder.receive(1, 65536);
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("sent"); }));
  this->driver.settle();
  EXPECT_EQ(recorder.receiveCalls(), 0U);  // the peer never answers

  recorder.connection().cancel();
  recorder.connection().cancel();  // a second cancel changes nothing
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("cancelled"); }));
  this->driver.settle();
  EXPECT_EQ(recorder.events(), (std::vector<std::string>{"preparing", "ready", "sent", "cancelled"}));
  EXPECT_FALSE(recorder.offQueue());
}

TYPED_TEST_P(ZavloConnectionContract, ACancelBeforeTheConnectionIsReadyIsTheOnlyReport) {
  const std::vector<std::pair<const char*, std::function<void(ZavloConnectionRecorder&)>>> cases{
      {"right after start, a send and a receive pending",
       [](ZavloConnectionRecorder& recorder) {
         recorder.start();
         recorder.send("GET / HTTP/1.1\r\n\r\n");
         recorder.receive(1, 65536);
         recorder.connection().cancel();
       }},
      {"before start, reported once started",
       [](ZavloConnectionRecorder& recorder) {
         recorder.connection().cancel();
         recorder.start();
       }},
  };
  for (const auto& [when, steps] : cases) {
    SCOPED_TRACE(when);
    ZavloConnectionRecorder recorder(this->driver.connect(this->kAnswer), this->driver.queue());
    steps(recorder);
    ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("cancelled"); }));
    this->driver.settle();
    EXPECT_EQ(recorder.events(), (std::vector<std::string>{"cancelled"}));
  }
}

TYPED_TEST_P(ZavloConnectionContract, ReceiveAfterThePeerFinishedReportsCompleteWithoutData) {
  ZavloConnectionRecorder recorder(this->driver.connect(this->kAnswer), this->driver.queue());
  recorder.start();
  recorder.send("GET / HTTP/1.1\r\n\r\n");
  // Reads until the peer's end, however the bytes were cut.
  for (int round = 0; round < 10 && !recorder.read([](const auto& log) { return log.receivedComplete; }); ++round) {
    const auto before = recorder.receiveCalls();
    recorder.receive(1, 65536);
    ASSERT_TRUE(this->driver.runUntil([&] { return recorder.receiveCalls() > before; }));
  }
  EXPECT_EQ(recorder.received(), this->kAnswer);
  EXPECT_TRUE(recorder.read([](const auto& log) { return log.receivedComplete; }));
  recorder.receive(1, 65536);
  const auto calls = recorder.receiveCalls();
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.receiveCalls() > calls; }));
  EXPECT_EQ(recorder.received(), this->kAnswer);  // nothing more
  EXPECT_TRUE(recorder.read([](const auto& log) { return log.receivedComplete && !log.receiveError; }));
  recorder.connection().cancel();
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("cancelled"); }));
}

REGISTER_TYPED_TEST_SUITE_P(ZavloConnectionContract, ReadyThenSendThenReceiveGivesThePeersBytesOnTheQueue,
                            CancelWhileReceivingReportsCancelledOnceAndDropsTheReceive,
                            ACancelBeforeTheConnectionIsReadyIsTheOnlyReport,
                            ReceiveAfterThePeerFinishedReportsCompleteWithoutData);

/// What one hop through a network of a ZavloConnectionInterfaceRulesContract driver did.
struct ZavloHopOutcome {
  std::vector<std::string> events;
  std::optional<ZavloConnectionError> stateError;
  std::vector<ZavloInterfaceType> reached;  ///< the types whose links carried the connection
  std::string problem;                      ///< why the hop says nothing (the network is not as built)
};

/// One connection: start, one request and one read once ready, then cancel. runFor drives
/// the queue until its condition holds, within a bound. whenWaiting, if given, runs once the
/// connection waits, and the connection is given the time to go on. `reached` is left to
/// the caller, who knows the links.
inline ZavloHopOutcome zavloRunHop(std::shared_ptr<ZavloConnection> connection, ZavloQueue& queue,
                                   const std::function<void(const std::function<bool()>&)>& runFor,
                                   const std::function<void()>& whenWaiting = {}) {
  ZavloConnectionRecorder recorder(std::move(connection), queue);
  recorder.start();
  runFor([&] { return recorder.has("ready") || recorder.has("failed") || recorder.has("waiting"); });
  if (recorder.has("waiting") && whenWaiting) {
    whenWaiting();
    runFor([&] { return recorder.has("ready") || recorder.has("failed"); });
  }
  if (recorder.has("ready")) {
    recorder.send("GET / HTTP/1.1\r\nHost: operator.test\r\nConnection: close\r\n\r\n");
    recorder.receive(1, 65536);
    runFor([&] { return recorder.receiveCalls() > 0; });
  }
  recorder.connection().cancel();
  runFor([&] { return recorder.has("cancelled"); });
  ZavloHopOutcome outcome;
  outcome.events = recorder.events();
  outcome.stateError = recorder.stateError();
  return outcome;
}

template <class Network>
class ZavloConnectionInterfaceRulesContract : public ::testing::Test {};

TYPED_TEST_SUITE_P(ZavloConnectionInterfaceRulesContract);

// Each row: the links present, then hops on that one network, each either waiting (with the
// description of the state's error) or reaching the server through the cellular link alone.
TYPED_TEST_P(ZavloConnectionInterfaceRulesContract, RequiredAndProhibitedTypesChooseTheLinkOrWait) {
  using Type = ZavloInterfaceType;
  constexpr auto kNoCellular = "No usable cellular interface";
  const auto requiredOnly = [] {
    auto parameters = zavloCellularParameters();
    parameters.prohibitedInterfaceTypes.clear();
    return parameters;
  }();
  const auto prohibiting = [](std::vector<Type> types) {
    auto parameters = zavloCellularParameters();
    parameters.requiredInterfaceType.reset();
    parameters.prohibitedInterfaceTypes = std::move(types);
    return parameters;
  };
  struct Hop {
    const char* what;
    ZavloConnectionParameters parameters;
    const char* waitsWith;  ///< null: reaches the server through the cellular link only
  };
  struct Row {
    std::vector<Type> present;
    std::vector<Hop> hops;
  };
  const std::vector<Hop> needCellular{{"required and prohibited", zavloCellularParameters(), kNoCellular},
                                      {"required only", requiredOnly, kNoCellular}};
  const std::vector<Row> rows{
      {{Type::wifi}, needCellular},
      {{Type::wiredEthernet}, needCellular},
      {{Type::loopback}, needCellular},
      {{Type::loopback, Type::wiredEthernet, Type::wifi},
       {needCellular[0],
        needCellular[1],
        {"only prohibited types present, none required", prohibiting({Type::wifi, Type::wiredEthernet, Type::loopback}),
         "No usable network interface"}}},
      {{Type::loopback, Type::wiredEthernet, Type::wifi, Type::cellular},
       {{"required cellular, though the routes prefer the others", zavloCellularParameters(), nullptr}}},
      {{Type::loopback, Type::wiredEthernet, Type::wifi, Type::cellular},
       {{"nothing required, the others prohibited though they come first",
         prohibiting({Type::loopback, Type::wiredEthernet, Type::wifi}), nullptr}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE("present: " + ::testing::PrintToString(row.present));
    TypeParam network;
    std::string whyNot;
    if (!network.build(row.present, whyNot)) GTEST_SKIP() << "the network cannot be built here: " << whyNot;
    for (const auto& hop : row.hops) {
      SCOPED_TRACE(hop.what);
      const auto outcome = network.hop(hop.parameters);
      ASSERT_EQ(outcome.problem, "");
      if (hop.waitsWith != nullptr) {
        EXPECT_EQ(outcome.events, (std::vector<std::string>{"preparing", "waiting", "cancelled"}));
        EXPECT_EQ(outcome.stateError, (ZavloConnectionError{ENETUNREACH, hop.waitsWith}));
        EXPECT_EQ(outcome.reached, std::vector<Type>{});
      } else {
        EXPECT_EQ(outcome.events, (std::vector<std::string>{"preparing", "ready", "sent", "received", "cancelled"}));
        EXPECT_FALSE(outcome.stateError);
        EXPECT_EQ(outcome.reached, std::vector<Type>{Type::cellular});
      }
    }
  }
}

TYPED_TEST_P(ZavloConnectionInterfaceRulesContract, AWaitingConnectionGoesOnOnceACellularLinkAppears) {
  using Type = ZavloInterfaceType;
  TypeParam network;
  std::string whyNot;
  if (!network.build({Type::loopback, Type::wiredEthernet}, whyNot)) {
    GTEST_SKIP() << "the network cannot be built here: " << whyNot;
  }
  const auto hop = network.hop(zavloCellularParameters(), Type::cellular);
  ASSERT_EQ(hop.problem, "");
  ASSERT_GE(hop.events.size(), 6U) << ::testing::PrintToString(hop.events);
  EXPECT_EQ(hop.events[0], "preparing");
  EXPECT_EQ(hop.events[1], "waiting");
  // A real network may change in several steps, each a try that waits again.
  EXPECT_EQ(std::vector<std::string>(hop.events.end() - 5, hop.events.end()),
            (std::vector<std::string>{"preparing", "ready", "sent", "received", "cancelled"}));
  EXPECT_EQ(std::count(hop.events.begin(), hop.events.end(), "failed"), 0);
  EXPECT_EQ(hop.reached, std::vector<Type>{Type::cellular});
}

REGISTER_TYPED_TEST_SUITE_P(ZavloConnectionInterfaceRulesContract, RequiredAndProhibitedTypesChooseTheLinkOrWait,
                            AWaitingConnectionGoesOnOnceACellularLinkAppears);
