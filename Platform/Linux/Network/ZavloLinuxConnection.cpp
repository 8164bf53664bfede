#include "Platform/Linux/Network/ZavloLinuxConnection.hpp"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <asio.hpp>
#include <asio/ssl.hpp>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <list>
#include <mutex>
#include <optional>

#include "Platform/Linux/Network/ZavloLinuxLinkLookup.hpp"
#include "Platform/Linux/Network/ZavloLinuxNetworkCore.hpp"
#include "Platform/Linux/Network/ZavloLinuxTlsContext.hpp"
#include "Platform/ZavloInterfaceRules.hpp"

using Tcp = asio::ip::tcp;

namespace {

// A hop's answer is usually a few hundred bytes: a receive starts with this much room and
// grows it while more is waiting, so that a thousand open connections do not hold a
// maximum-sized buffer each.
constexpr std::size_t kFirstReadSize = 4096;
constexpr std::size_t kReadGrowth = 4;

// How long an attempt of a connection that may use either IP version has before the next
// address is tried beside it: a path that drops packets costs this, not the time-out.
constexpr std::chrono::milliseconds kConnectionAttemptDelay{250};

// The one place where system, resolver and TLS errors become connection errors. ssl, when
// given, tells why a certificate was refused.
ZavloConnectionError connectionError(const std::error_code& error, const SSL* ssl = nullptr) {
  if (error.category() == asio::error::get_ssl_category() ||
      error.category() == asio::ssl::error::get_stream_category()) {
    const long verifyResult = ssl != nullptr ? SSL_get_verify_result(ssl) : X509_V_OK;
    if (verifyResult != X509_V_OK) {
      return {EPROTO, std::string("The server's certificate could not be verified: ") +
                          X509_verify_cert_error_string(verifyResult)};
    }
    if (error == asio::ssl::error::stream_truncated) {
      return {ECONNRESET, "The server closed the connection during the TLS exchange"};
    }
    return {EPROTO, "TLS failed: " + error.message()};
  }
  if (error.category() == asio::error::get_netdb_category() ||
      error.category() == asio::error::get_addrinfo_category()) {
    return {EHOSTUNREACH, "The host name could not be resolved: " + error.message()};
  }
  if (error == asio::error::eof) return {ECONNRESET, "The server closed the connection"};
  if (error.category() == asio::error::get_misc_category()) return {EIO, error.message()};
  return {error.value(), error.message()};  // errno values, with strerror's text
}

std::error_code systemError(int value) { return {value, asio::error::get_system_category()}; }

// What another path may cure: a platform connection waits for the network to change
// instead of failing. Everything else (time-outs, TLS, names that do not exist, no
// address of the IP version asked for) fails at once, so that a caller can fall back.
bool curableByAnotherPath(const std::error_code& error) {
  return error == asio::error::connection_refused || error == asio::error::network_unreachable ||
         error == asio::error::host_unreachable || error == asio::error::network_down ||
         error == asio::error::host_not_found_try_again;
}

}  // namespace

ZavloLinuxSpecialName zavloSpecialUseName(std::string_view host) {
  if (host.ends_with('.')) host.remove_suffix(1);
  const auto isUnder = [host](std::string_view domain) {
    if (host.size() < domain.size()) return false;
    const auto tail = host.substr(host.size() - domain.size());
    const bool same = std::equal(tail.begin(), tail.end(), domain.begin(), domain.end(),
                                 [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == b; });
    return same && (host.size() == domain.size() || host[host.size() - domain.size() - 1] == '.');
  };
  if (isUnder("localhost")) return ZavloLinuxSpecialName::localhost;
  if (isUnder("invalid")) return ZavloLinuxSpecialName::invalid;
  return ZavloLinuxSpecialName::none;
}

namespace {

class ZavloLinuxConnection final : public ZavloConnection, public std::enable_shared_from_this<ZavloLinuxConnection> {
 public:
  ZavloLinuxConnection(std::shared_ptr<ZavloLinuxNetworkCore> core, std::string host, std::uint16_t port,
                       ZavloConnectionParameters parameters)
      : core_(std::move(core)),
        host_(std::move(host)),
        port_(port),
        parameters_(std::move(parameters)),
        nextAttemptTimer_(*core_->io) {
    if (host_.size() > 2 && host_.front() == '[' && host_.back() == ']') host_ = host_.substr(1, host_.size() - 2);
  }

  void setStateUpdateHandler(StateHandler handler) override {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
  }

  void start(ZavloQueue& queue) override {
    {
      std::lock_guard lock(mutex_);
      if (started_) return;
      started_ = true;
      queue_ = &queue;
    }
    if (cancelled_) {
      deliverCancelled();
      return;
    }
    deliverState(State::preparing, std::nullopt, false);
    if (auto error = failureKnownAtStart()) {
      // What prepare() would report, without a round trip through the I/O thread: the caller
      // learns it sooner, and a fallback to another address family starts at once.
      deliverState(State::failed, *error, false);
      core_->post(
          [self = shared_from_this(), error = std::move(*error)]() mutable { self->failedAtStart(std::move(error)); });
      return;
    }
    core_->post([self = shared_from_this()] { self->prepare(); });  // a stopped service reports nothing
  }

