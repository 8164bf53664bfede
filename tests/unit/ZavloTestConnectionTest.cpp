// The scripted connection of the test platform: what it records and how tests drive it.
#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>

#include "Testing/ZavloTestPlatform.hpp"

using namespace std::chrono_literals;
using State = ZavloConnection::State;
using IpVersion = ZavloConnectionParameters::IpVersion;

namespace {

struct Observed {
  std::vector<State> states;
  std::optional<ZavloConnectionError> stateError;
  std::vector<std::string> received;
  std::vector<bool> complete;
  std::optional<ZavloConnectionError> receiveError;
  std::vector<std::optional<ZavloConnectionError>> sends;
};

ZavloConnectionParameters withIpVersion(IpVersion version) {
  ZavloConnectionParameters parameters;
  parameters.ipVersion = version;
  return parameters;
}

class ZavloTestConnectionTest : public ::testing::Test {
 protected:
  std::shared_ptr<ZavloConnection> open(const std::string& host, std::uint16_t port,
                                        ZavloConnectionParameters parameters = {}) {
    auto connection = platform.makeConnection(host, port, std::move(parameters));
    connection->setStateUpdateHandler([this](State state, const std::optional<ZavloConnectionError>& error) {
      observed.states.push_back(state);
      if (error) observed.stateError = error;
    });
    connection->start(platform.mainQueue());
    return connection;
  }
  void receive(ZavloConnection& connection, std::size_t maximum = 65536) {
    connection.receive(1, maximum, [this](std::vector<std::uint8_t> data, bool isComplete, const auto& error) {
      observed.received.emplace_back(data.begin(), data.end());
      observed.complete.push_back(isComplete);
      observed.receiveError = error;
    });
  }
  void send(ZavloConnection& connection, const std::string& text) {
    connection.send({text.begin(), text.end()}, [this](const auto& error) { observed.sends.push_back(error); });
  }

