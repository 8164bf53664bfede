#include "Platform/Linux/Network/ZavloLinuxLinkDns.hpp"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <charconv>

// The D-Bus sources (ZavloLinuxSystemDns.cpp).
std::vector<std::string> zavloResolvedLinkServers(unsigned interfaceIndex);
std::vector<std::string> zavloNetworkManagerLinkServers(const std::string& interfaceName);

std::optional<ZavloLinuxNameServer> zavloParseNameServer(std::string_view text) {
  ZavloLinuxNameServer server;
  std::string_view host = text;
  std::optional<std::string_view> port;
  if (text.starts_with('[')) {
    const auto close = text.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    host = text.substr(1, close - 1);
    const auto rest = text.substr(close + 1);
    if (!rest.empty()) {
      if (!rest.starts_with(':')) return std::nullopt;
      port = rest.substr(1);
    }
  } else if (const auto colon = text.find(':'); colon != std::string_view::npos && text.rfind(':') == colon) {
    host = text.substr(0, colon);  // one colon: IPv4 with a port
    port = text.substr(colon + 1);
  }
  if (const auto percent = host.find('%'); percent != std::string_view::npos) host = host.substr(0, percent);
  const std::string address(host);
  if (inet_pton(AF_INET, address.c_str(), server.address.data()) == 1) {
    server.ipv6 = false;
  } else if (inet_pton(AF_INET6, address.c_str(), server.address.data()) == 1) {
    server.ipv6 = true;
  } else {
    return std::nullopt;
  }
  if (text.starts_with('[') && !server.ipv6) return std::nullopt;
  if (port) {
    unsigned value = 0;
    const auto [end, error] = std::from_chars(port->data(), port->data() + port->size(), value);
    if (error != std::errc() || end != port->data() + port->size() || value == 0 || value > 65535) return std::nullopt;
    server.port = static_cast<std::uint16_t>(value);
  }
  return server;
}

ZavloLinuxLinkServers zavloFindLinkServers(const std::vector<ZavloLinuxLinkDnsSource>& sources,
                                           const std::string& interfaceName, unsigned interfaceIndex) {
  for (const auto& source : sources) {
    if (!source.servers) continue;
    ZavloLinuxLinkServers found{{}, source.name};
    for (const auto& text : source.servers(interfaceName, interfaceIndex)) {
      const auto server = zavloParseNameServer(text);
      if (server && std::find(found.servers.begin(), found.servers.end(), *server) == found.servers.end()) {
        found.servers.push_back(*server);
      }
    }
    if (!found.servers.empty()) return found;
  }
  return {};
}

std::vector<ZavloLinuxLinkDnsSource> zavloLinkDnsSources(ZavloLinuxLinkDnsOptions options) {
  std::vector<ZavloLinuxLinkDnsSource> sources;
  // The host's word comes first: it is how a host (or a test, or the command line) names
  // servers for a link the system manages wrongly or not at all; it would be useless if a
  // system service that knows the link could overrule it.
  if (!options.hostServers.empty()) {
    sources.push_back(
        {"the host", [servers = std::move(options.hostServers)](const std::string&, unsigned) { return servers; }});
  }
  if (options.askSystem) {
    sources.push_back(
        {"systemd-resolved", [](const std::string&, unsigned index) { return zavloResolvedLinkServers(index); }, true});
    sources.push_back({"NetworkManager",
                       [](const std::string& name, unsigned) { return zavloNetworkManagerLinkServers(name); }, true});
  }
  if (options.modemServers) {
    sources.push_back(
        {"the modem's bearer",
         [modem = std::move(options.modemServers)](const std::string& name, unsigned) { return modem(name); }, true});
  }
  return sources;
}

ZavloLinuxNameCache::Key ZavloLinuxNameCache::key(const std::string& interfaceName, std::string_view name, bool ipv6) {
  if (name.ends_with('.')) name.remove_suffix(1);
  std::string folded(name);
  std::transform(folded.begin(), folded.end(), folded.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return {interfaceName, std::move(folded), ipv6};
}

std::optional<ZavloLinuxNameCache::Addresses> ZavloLinuxNameCache::find(const std::string& interfaceName,
                                                                        std::string_view name, bool ipv6,
                                                                        Clock::time_point now) const {
  const auto found = entries_.find(key(interfaceName, name, ipv6));
  if (found == entries_.end() || found->second.expires <= now) return std::nullopt;
  return found->second.addresses;
}

void ZavloLinuxNameCache::store(const std::string& interfaceName, std::string_view name, bool ipv6, Addresses addresses,
                                std::chrono::seconds ttl, Clock::time_point now) {
  const auto lifetime = addresses.empty() ? kNoAddressLifetime : std::min(ttl, kLongest);
  if (lifetime.count() <= 0 || capacity_ == 0) return;
  auto entryKey = key(interfaceName, name, ipv6);
  if (!entries_.contains(entryKey) && entries_.size() >= capacity_) {
    std::erase_if(entries_, [now](const auto& entry) { return entry.second.expires <= now; });
    if (entries_.size() >= capacity_) {
      entries_.erase(std::min_element(entries_.begin(), entries_.end(), [](const auto& a, const auto& b) {
        return a.second.expires < b.second.expires;
      }));
    }
  }
  entries_[std::move(entryKey)] = {std::move(addresses), now + lifetime};
}