  void send(std::vector<std::uint8_t> content, SendCompletion completion) override {
    if (cancelled_) return;
    if (ioCanTakeAtOnce() && !sending_) {
      sends_.push_back({std::move(content), std::move(completion)});
      return pumpSends();
    }
    ++postedIo_;
    core_->post(
        [self = shared_from_this(), content = std::move(content), completion = std::move(completion)]() mutable {
          --self->postedIo_;
          self->sends_.push_back({std::move(content), std::move(completion)});
          self->pumpSends();
        });
  }

  void receive(std::size_t minimumIncompleteLength, std::size_t maximumLength, ReceiveCompletion completion) override {
    if (cancelled_) return;
    if (ioCanTakeAtOnce() && !receiving_ && receives_.empty() && !peerFinished_ && !deferredFailure_ &&
        maximumLength > 0) {
      receives_.push_back({minimumIncompleteLength, maximumLength, std::move(completion)});
      return pumpReceives();
    }
    ++postedIo_;
    core_->post([self = shared_from_this(), minimumIncompleteLength, maximumLength,
                 completion = std::move(completion)]() mutable {
      --self->postedIo_;
      self->receives_.push_back({minimumIncompleteLength, maximumLength, std::move(completion)});
      self->pumpReceives();
    });
  }

  // Whether a send or receive asked for now may start its I/O in the caller's call: on a run
  // loop that is the I/O thread, with the stream ready, a post would only add a turn of the
  // loop. Asio never completes an operation inside the call that starts it, so the caller
  // still hears of it later; the callers above exclude what would complete at once.
  bool ioCanTakeAtOnce() const {
    return core_->loop != nullptr && !core_->stopped && core_->loop->isCurrent() && phase_ == Phase::ready &&
           postedIo_ == 0;  // and none asked for earlier still waits to be queued
  }

  // I/O thread: the service stops; the socket closes and the connection reports no more.
  void abandon() { closeTransport(); }

  void cancel() override {
    {
      std::lock_guard lock(mutex_);
      if (cancelled_) return;
      cancelled_ = true;
      if (!started_) return;  // start() reports it
    }
    deliverCancelled();
    core_->post([self = shared_from_this()] { self->close(); });
  }

 private:
  enum class Phase { idle, preparing, waiting, ready, failed, closed };
  struct PendingSend {
    std::vector<std::uint8_t> content;
    SendCompletion completion;
  };
  struct PendingReceive {
    std::size_t minimum;
    std::size_t maximum;
    ReceiveCompletion completion;
  };
  // One endpoint tried, with its own socket and time-out. The attempt that is ready first
  // becomes the connection's stream. Handlers hold it, so that a stream closed under a
  // pending operation lives until that operation has ended.
  struct Attempt {
    explicit Attempt(asio::io_context& io) : timeout(io) {}
    Tcp::socket& socket() { return secure ? secure->next_layer() : *plain; }
    void close() {
      timeout.cancel();
      std::error_code ignored;
      socket().close(ignored);
    }

    std::optional<Tcp::socket> plain;
    std::optional<asio::ssl::stream<Tcp::socket>> secure;
    asio::steady_timer timeout;
    bool timedOut = false;
  };

  // --- Delivery to the queue given to start(); callable from any thread once started.

  // Runs work on the queue unless the connection is cancelled by then: nothing reaches
  // the caller after `cancelled`. From an I/O handler on a run loop that is also the
  // queue, the work runs at once (it is not inside the caller's call, and the queue has no
  // other thread to reach), unless an earlier report of this connection still waits in the
  // queue: reports keep their order.
  template <class Work>
  void deliver(Work&& work, bool fromIo = true) {
    if (cancelled_ || core_->stopped) return;
    if (fromIo && queue_ == core_->loop && queuedReports_ == 0) {
      work();
      return;
    }
    ++queuedReports_;
    queue_->post([self = shared_from_this(), work = std::forward<Work>(work)]() mutable {
      --self->queuedReports_;
      if (!self->cancelled_) work();
    });
  }

  void deliverState(State state, std::optional<ZavloConnectionError> error = std::nullopt, bool fromIo = true) {
    deliver(
        [this, state, error = std::move(error)] {
          StateHandler handler;
          {
            std::lock_guard lock(mutex_);
            handler = handler_;
          }
          if (handler) handler(state, error);
        },
        fromIo);
  }

  void deliverCancelled() {
    if (core_->stopped) return;  // the platform, and maybe the queue, is gone
    queue_->post([self = shared_from_this()] {
      StateHandler handler;
      {
        std::lock_guard lock(self->mutex_);
        handler = std::move(self->handler_);  // the last call: let go of the caller's captures
        self->handler_ = nullptr;
      }
      if (handler) handler(State::cancelled, std::nullopt);
    });
  }