  ZavloTestPlatform platform;
  Observed observed;
};

TEST_F(ZavloTestConnectionTest, ScriptedHopAnswersOnTheQueueAndRecordsWhatWasAsked) {
  platform.connections().script("op.test", 8080, ZavloTestConnectionScript::answering("HTTP/1.1 200 OK\r\n\r\n"));
  auto connection = open("op.test", 8080, withIpVersion(IpVersion::v6));
  send(*connection, "GET / HTTP/1.1\r\n\r\n");
  receive(*connection);
  EXPECT_TRUE(observed.states.empty());  // nothing happens until the test runs the queue
  platform.runUntilIdle();

  EXPECT_EQ(observed.states, (std::vector<State>{State::preparing, State::ready}));
  EXPECT_EQ(observed.sends, (std::vector<std::optional<ZavloConnectionError>>{std::nullopt}));
  EXPECT_EQ(observed.received, std::vector<std::string>{"HTTP/1.1 200 OK\r\n\r\n"});
  EXPECT_EQ(observed.complete, std::vector<bool>{true});
  const auto made = platform.connections().last();
  ASSERT_TRUE(made);
  EXPECT_EQ(made->host(), "op.test");
  EXPECT_EQ(made->port(), 8080);
  EXPECT_EQ(made->parameters().ipVersion, IpVersion::v6);
  EXPECT_EQ(made->sentText(), "GET / HTTP/1.1\r\n\r\n");
  EXPECT_FALSE(made->wasCancelled());
  connection->cancel();
  EXPECT_TRUE(made->wasCancelled());
}

TEST_F(ZavloTestConnectionTest, OneShotScriptsComeFirstAndMayDependOnTheIpVersion) {
  platform.connections().script("op.test", 80, ZavloTestConnectionScript::answering("any"));
  platform.connections().scriptNext("op.test", 80, ZavloTestConnectionScript::failing({ENETUNREACH, "unreachable"}),
                                    IpVersion::v6);
  auto first = open("op.test", 80, withIpVersion(IpVersion::any));  // the one-shot is for v6 only
  auto second = open("op.test", 80, withIpVersion(IpVersion::v6));
  auto third = open("op.test", 80, withIpVersion(IpVersion::v6));  // the one-shot is used up
  platform.runUntilIdle();
  const auto states = [&](int index) { return platform.connections().all()[index]->reportedStates(); };
  EXPECT_EQ(states(0), (std::vector<State>{State::preparing, State::ready}));
  EXPECT_EQ(states(1), (std::vector<State>{State::preparing, State::failed}));
  EXPECT_EQ(states(2), (std::vector<State>{State::preparing, State::ready}));
  EXPECT_EQ(observed.stateError->localizedDescription, "unreachable");
  EXPECT_EQ(platform.connections().to("op.test", 80).size(), 3U);
  EXPECT_TRUE(platform.connections().to("op.test", 443).empty());
}

TEST_F(ZavloTestConnectionTest, AnswersAreAByteStreamCutAtEachReceivesMaximum) {
  platform.connections().script("op.test", 80, ZavloTestConnectionScript::answering("0123456789"));
  auto connection = open("op.test", 80);
  receive(*connection, 4);
  platform.runUntilIdle();
  receive(*connection, 4);
  receive(*connection, 4);
  receive(*connection, 4);
  platform.runUntilIdle();
  EXPECT_EQ(observed.received, (std::vector<std::string>{"0123", "4567", "89", ""}));
  EXPECT_EQ(observed.complete, (std::vector<bool>{false, false, true, true}));
}

TEST_F(ZavloTestConnectionTest, UnscriptedConnectionIsDrivenByTheTest) {
  auto connection = open("op.test", 80);
  auto driven = platform.connections().last();
  EXPECT_THROW(platform.connections().make("x", 1, {})->moveTo(State::ready), std::logic_error);  // not started
  send(*connection, "a");
  receive(*connection, 100);
  platform.runUntilIdle();
  EXPECT_EQ(observed.states, std::vector<State>{State::preparing});
  EXPECT_EQ(driven->pendingSendCount(), 1U);
  ASSERT_EQ(driven->pendingReceives().size(), 1U);
  EXPECT_EQ(driven->pendingReceives()[0].maximumLength, 100U);

  driven->moveTo(State::ready);
  EXPECT_TRUE(driven->completeSend(ZavloConnectionError{EPIPE, "Broken pipe"}));
  EXPECT_FALSE(driven->completeSend());
  EXPECT_TRUE(driven->failReceive({ECONNRESET, "Connection reset by peer"}));
  platform.runUntilIdle();
  EXPECT_EQ(observed.states, (std::vector<State>{State::preparing, State::ready}));
  ASSERT_EQ(observed.sends.size(), 1U);
  EXPECT_EQ(observed.sends[0]->code, EPIPE);
  EXPECT_EQ(observed.receiveError->code, ECONNRESET);

  receive(*connection);
  driven->moveTo(State::failed, ZavloConnectionError{ENETDOWN, "Network is down"});
  platform.runUntilIdle();
  EXPECT_EQ(observed.states.back(), State::failed);
  EXPECT_EQ(observed.receiveError->code, ENETDOWN);  // a failure ends what was pending
}

TEST_F(ZavloTestConnectionTest, NothingArrivesAfterCancelledEvenWhatWasAlreadyQueued) {
  platform.connections().script("op.test", 80, ZavloTestConnectionScript::answering("x"));
  auto connection = open("op.test", 80);
  receive(*connection);  // the answer is queued now
  connection->cancel();
  connection->cancel();
  platform.runUntilIdle();
  EXPECT_EQ(observed.states, std::vector<State>{State::cancelled});
  EXPECT_TRUE(observed.received.empty());
  EXPECT_EQ(platform.connections().last()->cancelCallCount(), 2);
  platform.connections().last()->moveTo(State::ready);  // ignored after cancel
  platform.runUntilIdle();
  EXPECT_EQ(observed.states, std::vector<State>{State::cancelled});
}

}  // namespace

