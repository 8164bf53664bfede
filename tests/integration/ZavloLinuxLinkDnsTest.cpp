// Names over the cellular link, the parts without I/O: server addresses, the order in which
// sources are asked, and how long answers are kept.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/Network/ZavloLinuxLinkDns.hpp"

namespace {

using namespace std::chrono_literals;

TEST(ZavloLinuxLinkDns, NameServerAddressesParseWithTheirPorts) {
  struct Row {
    const char* text;
    std::optional<std::pair<bool, std::uint16_t>> expected;  // ipv6, port
  };
  const Row rows[] = {
      {"192.0.2.53", {{false, 53}}},           {"192.0.2.53:5353", {{false, 5353}}},
      {"2001:db8::53", {{true, 53}}},          {"[2001:db8::53]", {{true, 53}}},
      {"[2001:db8::53]:5353", {{true, 5353}}}, {"fe80::1%wwan0", {{true, 53}}},
      {"[fe80::1%wwan0]:54", {{true, 54}}},    {"", std::nullopt},
      {"dns.example", std::nullopt},           {"192.0.2.53:", std::nullopt},
      {"192.0.2.53:0", std::nullopt},          {"192.0.2.53:65536", std::nullopt},
      {"192.0.2.53:53x", std::nullopt},        {"[192.0.2.53]:53", std::nullopt},
      {"[2001:db8::53", std::nullopt},         {"[2001:db8::53]53", std::nullopt},
  };
  for (const auto& row : rows) {
    const auto parsed = zavloParseNameServer(row.text);
    ASSERT_EQ(parsed.has_value(), row.expected.has_value()) << row.text;
    if (!parsed) continue;
    EXPECT_EQ(parsed->ipv6, row.expected->first) << row.text;
    EXPECT_EQ(parsed->port, row.expected->second) << row.text;
  }
  const auto v4 = zavloParseNameServer("192.0.2.53");
  EXPECT_EQ((std::vector<int>{v4->address[0], v4->address[1], v4->address[2], v4->address[3]}),
            (std::vector<int>{192, 0, 2, 53}));
  EXPECT_EQ(zavloParseNameServer("fe80::1%wwan0"), zavloParseNameServer("fe80::1")) << "the scope is dropped";
}

TEST(ZavloLinuxLinkDns, TheFirstSourceThatNamesAUsableServerWins) {
  using Lists = std::vector<std::vector<std::string>>;
  struct Row {
    const char* label;
    Lists lists;  // what sources "s0", "s1", ... answer, in the order asked
    std::string source;
    std::vector<std::string> servers;
  };
  const Row rows[] = {
      {"first", {{"192.0.2.1"}, {"192.0.2.2"}}, "s0", {"192.0.2.1"}},
      {"empty passed over", {{}, {"192.0.2.2", "[2001:db8::2]:54"}}, "s1", {"192.0.2.2", "[2001:db8::2]:54"}},
      {"unusable passed over", {{"dns.example", ""}, {"192.0.2.2"}}, "s1", {"192.0.2.2"}},
      {"unusable entries dropped", {{"x", "192.0.2.1", "192.0.2.1:53"}}, "s0", {"192.0.2.1"}},
      {"none", {{}, {"nothing"}}, "", {}},
  };
  for (const auto& row : rows) {
    std::vector<ZavloLinuxLinkDnsSource> sources;
    for (std::size_t i = 0; i < row.lists.size(); ++i) {
      sources.push_back({"s" + std::to_string(i), [list = row.lists[i]](const std::string& name, unsigned index) {
                           return name == "wwan0" && index == 7 ? list : std::vector<std::string>{};
                         }});
    }
    const auto found = zavloFindLinkServers(sources, "wwan0", 7);
    std::vector<ZavloLinuxNameServer> expected;
    for (const auto& text : row.servers) expected.push_back(*zavloParseNameServer(text));
    EXPECT_EQ(found.source, row.source) << row.label;
    EXPECT_EQ(found.servers, expected) << row.label;
  }
}

TEST(ZavloLinuxLinkDns, TheHostsServersAreAskedFirstAndTheModemLast) {
  struct Row {
    bool host;
    bool system;
    bool modem;
    std::vector<std::string> order;
  };
  const Row rows[] = {
      {true, true, true, {"the host", "systemd-resolved", "NetworkManager", "the modem's bearer"}},
      {false, true, true, {"systemd-resolved", "NetworkManager", "the modem's bearer"}},
      {true, false, false, {"the host"}},
      {false, false, true, {"the modem's bearer"}},
  };
  for (const auto& row : rows) {
    ZavloLinuxLinkDnsOptions options;
    if (row.host) options.hostServers = {"192.0.2.1"};
    options.askSystem = row.system;
    if (row.modem) options.modemServers = [](const std::string&) { return std::vector<std::string>{"192.0.2.9"}; };
    std::vector<std::string> order;
    for (const auto& source : zavloLinkDnsSources(options)) {
      order.push_back(source.name);
      EXPECT_EQ(source.mayBlock, source.name != "the host") << "only the host's list is read on the I/O thread";
    }
    EXPECT_EQ(order, row.order);
    if (row.modem) {
      const auto last = zavloLinkDnsSources(options).back();
      EXPECT_TRUE(last.mayBlock) << "the modem's hook is asked off the I/O thread";
      EXPECT_EQ(last.servers("wwan0", 0), std::vector<std::string>{"192.0.2.9"});
    }
  }
}

// Steps against one cache, at seconds after a fixed start.
struct CacheStep {
  enum class Op { store, expectFound, expectUnknown } op;
  int at;
  const char* interfaceName;
  const char* name;
  bool ipv6;
  std::size_t addresses = 1;  // store: how many; expectFound: how many come back
  int ttl = 0;
};

struct CacheCase {
  const char* label;
  std::size_t capacity;
  std::vector<CacheStep> steps;
};

TEST(ZavloLinuxNameCache, AnswersAreKeptForTheirTimeToLiveWithinBounds) {
  using Op = CacheStep::Op;
  const CacheCase cases[] = {
      {"time to live",
       8,
       {{Op::store, 0, "wwan0", "a.test", false, 2, 60},
        {Op::expectFound, 59, "wwan0", "a.test", false, 2},
        {Op::expectUnknown, 60, "wwan0", "a.test", false}}},
      {"zero is not kept",
       8,
       {{Op::store, 0, "wwan0", "a.test", false, 1, 0}, {Op::expectUnknown, 0, "wwan0", "a.test", false}}},
      {"no address: a fixed lifetime",
       8,
       {{Op::store, 0, "wwan0", "a.test", true, 0, 3000},
        {Op::expectFound, 29, "wwan0", "a.test", true, 0},
        {Op::expectUnknown, 30, "wwan0", "a.test", true}}},
      {"longest",
       8,
       {{Op::store, 0, "wwan0", "a.test", false, 1, 7200},
        {Op::expectFound, 3599, "wwan0", "a.test", false, 1},
        {Op::expectUnknown, 3600, "wwan0", "a.test", false}}},
      {"case and final dot",
       8,
       {{Op::store, 0, "wwan0", "Hop.Operator.TEST.", false, 1, 60},
        {Op::expectFound, 1, "wwan0", "hop.operator.test", false, 1}}},
      {"link and family apart",
       8,
       {{Op::store, 0, "wwan0", "a.test", false, 1, 60},
        {Op::expectUnknown, 1, "wwan1", "a.test", false},
        {Op::expectUnknown, 1, "wwan0", "a.test", true}}},
      {"full: the soonest to expire goes",
       2,
       {{Op::store, 0, "wwan0", "a.test", false, 1, 10},
        {Op::store, 0, "wwan0", "b.test", false, 1, 100},
        {Op::store, 1, "wwan0", "c.test", false, 1, 50},
        {Op::expectUnknown, 2, "wwan0", "a.test", false},
        {Op::expectFound, 2, "wwan0", "b.test", false, 1},
        {Op::expectFound, 2, "wwan0", "c.test", false, 1}}},
      {"full: the expired go first",
       2,
       {{Op::store, 0, "wwan0", "a.test", false, 1, 5},
        {Op::store, 0, "wwan0", "b.test", false, 1, 100},
        {Op::store, 10, "wwan0", "c.test", false, 1, 500},
        {Op::expectFound, 11, "wwan0", "b.test", false, 1},
        {Op::expectFound, 11, "wwan0", "c.test", false, 1}}},
      {"a name stored again is replaced, not added",
       1,
       {{Op::store, 0, "wwan0", "a.test", false, 1, 100},
        {Op::store, 1, "wwan0", "a.test", false, 3, 100},
        {Op::expectFound, 2, "wwan0", "a.test", false, 3}}},
  };
  const auto start = ZavloLinuxNameCache::Clock::time_point{} + 1000h;
  for (const auto& test : cases) {
    ZavloLinuxNameCache cache(test.capacity);
    for (std::size_t i = 0; i < test.steps.size(); ++i) {
      const auto& step = test.steps[i];
      const auto now = start + std::chrono::seconds(step.at);
      if (step.op == Op::store) {
        ZavloLinuxNameCache::Addresses addresses(step.addresses);
        for (std::size_t k = 0; k < addresses.size(); ++k) addresses[k][0] = static_cast<std::uint8_t>(k + 1);
        cache.store(step.interfaceName, step.name, step.ipv6, addresses, std::chrono::seconds(step.ttl), now);
        EXPECT_LE(cache.size(), test.capacity) << test.label;
        continue;
      }
      const auto found = cache.find(step.interfaceName, step.name, step.ipv6, now);
      ASSERT_EQ(found.has_value(), step.op == Op::expectFound) << test.label << ", step " << i;
      if (found) {
        EXPECT_EQ(found->size(), step.addresses) << test.label << ", step " << i;
      }
    }
  }
}

}  // namespace