  // An address literal of a family these parameters exclude fails before any I/O. That is
  // decided here only when everything prepare() checks before it is known to pass: a TLS
  // context already made for these anchors, and a recent interface list with an interface
  // for an allowed family. Otherwise prepare() decides, as for any other connection.
  std::optional<ZavloConnectionError> failureKnownAtStart() const {
    std::error_code notLiteral;
    const auto address = asio::ip::make_address(host_, notLiteral);
    if (notLiteral) return std::nullopt;
    const bool useV4 = parameters_.ipVersion != ZavloConnectionParameters::IpVersion::v6;
    const bool useV6 = parameters_.ipVersion != ZavloConnectionParameters::IpVersion::v4;
    if ((address.is_v4() && useV4) || (address.is_v6() && useV6)) return std::nullopt;
    if (parameters_.tls && !ZavloLinuxTlsContext::madeForAnchors(parameters_.tls->additionalTrustAnchorsPem)) {
      return std::nullopt;
    }
    if (core_->recentListHasBinding(parameters_, useV4, useV6) != true) return std::nullopt;
    return connectionError(systemError(EAFNOSUPPORT));
  }

  // --- I/O thread.

  // fail() for a failure start() has reported already.
  void failedAtStart(ZavloConnectionError error) {
    if (cancelled_) return;  // as prepare(): close() lets go of what is pending
    phase_ = Phase::failed;
    failure_ = std::move(error);
    pumpSends();
    pumpReceives();
  }

  void prepare() {
    if (cancelled_) return;
    core_->keptAlive.insert(shared_from_this());
    phase_ = Phase::preparing;
    if (parameters_.tls) {
      std::string problem;
      tls_ = ZavloLinuxTlsContext::forAnchors(parameters_.tls->additionalTrustAnchorsPem, problem);
      if (!tls_) return fail({EINVAL, problem});
    }
    choosePath();
  }

  // Binds to the interfaces present now, then resolves and connects: at start, and again
  // each time the network changes while the connection waits.
  void choosePath() {
    const auto& interfaces = core_->interfaces();
    const bool useV4 = parameters_.ipVersion != ZavloConnectionParameters::IpVersion::v6;
    const bool useV6 = parameters_.ipVersion != ZavloConnectionParameters::IpVersion::v4;
    const auto v4 = zavloChooseBinding(interfaces, parameters_, false);
    const auto v6 = zavloChooseBinding(interfaces, parameters_, true);
    bindingV4_ = useV4 ? v4 : ZavloLinuxBinding{};
    bindingV6_ = useV6 ? v6 : ZavloLinuxBinding{};
    endpoints_.clear();
    lastError_.reset();
    waitable_ = true;
    if (bindingV4_.kind == ZavloLinuxBinding::Kind::none && bindingV6_.kind == ZavloLinuxBinding::Kind::none) {
      // An allowed interface of the other family: this IP version cannot be used here, and
      // a caller may try another.
      if (v4.kind != ZavloLinuxBinding::Kind::none || v6.kind != ZavloLinuxBinding::Kind::none) {
        return fail(noInterfaceOfFamily(useV6));
      }
      return wait(noUsableInterface());
    }

    std::error_code literal;
    const auto address = asio::ip::make_address(host_, literal);
    if (!literal) {  // an address: no resolver round trip
      if ((address.is_v4() && !useV4) || (address.is_v6() && !useV6)) {
        return fail(connectionError(systemError(EAFNOSUPPORT)));
      }
      endpoints_.emplace_back(address, port_);
      return connectTo(0);
    }
    switch (zavloSpecialUseName(host_)) {
      case ZavloLinuxSpecialName::localhost:
        // Without this, an IPv6-only try of "localhost" would ask the name server
        // whenever the hosts file names no IPv6 loopback.
        if (useV6) endpoints_.emplace_back(asio::ip::address_v6::loopback(), port_);
        if (useV4) endpoints_.emplace_back(asio::ip::address_v4::loopback(), port_);
        return connectTo(0);
      case ZavloLinuxSpecialName::invalid:
        return fail(connectionError(asio::error::host_not_found));
      case ZavloLinuxSpecialName::none:
        break;
    }
    if (parameters_.requiredInterfaceType == ZavloInterfaceType::cellular) return resolveOverLink(useV4, useV6);
    resolver_.emplace(*core_->io);
    const auto flags = Tcp::resolver::numeric_service;  // and no AI_ADDRCONFIG: ::1 counts
    auto onResolved = [self = shared_from_this()](const std::error_code& error,
                                                  const Tcp::resolver::results_type& results) {
      self->resolved(error, results);
    };
    const auto service = std::to_string(port_);
    if (!useV6) {
      resolver_->async_resolve(Tcp::v4(), host_, service, flags, std::move(onResolved));
    } else if (!useV4) {
      resolver_->async_resolve(Tcp::v6(), host_, service, flags, std::move(onResolved));
    } else {
      resolver_->async_resolve(host_, service, flags, std::move(onResolved));
    }
  }

