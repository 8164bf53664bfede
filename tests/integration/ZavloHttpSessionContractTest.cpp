// The HTTP session contract on the test session and on the Linux libcurl session against
// a loopback server, so that the double cannot drift from the real thing.
#include <gtest/gtest.h>

#include "Platform/Linux/Network/ZavloLinuxHttpSession.hpp"
#include "Testing/Contracts/ZavloHttpSessionContract.hpp"
#include "tools/peers/ZavloHttpTestServer.hpp"
#include "Testing/ZavloTestPlatform.hpp"

using namespace std::chrono_literals;

namespace {

struct TestSessionDriver {
  ZavloTestPlatform platform;
  std::shared_ptr<ZavloHttpSession> makeSession(const ZavloHttpSessionConfiguration& configuration) {
    return platform.makeHttpSession(configuration);
  }
  std::string url(const std::string& path) { return "http://collector.test" + path; }
  bool waitForRequests(std::size_t count) { return platform.http().requestCount() >= count; }
  std::string body(std::size_t i) { return platform.http().exchanges().at(i).bodyText(); }
  std::vector<std::pair<std::string, std::string>> headers(std::size_t i) {
    return platform.http().exchanges().at(i).request.headers;
  }
  bool answer(std::size_t i, int status, const std::string& body) { return platform.http().respond(i, status, body); }
  // Virtual time passes at once.
  bool settle(ZavloHttpOutcomes& outcomes, std::size_t count, std::chrono::milliseconds span) {
    platform.advanceBy(span);
    return outcomes.size() >= count;
  }
};

struct LinuxSessionDriver {
  ZavloHttpTestServer server{ZavloHttpTestServer::neverAnswer()};
  std::shared_ptr<ZavloHttpSession> makeSession(const ZavloHttpSessionConfiguration& configuration) {
    return std::make_shared<ZavloLinuxHttpSession>(configuration);
  }
  std::string url(const std::string& path) { return server.url(path); }
  bool waitForRequests(std::size_t count) { return server.waitForRequests(count, 10s); }
  std::string body(std::size_t i) { return server.requests().at(i).body; }
  std::vector<std::pair<std::string, std::string>> headers(std::size_t i) { return server.requests().at(i).headers; }
  bool answer(std::size_t i, int status, const std::string& body) {
    return server.answer(i, ZavloHttpTestReply::text(status, body));
  }
  bool settle(ZavloHttpOutcomes& outcomes, std::size_t count, std::chrono::milliseconds span) {
    return outcomes.waitFor(count, span + 10s);  // generous bound; returns as soon as done
  }
};

// The prefix names the contract in ctest's names, which keep only the prefix and the type.
using Drivers = ::testing::Types<TestSessionDriver, LinuxSessionDriver>;
INSTANTIATE_TYPED_TEST_SUITE_P(HttpSessionContract, ZavloHttpSessionContract, Drivers);

}  // namespace
