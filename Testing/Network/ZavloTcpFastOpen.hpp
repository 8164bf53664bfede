#pragma once

#include <cstdint>
#include <string_view>

#include "Testing/Network/ZavloNetworkNamespace.hpp"

/// Lets a namespace's sockets use TCP Fast Open both ways: net.ipv4.tcp_fastopen = 3 there
/// (client and server; a new namespace starts with the client side only). Throws
/// std::runtime_error when the kernel refuses.
void zavloEnableTcpFastOpen(const ZavloNetworkNamespace& ns);

/// Fast Open counters of one namespace's kernel (TcpExt in netstat), as nstat names them
/// without the prefix.
struct ZavloTcpFastOpenCounters {
  std::uint64_t passive = 0;         ///< TCPFastOpenPassive: accepted with data in the SYN
  std::uint64_t passiveFail = 0;     ///< TCPFastOpenPassiveFail: a cookie that did not pass
  std::uint64_t active = 0;          ///< TCPFastOpenActive: data sent in the SYN and acknowledged
  std::uint64_t activeFail = 0;      ///< TCPFastOpenActiveFail: data in the SYN not acknowledged
  std::uint64_t cookieRequired = 0;  ///< TCPFastOpenCookieReqd: a SYN that asked for a cookie

  ZavloTcpFastOpenCounters operator-(const ZavloTcpFastOpenCounters& earlier) const;
};

/// The calling thread's namespace's counters (not the process's: a thread may have entered another).
ZavloTcpFastOpenCounters zavloTcpFastOpenCounters();
/// ns's counters, read from a thread inside it.
ZavloTcpFastOpenCounters zavloTcpFastOpenCounters(const ZavloNetworkNamespace& ns);