  void resolved(const std::error_code& error, const Tcp::resolver::results_type& results) {
    if (cancelled_ || phase_ != Phase::preparing) return;
    if (error) return curableByAnotherPath(error) ? wait(connectionError(error)) : fail(connectionError(error));
    for (const auto& entry : results) {
      const auto endpoint = entry.endpoint();
      if (std::find(endpoints_.begin(), endpoints_.end(), endpoint) == endpoints_.end()) {
        endpoints_.push_back(endpoint);
      }
    }
    connectTo(0);
  }

  // A connection that must use the cellular link asks that link's own name servers, over
  // the link: the default route's resolver would ask over Wi-Fi, where a name only the
  // operator's servers know fails and an http hop's answer can be forged. Only the families
  // the link can carry are asked, and what the core keeps from earlier hops is not asked again.
  void resolveOverLink(bool useV4, bool useV6) {
    const bool askV4 = useV4 && bindingV4_.kind == ZavloLinuxBinding::Kind::bound;
    const bool askV6 = useV6 && bindingV6_.kind == ZavloLinuxBinding::Kind::bound;
    linkName_ = askV4 ? bindingV4_.interfaceName : bindingV6_.interfaceName;
    const auto now = std::chrono::steady_clock::now();
    answerV4_ = askV4 ? core_->names.find(linkName_, host_, false, now) : ZavloLinuxNameCache::Addresses{};
    answerV6_ = askV6 ? core_->names.find(linkName_, host_, true, now) : ZavloLinuxNameCache::Addresses{};
    if (answerV4_ && answerV6_) return useLinkAnswers();
    unsigned index = 0;
    for (const auto& interface : core_->interfaces()) {
      if (interface.name == linkName_) index = interface.index;
    }
    core_->findLinkServers(
        linkName_, index, [weak = weak_from_this(), resolution = ++resolution_](const ZavloLinuxLinkServers& found) {
          const auto self = weak.lock();
          if (!self || self->cancelled_ || self->phase_ != Phase::preparing || resolution != self->resolution_) {
            return;
          }
          self->askLinkServers(found);
        });
  }

  void askLinkServers(const ZavloLinuxLinkServers& found) {
    if (found.servers.empty()) {
      // Like a missing path: servers may come with the next change of the network.
      return wait({ENETUNREACH, "No name server is known for the cellular interface " + linkName_});
    }
    const bool needV4 = !answerV4_;
    const bool needV6 = !answerV6_;
    using Family = ZavloLinuxLinkLookup::Family;
    lookup_ = ZavloLinuxLinkLookup::start(*core_->io, linkName_, found.servers, host_,
                                          needV4 && needV6 ? Family::any : (needV4 ? Family::v4 : Family::v6),
                                          [weak = weak_from_this(), resolution = resolution_, needV4,
                                           needV6](const ZavloLinuxLinkLookup::Result& result) {
                                            const auto self = weak.lock();
                                            if (!self || resolution != self->resolution_) return;
                                            self->resolvedOverLink(result, needV4, needV6);
                                          });
  }

  void resolvedOverLink(const ZavloLinuxLinkLookup::Result& result, bool askedV4, bool askedV6) {
    lookup_.reset();
    if (cancelled_ || phase_ != Phase::preparing) return;
    if (!ZavloLinuxLinkLookup::answered(result.status)) {
      ZavloConnectionError error{EHOSTUNREACH, "The host name could not be resolved over " + linkName_ + ": " +
                                                   ZavloLinuxLinkLookup::describe(result.status)};
      return ZavloLinuxLinkLookup::serversUnreachable(result.status) ? wait(std::move(error)) : fail(std::move(error));
    }
    const auto now = std::chrono::steady_clock::now();
    const auto keep = [&](const std::vector<asio::ip::address>& addresses, bool ipv6, std::chrono::seconds ttl) {
      ZavloLinuxNameCache::Addresses kept;
      for (const auto& address : addresses) {
        std::array<std::uint8_t, 16> bytes{};
        if (address.is_v6()) {
          bytes = address.to_v6().to_bytes();
        } else {
          const auto v4 = address.to_v4().to_bytes();
          std::copy(v4.begin(), v4.end(), bytes.begin());
        }
        kept.push_back(bytes);
      }
      core_->names.store(linkName_, host_, ipv6, kept, ttl, now);
      return kept;
    };
    if (askedV4) answerV4_ = keep(result.v4, false, result.v4Ttl);
    if (askedV6) answerV6_ = keep(result.v6, true, result.v6Ttl);
    useLinkAnswers();
  }

