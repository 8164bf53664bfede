// Host names of the chain are resolved over the cellular link, with that link's own name
// server. Inside namespaces of our own (ZavloDecoyNetwork), two name servers own the same
// address 198.18.0.53: the operator's behind the cellular link, answering the hop names with
// the operator's address, and a decoy behind the preferred default route ("Wi-Fi"),
// answering every name with the decoy's address. The client's system resolver is pointed at
// 198.18.0.53 too, so a query that is not bound to the cellular link, or that goes through
// the system resolver, reaches the decoy and shows in its log.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Platform/Linux/ZavloLinuxPlatform.hpp"
#include "Testing/Network/ZavloDnsmasq.hpp"
#include "ZavloDecoyNetwork.hpp"
#include "ZavloSnaChainRun.hpp"
#include "tools/peers/ZavloChainServer.hpp"

using nlohmann::json;

namespace {

constexpr const char* kNameServer = "198.18.0.53";
constexpr const char* kDecoyAddress = "198.18.2.1";  // the decoy's own link: unreachable over cell0
constexpr const char* kEntryName = "entry.operator.test";
constexpr const char* kHopName = "hop.operator.test";

// Makes the system resolver of the calling thread, and of the threads and processes it
// starts, ask `address`: a mount namespace of the thread's own in which /etc/resolv.conf is
// another file, as `ip netns exec` does. Mounts there never propagate back to the host.
void pointSystemResolverAt(const std::string& address, const std::filesystem::path& folder) {
  if (unshare(CLONE_NEWNS) != 0) throw std::runtime_error("unshare(CLONE_NEWNS) failed");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    throw std::runtime_error("cannot make the mounts private");
  }
  const auto file = folder / "resolv.conf";
  std::ofstream(file) << "nameserver " << address << "\noptions timeout:1 attempts:1\n";
  if (mount(file.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0) {
    throw std::runtime_error("cannot bind a resolv.conf over /etc/resolv.conf");
  }
}

struct NamesCase {
  const char* label;
  bool cellularServers;  // Options::cellularDnsServers names the link's server
  unsigned hops;         // the first to kEntryName, the others to kHopName
  bool reachesOperator;  // else the chain waits for a server until its time-out
  std::size_t asked;     // queries the operator's name server receives
};

void PrintTo(const NamesCase& row, std::ostream* out) { *out << row.label; }

class ZavloCellularNamesNamespaceTest : public ::testing::TestWithParam<NamesCase> {
 protected:
  void SetUp() override {
    std::string whyNot;
    network = ZavloDecoyNetwork::create(whyNot);
    if (!network) GTEST_SKIP() << "cannot test in network namespaces: " << whyNot;
    network->operatorSide().ip({"addr", "add", std::string(kNameServer) + "/32", "dev", "lo"});
    network->decoySide().ip({"addr", "add", std::string(kNameServer) + "/32", "dev", "lo"});
    operatorNames =
        ZavloDnsmasq::start(network->operatorSide(), {kNameServer, {{"operator.test", "198.18.0.1"}}}, whyNot);
    if (!operatorNames) GTEST_SKIP() << "no name server for the test: " << whyNot;
    decoyNames = ZavloDnsmasq::start(network->decoySide(), {kNameServer, {{"#", kDecoyAddress}}}, whyNot);
    if (!decoyNames) GTEST_SKIP() << "no name server for the test: " << whyNot;
    network->operatorSide().runInside([&] {
      ZavloChainServerOptions options;
      options.bindAddress = ZavloDecoyNetwork::kServerAddress;
      options.absoluteLocation = true;
      options.locationHost = kHopName;
      options.token = "operator-token";
      operatorChain = std::make_unique<ZavloChainServer>(options);
    });
    folder = std::filesystem::temp_directory_path() / ("zavlo-names-" + std::to_string(getpid()));
    std::filesystem::create_directories(folder);
  }

  void TearDown() override {
    std::error_code ignored;
    if (!folder.empty()) std::filesystem::remove_all(folder, ignored);
  }

  // One chain from inside the client namespace, whose system resolver asks kNameServer.
  ZavloSnaChainOutcome chainFromClient(const NamesCase& row, std::string& problem) {
    auto url = operatorChain->chainUrl(row.hops);
    url.replace(url.find(kHopName), std::string(kHopName).size(), kEntryName);
    ZavloSnaChainOutcome outcome;
    network->client().runInside([&] {
      try {
        pointSystemResolverAt(kNameServer, folder);
      } catch (const std::exception& error) {
        problem = error.what();
        return;
      }
      ZavloLinuxPlatform::Options options;
      options.cellularInterfaces = {ZavloDecoyNetwork::kCellularLink};
      if (row.cellularServers) options.cellularDnsServers = {kNameServer};
      ZavloLinuxPlatform platform(std::move(options));
      outcome = zavloRunSnaChain(platform, url, 1.5);
    });
    return outcome;
  }

  std::unique_ptr<ZavloDecoyNetwork> network;
  std::unique_ptr<ZavloDnsmasq> operatorNames;
  std::unique_ptr<ZavloDnsmasq> decoyNames;
  std::unique_ptr<ZavloChainServer> operatorChain;
  std::filesystem::path folder;
};

TEST_P(ZavloCellularNamesNamespaceTest, NamesAreAskedOnlyOfTheCellularLinksServerOncePerChain) {
  const auto& row = GetParam();
  std::string problem;
  const auto outcome = chainFromClient(row, problem);
  if (!problem.empty()) GTEST_SKIP() << "cannot point the client's resolver at the test's server: " << problem;

  EXPECT_TRUE(decoyNames->queries().empty())
      << "the Wi-Fi side's name server was asked: " << testing::PrintToString(decoyNames->queries());
  if (row.reachesOperator) {
    EXPECT_EQ(outcome.only(), (json{{"httpStatusCode", 200}, {"snaToken", "operator-token"}}));
    EXPECT_EQ(operatorChain->recentRequests().size(), row.hops);
  } else {
    // Waiting, not failing: only the hop's time-out ends it.
    EXPECT_EQ(outcome.only(),
              (json{{"error", "SNA_CONNECTION_FAILED"}, {"error_description", "Connection cancelled - time out"}}));
    EXPECT_TRUE(operatorChain->recentRequests().empty());
  }
  // Each name once, for IPv4 (cell0 has no IPv6), from cell0's own address.
  std::vector<std::string> expected;
  if (row.asked >= 1) expected.push_back(std::string("query[A] ") + kEntryName + " from 198.18.1.2");
  if (row.asked >= 2) expected.push_back(std::string("query[A] ") + kHopName + " from 198.18.1.2");
  EXPECT_EQ(operatorNames->queries(), expected);
}

INSTANTIATE_TEST_SUITE_P(Chains, ZavloCellularNamesNamespaceTest,
                         ::testing::Values(NamesCase{"OneHopByName", true, 1, true, 1},
                                           NamesCase{"FiveHopsOverTwoNames", true, 5, true, 2},
                                           NamesCase{"NoServerForTheLinkWaits", false, 3, false, 0}),
                         [](const auto& info) { return std::string(info.param.label); });

}  // namespace
