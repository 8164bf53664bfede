#include "Testing/Network/ZavloTcpFastOpen.hpp"

#include <charconv>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

std::vector<std::string> words(const std::string& line) {
  std::istringstream stream(line);
  std::vector<std::string> result;
  for (std::string word; stream >> word;) result.push_back(word);
  return result;
}

}  // namespace

void zavloEnableTcpFastOpen(const ZavloNetworkNamespace& ns) {
  ns.runInside([] {
    // /proc/sys/net answers for the namespace of the thread that opens it.
    std::ofstream sysctl("/proc/sys/net/ipv4/tcp_fastopen");
    sysctl << "3\n";
    sysctl.close();
    if (!sysctl) throw std::runtime_error("cannot set net.ipv4.tcp_fastopen in the namespace");
  });
}

ZavloTcpFastOpenCounters ZavloTcpFastOpenCounters::operator-(const ZavloTcpFastOpenCounters& earlier) const {
  return {passive - earlier.passive, passiveFail - earlier.passiveFail, active - earlier.active,
          activeFail - earlier.activeFail, cookieRequired - earlier.cookieRequired};
}

ZavloTcpFastOpenCounters zavloTcpFastOpenCounters() {
  // /proc/net is the thread group leader's namespace; thread-self is this thread's.
  std::ifstream netstat("/proc/thread-self/net/netstat");
  if (!netstat) throw std::runtime_error("cannot read /proc/thread-self/net/netstat");
  // Pairs of lines: "TcpExt: Name Name ..." then "TcpExt: value value ...".
  ZavloTcpFastOpenCounters counters;
  bool found = false;
  for (std::string names, values; std::getline(netstat, names) && std::getline(netstat, values);) {
    if (!names.starts_with("TcpExt:")) continue;
    const auto keys = words(names);
    const auto numbers = words(values);
    for (std::size_t i = 1; i < keys.size() && i < numbers.size(); ++i) {
      std::uint64_t value = 0;
      std::from_chars(numbers[i].data(), numbers[i].data() + numbers[i].size(), value);
      if (keys[i] == "TCPFastOpenPassive") {
        counters.passive = value;
        found = true;
      } else if (keys[i] == "TCPFastOpenPassiveFail") {
        counters.passiveFail = value;
      } else if (keys[i] == "TCPFastOpenActive") {
        counters.active = value;
      } else if (keys[i] == "TCPFastOpenActiveFail") {
        counters.activeFail = value;
      } else if (keys[i] == "TCPFastOpenCookieReqd") {
        counters.cookieRequired = value;
      }
    }
  }
  if (!found) throw std::runtime_error("no TCPFastOpenPassive in /proc/thread-self/net/netstat");
  return counters;
}

ZavloTcpFastOpenCounters zavloTcpFastOpenCounters(const ZavloNetworkNamespace& ns) {
  return ns.run([] { return zavloTcpFastOpenCounters(); });
}