  // Hands the answers over as endpoints_, IPv6 first.
  void useLinkAnswers() {
    for (const auto& bytes : *answerV6_) endpoints_.emplace_back(asio::ip::address_v6(bytes), port_);
    for (const auto& bytes : *answerV4_) {
      endpoints_.emplace_back(asio::ip::address_v4({bytes[0], bytes[1], bytes[2], bytes[3]}), port_);
    }
    if (endpoints_.empty()) {
      return fail({EHOSTUNREACH, "The host name could not be resolved over " + linkName_ +
                                     ": it has no address of the IP version asked for"});
    }
    connectTo(0);
  }

  ZavloConnectionError noUsableInterface() const { return zavloNoUsableInterfaceError(parameters_); }
  ZavloConnectionError noInterfaceOfFamily(bool ipv6) const {
    return {EADDRNOTAVAIL,
            noUsableInterface().localizedDescription + " has an " + (ipv6 ? "IPv6" : "IPv4") + " address"};
  }

  const ZavloLinuxBinding& bindingFor(const Tcp::endpoint& endpoint) const {
    return endpoint.address().is_v6() ? bindingV6_ : bindingV4_;
  }

  // Whether attempts overlap: only when either IP version may be used.
  bool racesAttempts() const { return parameters_.ipVersion == ZavloConnectionParameters::IpVersion::any; }

  // Connects to endpoints_ from index first on, skipping families without a usable
  // interface: one after another, or raced with the families interleaved.
  void connectTo(std::size_t first) {
    if (racesAttempts() && first + 1 < endpoints_.size()) {  // one endpoint has no order to change
      const auto rest =
          first < endpoints_.size() ? endpoints_.begin() + static_cast<std::ptrdiff_t>(first) : endpoints_.end();
      const auto ordered =
          zavloInterleaveFamilies(std::vector<Tcp::endpoint>(rest, endpoints_.end()),
                                  [](const Tcp::endpoint& endpoint) { return endpoint.address().is_v6(); });
      std::copy(ordered.begin(), ordered.end(), rest);
    }
    nextEndpoint_ = first;
    skippedIpv6_.reset();
    startNextAttempt();
  }

  // Starts the next endpoint's attempt, and when racing, the one after it once the delay has
  // passed. Once none is left and none is in flight, it waits if every attempt met what
  // another path may cure, else it fails.
  void startNextAttempt() {
    stopNextAttemptTimer();
    while (nextEndpoint_ < endpoints_.size()) {
      const auto& endpoint = endpoints_[nextEndpoint_++];
      if (bindingFor(endpoint).kind == ZavloLinuxBinding::Kind::none) {
        skippedIpv6_ = skippedIpv6_.value_or(endpoint.address().is_v6());
        continue;
      }
      if (!startAttempt(endpoint)) continue;  // failed at once: the next goes now
      if (racesAttempts() && nextEndpoint_ < endpoints_.size()) {
        nextAttemptTimer_.expires_after(kConnectionAttemptDelay);
        nextAttemptTimer_.async_wait(
            [self = shared_from_this(), schedule = nextAttemptSchedule_](const std::error_code& error) {
              if (error || schedule != self->nextAttemptSchedule_ || self->phase_ != Phase::preparing) return;
              self->startNextAttempt();
            });
      }
      return;
    }
    if (!attempts_.empty()) return;  // those in flight decide
    if (!lastError_) return fail(noInterfaceOfFamily(skippedIpv6_.value_or(false)));
    return waitable_ ? wait(*lastError_) : fail(*lastError_);
  }

  // False when the attempt failed before any I/O (its error recorded).
  bool startAttempt(const Tcp::endpoint& endpoint) {
    const auto& binding = bindingFor(endpoint);
    auto attempt = std::make_shared<Attempt>(*core_->io);
    if (tls_) {
      SSL_CTX_up_ref(tls_->nativeHandle());
      asio::ssl::context context(tls_->nativeHandle());  // owns that extra reference
      attempt->secure.emplace(*core_->io, context);
    } else {
      attempt->plain.emplace(*core_->io);
    }
    auto& tcp = attempt->socket();
    std::error_code error;
    tcp.open(endpoint.protocol(), error);
    if (!error && binding.kind == ZavloLinuxBinding::Kind::bound &&
        ::setsockopt(tcp.native_handle(), SOL_SOCKET, SO_BINDTODEVICE, binding.interfaceName.c_str(),
                     static_cast<socklen_t>(binding.interfaceName.size() + 1)) != 0) {
      error = systemError(errno);
    }
    if (error) {
      recordFailure(*attempt, error);
      return false;
    }
    // Each option costs a system call per hop, so only what differs from the defaults.
    if (parameters_.tcp.enableKeepalive) tcp.set_option(asio::socket_base::keep_alive(true), error);
    if (tls_) {
      // The request follows the client's Finished at once; it must not wait for an ACK.
      tcp.set_option(Tcp::no_delay(true), error);
      if (parameters_.tcp.enableFastOpen) {
        const int enable = 1;  // kernels without it simply connect the usual way
        ::setsockopt(tcp.native_handle(), IPPROTO_TCP, TCP_FASTOPEN_CONNECT, &enable, sizeof enable);
      }
    }
    attempts_.push_back(attempt);
    // With Fast Open the handshake travels with the first bytes, so the time-out covers
    // the TLS handshake too.
    if (parameters_.tcp.connectionTimeout.count() > 0) {
      attempt->timeout.expires_after(parameters_.tcp.connectionTimeout);
      attempt->timeout.async_wait([self = shared_from_this(), attempt](const std::error_code& waitError) {
        if (waitError || !self->inFlight(attempt)) return;
        attempt->timedOut = true;
        std::error_code ignored;
        attempt->socket().close(ignored);
      });
    }
    tcp.async_connect(endpoint, [self = shared_from_this(), attempt](const std::error_code& connectError) {
      self->connected(attempt, connectError);
    });
    return true;
  }