namespace {

const ZavloNetworkInterface kWifi{"wlan0", ZavloInterfaceType::wifi};
const ZavloNetworkInterface kEthernet{"eth0", ZavloInterfaceType::wiredEthernet};
const ZavloNetworkInterface kCellular{"rmnet1", ZavloInterfaceType::cellular};

ZavloConnectionParameters cellularOnly() {
  ZavloConnectionParameters parameters;
  parameters.requiredInterfaceType = ZavloInterfaceType::cellular;
  parameters.prohibitedInterfaceTypes = {ZavloInterfaceType::wifi, ZavloInterfaceType::loopback,
                                         ZavloInterfaceType::wiredEthernet};
  return parameters;
}

TEST_F(ZavloTestConnectionTest, InterfacesAreThoseOfThePathWhenTheConnectionStarts) {
  platform.connections().script("op.test", 80, ZavloTestConnectionScript::answering("HTTP/1.1 200 OK\r\n\r\n"));
  platform.pathMonitors().setCurrentPath(ZavloTestPathMonitorController::satisfiedPath({kWifi}));
  auto connection = platform.makeConnection("op.test", 80, cellularOnly());
  // The cellular link comes up between making the connection and starting it.
  platform.pathMonitors().setCurrentPath(ZavloTestPathMonitorController::satisfiedPath({kWifi, kEthernet, kCellular}));
  connection->setStateUpdateHandler([this](State state, const auto&) { observed.states.push_back(state); });
  connection->start(platform.mainQueue());
  receive(*connection);
  platform.runUntilIdle();
  EXPECT_EQ(observed.states, (std::vector<State>{State::preparing, State::ready}));
  EXPECT_EQ(platform.connections().last()->usedInterface(), kCellular);
  EXPECT_EQ(observed.received, (std::vector<std::string>{"HTTP/1.1 200 OK\r\n\r\n"}));
}

// As a real platform: no allowed interface means waiting, with the work asked meanwhile
// pending, until the path offers one; then the script runs as if just started.
TEST_F(ZavloTestConnectionTest, WithoutAnAllowedInterfaceItWaitsUntilThePathOffersOne) {
  platform.connections().script("op.test", 80, ZavloTestConnectionScript::answering("HTTP/1.1 200 OK\r\n\r\n"));
  platform.pathMonitors().setCurrentPath(ZavloTestPathMonitorController::satisfiedPath({kWifi, kEthernet}));
  auto connection = platform.makeConnection("op.test", 80, cellularOnly());
  send(*connection, "GET / HTTP/1.1\r\n\r\n");  // made before start: waits for the outcome
  receive(*connection);
  connection->setStateUpdateHandler([this](State state, const std::optional<ZavloConnectionError>& error) {
    observed.states.push_back(state);
    observed.stateError = error;
  });
  connection->start(platform.mainQueue());
  platform.advanceBy(1h);
  EXPECT_EQ(observed.states, (std::vector<State>{State::preparing, State::waiting}));
  EXPECT_EQ(observed.stateError, (ZavloConnectionError{ENETUNREACH, "No usable cellular interface"}));
  EXPECT_TRUE(observed.sends.empty());
  EXPECT_TRUE(observed.received.empty());
  EXPECT_FALSE(platform.connections().last()->usedInterface());

  platform.pathMonitors().setCurrentPath(ZavloTestPathMonitorController::satisfiedPath({kWifi}));
  platform.runUntilIdle();
  EXPECT_EQ(observed.states.size(), 2U) << "still no cellular interface";

  platform.pathMonitors().setCurrentPath(ZavloTestPathMonitorController::satisfiedPath({kWifi, kCellular}));
  platform.runUntilIdle();
  EXPECT_EQ(observed.states, (std::vector<State>{State::preparing, State::waiting, State::preparing, State::ready}));
  EXPECT_EQ(platform.connections().last()->usedInterface(), kCellular);
  EXPECT_EQ(observed.sends, (std::vector<std::optional<ZavloConnectionError>>{std::nullopt}));
  EXPECT_EQ(observed.received, (std::vector<std::string>{"HTTP/1.1 200 OK\r\n\r\n"}));
}

TEST_F(ZavloTestConnectionTest, UnrestrictedConnectionTakesTheFirstInterfaceOrNoneAndFollowsItsScript) {
  platform.connections().script("op.test", 80, ZavloTestConnectionScript::silent());
  platform.pathMonitors().setCurrentPath(ZavloTestPathMonitorController::satisfiedPath({kWifi, kCellular}));
  open("op.test", 80);
  platform.pathMonitors().setCurrentPath(ZavloTestPathMonitorController::unsatisfiedPath());
  open("op.test", 80);
  platform.runUntilIdle();
  const auto made = platform.connections().all();
  ASSERT_EQ(made.size(), 2U);
  EXPECT_EQ(made[0]->usedInterface(), kWifi);
  EXPECT_FALSE(made[1]->usedInterface());
  EXPECT_EQ(observed.states, (std::vector<State>{State::preparing, State::ready, State::preparing, State::ready}));
}

}  // namespace
