// The connection contract, run on the scripted test connection and on the Linux
// connection over loopback (with lo declared cellular), so that the double cannot drift
// from the real thing.
#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Testing/Network/ZavloTestServer.hpp"
#include "Testing/ZavloTestPlatform.hpp"
#include "ZavloConnectionRecorder.hpp"

using namespace std::chrono_literals;
using State = ZavloConnection::State;

namespace {

constexpr auto kAnswer = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";

struct TestDoubleDriver {
  ZavloTestPlatform platform;
  ZavloQueue& queue() { return platform.mainQueue(); }
  // A peer that answers the request with answer, or never answers when it is empty.
  std::shared_ptr<ZavloConnection> connect(const std::string& answer) {
    platform.connections().script(
        "operator.test", 80,
        answer.empty() ? ZavloTestConnectionScript::silent() : ZavloTestConnectionScript::answering(answer));
    return platform.makeConnection("operator.test", 80, zavloCellularParameters());
  }
  bool runUntil(const std::function<bool()>& done) {
    for (int i = 0; i < 100 && !done(); ++i) platform.advanceBy(10ms);
    return done();
  }
  void settle() { platform.advanceBy(10s); }
};

struct LinuxDriver {
  ZavloLinuxPlatform platform{ZavloLinuxPlatform::Options{.hostApplicationVersion = {}, .cellularInterfaces = {"lo"}}};
  std::unique_ptr<ZavloTestServer> server;
  ZavloQueue& queue() { return platform.runLoop(); }
  std::shared_ptr<ZavloConnection> connect(const std::string& answer) {
    server = std::make_unique<ZavloTestServer>(answer.empty() ? ZavloTestServerReply::neverAnswer()
                                                              : ZavloTestServerReply::answer(answer));
    return platform.makeConnection("127.0.0.1", server->port(), zavloCellularParameters());
  }
  bool runUntil(const std::function<bool()>& done) { return platform.runLoop().runUntil(done, 10s); }
  // Gives late reports, which must not come, the time to arrive.
  void settle() {
    platform.runLoop().runUntil([] { return false; }, 100ms);
  }
};

template <class Driver>
class ZavloConnectionContract : public ::testing::Test {
 protected:
  Driver driver;
};

using Drivers = ::testing::Types<TestDoubleDriver, LinuxDriver>;
TYPED_TEST_SUITE(ZavloConnectionContract, Drivers);

TYPED_TEST(ZavloConnectionContract, ReadyThenSendThenReceiveGivesThePeersBytesOnTheQueue) {
  ZavloConnectionRecorder recorder(this->driver.connect(kAnswer), this->driver.queue());
  recorder.start();
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("ready"); }))
      << ::testing::PrintToString(recorder.events());
  recorder.send("GET / HTTP/1.1\r\nHost: operator.test\r\n\r\n");
  recorder.receive(1, 65536);
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("received") && recorder.has("sent"); }));
  EXPECT_EQ(recorder.received(), kAnswer);
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

TYPED_TEST(ZavloConnectionContract, CancelWhileReceivingReportsCancelledOnceAndDropsTheReceive) {
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

TYPED_TEST(ZavloConnectionContract, CancelRightAfterStartReportsOnlyCancelled) {
  ZavloConnectionRecorder recorder(this->driver.connect(kAnswer), this->driver.queue());
  recorder.start();
  recorder.send("GET / HTTP/1.1\r\n\r\n");
  recorder.receive(1, 65536);
  recorder.connection().cancel();
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("cancelled"); }));
  this->driver.settle();
  EXPECT_EQ(recorder.events(), (std::vector<std::string>{"cancelled"}));
}

TYPED_TEST(ZavloConnectionContract, CancelBeforeStartIsReportedOnceStarted) {
  ZavloConnectionRecorder recorder(this->driver.connect(kAnswer), this->driver.queue());
  recorder.connection().cancel();
  recorder.start();
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("cancelled"); }));
  this->driver.settle();
  EXPECT_EQ(recorder.events(), (std::vector<std::string>{"cancelled"}));
}

TYPED_TEST(ZavloConnectionContract, ReceiveAfterThePeerFinishedReportsCompleteWithoutData) {
  ZavloConnectionRecorder recorder(this->driver.connect(kAnswer), this->driver.queue());
  recorder.start();
  recorder.send("GET / HTTP/1.1\r\n\r\n");
  // Reads until the peer's end, however the bytes were cut.
  for (int round = 0; round < 10 && !recorder.read([](const auto& log) { return log.receivedComplete; }); ++round) {
    const auto before = recorder.receiveCalls();
    recorder.receive(1, 65536);
    ASSERT_TRUE(this->driver.runUntil([&] { return recorder.receiveCalls() > before; }));
  }
  EXPECT_EQ(recorder.received(), kAnswer);
  EXPECT_TRUE(recorder.read([](const auto& log) { return log.receivedComplete; }));
  recorder.receive(1, 65536);
  const auto calls = recorder.receiveCalls();
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.receiveCalls() > calls; }));
  EXPECT_EQ(recorder.received(), kAnswer);  // nothing more
  EXPECT_TRUE(recorder.read([](const auto& log) { return log.receivedComplete && !log.receiveError; }));
  recorder.connection().cancel();
  ASSERT_TRUE(this->driver.runUntil([&] { return recorder.has("cancelled"); }));
}

}  // namespace