  bool inFlight(const std::shared_ptr<Attempt>& attempt) const {
    return phase_ == Phase::preparing && std::find(attempts_.begin(), attempts_.end(), attempt) != attempts_.end();
  }

  void connected(const std::shared_ptr<Attempt>& attempt, const std::error_code& error) {
    if (cancelled_ || !inFlight(attempt)) return;
    if (error) return attemptFailed(attempt, error);
    if (!attempt->secure) return won(attempt);
    if (!tls_->prepare(attempt->secure->native_handle(), host_, port_)) {
      return fail({EINVAL, "The host name cannot be checked against a certificate"});
    }
    // The race goes on through the handshake: with Fast Open a connect completes before
    // any packet has crossed the path, and a path may carry a SYN but lose larger packets.
    attempt->secure->async_handshake(asio::ssl::stream_base::client,
                                     [self = shared_from_this(), attempt](const std::error_code& handshakeError) {
                                       self->handshaken(attempt, handshakeError);
                                     });
  }

  void handshaken(const std::shared_ptr<Attempt>& attempt, const std::error_code& error) {
    if (cancelled_ || !inFlight(attempt)) return;
    if (!error) return won(attempt);
    // Transport failures may be specific to this address; TLS refusals are not.
    if (error.category() == asio::error::get_system_category()) return attemptFailed(attempt, error);
    fail(connectionError(error, attempt->secure->native_handle()));
  }

  void attemptFailed(const std::shared_ptr<Attempt>& attempt, const std::error_code& error) {
    attempts_.erase(std::find(attempts_.begin(), attempts_.end(), attempt));
    recordFailure(*attempt, error);
    startNextAttempt();
  }

  void recordFailure(Attempt& attempt, const std::error_code& error) {
    const auto cause = attempt.timedOut ? systemError(ETIMEDOUT) : error;
    if (!curableByAnotherPath(cause)) waitable_ = false;
    lastError_ = connectionError(cause);
    attempt.close();
  }

  // The first attempt ready becomes the connection's stream; the others are closed.
  void won(const std::shared_ptr<Attempt>& attempt) {
    stopNextAttemptTimer();
    attempt->timeout.cancel();
    attempts_.erase(std::find(attempts_.begin(), attempts_.end(), attempt));
    closeAttempts();
    stream_ = attempt;
    becomeReady();
  }

  void stopNextAttemptTimer() {
    nextAttemptTimer_.cancel();
    ++nextAttemptSchedule_;  // a delay that has already run out starts nothing either
  }

  void closeAttempts() {
    for (const auto& attempt : attempts_) attempt->close();
    attempts_.clear();
  }

  void becomeReady() {
    phase_ = Phase::ready;
    deliverState(State::ready);
    pumpSends();
    pumpReceives();
  }

  // Reports waiting and tries again, from the interfaces on, when the network changes;
  // sends and receives stay pending. Only the caller's time-out or cancel ends it.
  void wait(ZavloConnectionError error) {
    phase_ = Phase::waiting;
    closeTransport();
    deliverState(State::waiting, std::move(error));
    core_->waitForPathChange(this, [weak = weak_from_this()] {
      if (const auto self = weak.lock(); self && !self->cancelled_ && self->phase_ == Phase::waiting) {
        self->phase_ = Phase::preparing;
        self->deliverState(State::preparing);
        self->choosePath();
      }
    });
  }

  void fail(ZavloConnectionError error) {
    if (phase_ == Phase::failed || phase_ == Phase::closed) return;
    core_->stopWaitingForPathChange(this);
    phase_ = Phase::failed;
    failure_ = error;
    deliverState(State::failed, std::move(error));
    closeTransport();
    pumpSends();
    pumpReceives();
    core_->keptAlive.erase(shared_from_this());  // callers hold their own reference
  }

