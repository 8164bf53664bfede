#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

/// A named network namespace made for the lifetime of this object, visible as /run/netns/NAME
/// (so `ip netns exec NAME ...` works while it exists). Names are "zavlo-ns-<pid>-<n>-<label>".
/// It is removed by the destructor, by SIGINT, SIGTERM, SIGHUP and SIGQUIT (the handlers unmount,
/// then re-raise with the previous disposition), and namespaces left by killed runs (names whose
/// pid no longer lives) are removed when the next one is created. Its loopback is up.
///
/// Needs CAP_SYS_ADMIN; the constructor throws std::system_error with what failed otherwise.
/// Sockets belong to the namespace of the thread that creates them: create them inside run() or
/// while an Entered guard is alive, then use them from any thread.
class ZavloNetworkNamespace {
 public:
  explicit ZavloNetworkNamespace(std::string_view label);
  ~ZavloNetworkNamespace();
  /// A new namespace, or null with the reason when this process may not make one (no
  /// root, no `ip` tool), for tests that skip in that case.
  static std::unique_ptr<ZavloNetworkNamespace> create(std::string& whyNot, std::string_view label = "test");
  ZavloNetworkNamespace(const ZavloNetworkNamespace&) = delete;
  ZavloNetworkNamespace& operator=(const ZavloNetworkNamespace&) = delete;

  [[nodiscard]] const std::string& name() const noexcept { return name_; }
  [[nodiscard]] int fd() const noexcept { return fd_; }

  /// Runs fn on a fresh thread inside the namespace and returns its result; fn's exception is rethrown.
  template <class Function>
  auto run(Function&& fn) const -> std::invoke_result_t<Function&> {
    using Result = std::invoke_result_t<Function&>;
    if constexpr (std::is_void_v<Result>) {
      runOnThread(fn);
    } else {
      std::optional<Result> result;
      runOnThread([&] { result.emplace(fn()); });
      return std::move(*result);
    }
  }

  /// run() for work without a result.
  void runInside(const std::function<void()>& work) const { runOnThread(work); }
  /// Runs `ip -n NAME arguments...`; throws std::runtime_error with ip's message if it fails.
  void ip(const std::vector<std::string>& arguments) const;

  /// Keeps the calling thread inside a namespace until destroyed, then moves it back. Processes
  /// started meanwhile (fork, posix_spawn) start inside too.
  class Entered {
   public:
    Entered(Entered&& other) noexcept : original_(std::exchange(other.original_, -1)) {}
    Entered& operator=(Entered&&) = delete;
    Entered(const Entered&) = delete;
    Entered& operator=(const Entered&) = delete;
    ~Entered();

   private:
    friend class ZavloNetworkNamespace;
    explicit Entered(int original) noexcept : original_(original) {}
    int original_;
  };
  /// Moves the calling thread into the namespace; throws std::system_error when it cannot.
  [[nodiscard]] Entered enter() const;

 private:
  void runOnThread(const std::function<void()>& fn) const;

  std::string name_;
  std::string path_;
  int fd_ = -1;
  int slot_ = -1;  // entry in the signal-time clean-up table
};

/// A TUN device (the no-ARP link type of raw-IP modems; a stand-in for a modem once declared
/// cellular) made inside a namespace and held open, so that it has a carrier once it is set up.
class ZavloTunDevice {
 public:
  /// Throws std::runtime_error when the device cannot be made.
  ZavloTunDevice(const ZavloNetworkNamespace& ns, const std::string& name);
  ~ZavloTunDevice();
  ZavloTunDevice(const ZavloTunDevice&) = delete;
  ZavloTunDevice& operator=(const ZavloTunDevice&) = delete;

  [[nodiscard]] int fd() const noexcept { return descriptor_; }

 private:
  int descriptor_ = -1;
};