  void close() {
    phase_ = Phase::closed;
    core_->stopWaitingForPathChange(this);
    closeTransport();
    if ((!sends_.empty() || !receives_.empty()) && !core_->stopped) {
      // The caller's completions are let go of on the caller's queue, not here.
      queue_->post([sends = std::move(sends_), receives = std::move(receives_)] {});
      sends_.clear();
      receives_.clear();
    }
    core_->keptAlive.erase(shared_from_this());
  }

  void closeTransport() {
    stopNextAttemptTimer();
    if (resolver_) resolver_->cancel();
    lookup_.reset();
    ++resolution_;  // a name server search still running reports to no one
    closeAttempts();
    if (stream_) stream_->close();
  }

  void pumpSends() {
    if (phase_ == Phase::failed) {
      for (auto& pending : std::exchange(sends_, {})) {
        if (pending.completion)
          deliver([completion = std::move(pending.completion), error = failure_] { completion(error); });
      }
      return;
    }
    if (phase_ != Phase::ready || sending_ || sends_.empty()) return;
    sending_ = true;
    auto onWritten = [self = shared_from_this()](const std::error_code& error, std::size_t) { self->sent(error); };
    const auto buffer = asio::buffer(sends_.front().content);
    if (stream_->secure) {
      asio::async_write(*stream_->secure, buffer, std::move(onWritten));
    } else {
      asio::async_write(*stream_->plain, buffer, std::move(onWritten));
    }
  }

  void sent(const std::error_code& error) {
    sending_ = false;
    if (phase_ == Phase::closed || sends_.empty()) return;
    auto pending = std::move(sends_.front());
    sends_.pop_front();
    if (pending.completion) {
      std::optional<ZavloConnectionError> result;
      if (error) result = connectionError(error);
      deliver([completion = std::move(pending.completion), result = std::move(result)] { completion(result); });
    }
    pumpSends();
  }

  void pumpReceives() {
    if (phase_ == Phase::failed) {
      for (auto& pending : std::exchange(receives_, {})) {
        if (pending.completion) {
          deliver([completion = std::move(pending.completion), error = failure_] { completion({}, false, error); });
        }
      }
      return;
    }
    while (phase_ == Phase::ready && !receiving_ && !receives_.empty()) {
      auto& front = receives_.front();
      if (deferredFailure_) {
        finishReceive({}, false, std::exchange(deferredFailure_, std::nullopt));
        continue;
      }
      if (peerFinished_ || front.maximum == 0) {
        std::optional<ZavloConnectionError> error;
        if (!peerFinished_) error = connectionError(systemError(EINVAL));
        finishReceive({}, peerFinished_, std::move(error));
        continue;
      }
      receiving_ = true;
      const auto minimum = std::clamp<std::size_t>(front.minimum, 1, front.maximum);
      // Room for what usually comes; received() makes more as more arrives.
      if (const auto wanted = std::min(front.maximum, std::max(minimum, kFirstReadSize)); readCapacity_ < wanted) {
        readBuffer_ = std::make_unique_for_overwrite<std::uint8_t[]>(wanted);
        readCapacity_ = wanted;
      }
      auto onRead = [self = shared_from_this()](const std::error_code& error, std::size_t count) {
        self->received(error, count);
      };
      const auto buffer = asio::buffer(readBuffer_.get(), std::min(readCapacity_, front.maximum));
      if (stream_->secure) {
        asio::async_read(*stream_->secure, buffer, asio::transfer_at_least(minimum), std::move(onRead));
      } else {
        asio::async_read(*stream_->plain, buffer, asio::transfer_at_least(minimum), std::move(onRead));
      }
    }
  }

  void received(const std::error_code& error, std::size_t count) {
    receiving_ = false;
    if (phase_ == Phase::closed || receives_.empty()) return;
    const auto room = std::min(readCapacity_, receives_.front().maximum) - filled_;
    filled_ += count;
    // A read returns what one system call, or one TLS record, brought; a receive returns
    // everything that has arrived by now, so read on while more is waiting. A plain read
    // that left room took all the socket held: asking the kernel again would cost a call.
    if (!error && filled_ < receives_.front().maximum && (stream_->secure || count == room) && moreIsWaiting()) {
      if (filled_ == readCapacity_) {
        auto larger = std::make_unique_for_overwrite<std::uint8_t[]>(
            std::min(receives_.front().maximum, readCapacity_ * kReadGrowth));
        std::copy(readBuffer_.get(), readBuffer_.get() + filled_, larger.get());
        readBuffer_ = std::move(larger);
        readCapacity_ = std::min(receives_.front().maximum, readCapacity_ * kReadGrowth);
      }
      receiving_ = true;
      auto onRead = [self = shared_from_this()](const std::error_code& readError, std::size_t readCount) {
        self->received(readError, readCount);
      };
      const auto rest =
          asio::buffer(readBuffer_.get() + filled_, std::min(readCapacity_, receives_.front().maximum) - filled_);
      if (stream_->secure) {
        stream_->secure->async_read_some(rest, std::move(onRead));
      } else {
        stream_->plain->async_read_some(rest, std::move(onRead));
      }
      return;
    }
    std::vector<std::uint8_t> data(readBuffer_.get(), readBuffer_.get() + std::exchange(filled_, 0));
    std::optional<ZavloConnectionError> failure;
    // A peer that closes without a TLS close_notify has still finished its answer.
    if (error == asio::error::eof || error == asio::ssl::error::stream_truncated) {
      peerFinished_ = true;
    } else if (error && data.empty()) {
      failure = connectionError(error);
    } else if (error) {
      deferredFailure_ = connectionError(error);  // the bytes before it go out first
    }
    finishReceive(std::move(data), peerFinished_, std::move(failure));
    pumpReceives();
  }

  // Whether a read would find bytes without waiting for the peer: decrypted or still
  // encrypted in the TLS engine, or in the socket.
  bool moreIsWaiting() {
    if (stream_->secure) {
      SSL* ssl = stream_->secure->native_handle();
      if (SSL_pending(ssl) > 0 || SSL_has_pending(ssl) == 1 || BIO_ctrl_pending(SSL_get_rbio(ssl)) > 0) return true;
    }
    std::error_code error;
    return stream_->socket().available(error) > 0 && !error;
  }

  void finishReceive(std::vector<std::uint8_t> data, bool isComplete, std::optional<ZavloConnectionError> error) {
    auto pending = std::move(receives_.front());
    receives_.pop_front();
    if (!pending.completion) return;
    deliver([completion = std::move(pending.completion), data = std::move(data), isComplete,
             error = std::move(error)]() mutable { completion(std::move(data), isComplete, error); });
  }

  // Immutable after construction.
  const std::shared_ptr<ZavloLinuxNetworkCore> core_;
  std::string host_;
  const std::uint16_t port_;
  const ZavloConnectionParameters parameters_;

  // Shared between the caller's threads, the queue and the I/O thread.
  std::mutex mutex_;
  StateHandler handler_;
  bool started_ = false;
  std::atomic<bool> cancelled_{false};
  ZavloQueue* queue_ = nullptr;             // set once by start(), before any I/O work is posted
  std::atomic<unsigned> queuedReports_{0};  // reports posted to the queue and not yet run
  std::atomic<unsigned> postedIo_{0};       // sends and receives posted to the I/O thread and not yet run

  // I/O thread only.
  Phase phase_ = Phase::idle;
  std::shared_ptr<ZavloLinuxTlsContext> tls_;
  ZavloLinuxBinding bindingV4_;
  ZavloLinuxBinding bindingV6_;
  std::optional<Tcp::resolver> resolver_;
  // Names over the cellular link: the link asked, its answers per family (nothing while
  // unknown), the lookup in flight, and which resolution a late report belongs to.
  std::string linkName_;
  std::optional<ZavloLinuxNameCache::Addresses> answerV4_;
  std::optional<ZavloLinuxNameCache::Addresses> answerV6_;
  std::shared_ptr<ZavloLinuxLinkLookup> lookup_;
  std::uint64_t resolution_ = 0;
  std::vector<Tcp::endpoint> endpoints_;
  std::optional<ZavloConnectionError> lastError_;
  bool waitable_ = true;                            // every try so far met what another path may cure
  std::size_t nextEndpoint_ = 0;                    // of endpoints_, the next to try
  std::optional<bool> skippedIpv6_;                 // the family of the first endpoint skipped for want of an interface
  std::vector<std::shared_ptr<Attempt>> attempts_;  // started, and neither failed nor ready
  asio::steady_timer nextAttemptTimer_;             // racing: when the next endpoint starts beside them
  std::uint64_t nextAttemptSchedule_ = 0;
  std::shared_ptr<Attempt> stream_;  // the attempt that was ready first
  std::optional<ZavloConnectionError> failure_;
  // Lists, not deques: a deque allocates even when empty or moved from, and a connection
  // usually holds one send and one receive.
  std::list<PendingSend> sends_;
  bool sending_ = false;
  std::list<PendingReceive> receives_;
  bool receiving_ = false;
  std::size_t filled_ = 0;  // bytes of readBuffer_ the current receive has already taken
  bool peerFinished_ = false;
  std::optional<ZavloConnectionError> deferredFailure_;  // for the receive after the data
  std::unique_ptr<std::uint8_t[]> readBuffer_;
  std::size_t readCapacity_ = 0;
};

}  // namespace

void ZavloLinuxNetworkCore::closeTransport(ZavloConnection& connection) {
  static_cast<ZavloLinuxConnection&>(connection).abandon();
}

std::shared_ptr<ZavloConnection> ZavloLinuxConnectionService::makeConnection(const std::string& host,
                                                                             std::uint16_t port,
                                                                             ZavloConnectionParameters parameters) {
  return std::make_shared<ZavloLinuxConnection>(core_, host, port, std::move(parameters));
}
