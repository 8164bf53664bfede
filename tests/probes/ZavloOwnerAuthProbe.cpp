// Runs one owner authentication through PAM and prints what happened as one JSON line.
// PAM (and the shadow entry, through nss_wrapper) is only redirected to a test's own files
// by preloading the wrappers, which must happen before a process starts, so the
// integration tests run this probe instead of calling PAM in their own process.
//
//   zavlo-owner-auth-probe [OPTION=VALUE]... SERVICE SCENARIO [TEXT]
//
// Options: --secret=password|token|none, --secret-file=PATH, --fingerprint-bus=ADDRESS,
// --mode=pam|allow. Scenarios:
//   check              the owner policy's availability
//   answer TEXT        answers every prompt with TEXT
//   cancel             the owner cancels at the prompt
//   cannot-ask         the conversation has no way to ask
//   destroy            the context goes while its prompt is up
//   reply-owns TEXT    the reply holds the last reference to the context
//   no-descriptors     the evaluation starts with no file descriptor left to make
//   no-threads         the evaluation starts with no thread left to make (the probe
//                      becomes nobody for it)

#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <iostream>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "Platform/Linux/Owner/ZavloLinuxOwnerAuthentication.hpp"

namespace {

using Auth = ZavloLinuxOwnerAuthentication;

nlohmann::json errorJson(const std::optional<ZavloOwnerAuthenticationError>& error) {
  if (!error) return nullptr;
  return {{"domain", error->domain}, {"code", error->code}, {"description", error->description}};
}

nlohmann::json proofJson(const std::unique_ptr<ZavloOwnerProof>& proof) {
  if (!proof) return nullptr;
  const auto secret = proof->secret();
  return {{"secret", std::string(secret.begin(), secret.end())}, {"verified", proof->verified()}};
}

// Lowers the soft descriptor limit to the lowest free descriptor, so that the next one
// cannot be made; the destructor puts it back.
class NoDescriptorsLeft {
 public:
  NoDescriptorsLeft() {
    getrlimit(RLIMIT_NOFILE, &saved_);
    const int lowestFree = dup(0);
    if (lowestFree < 0) throw std::runtime_error("cannot find the lowest free descriptor");
    close(lowestFree);
    rlimit lowered = saved_;
    lowered.rlim_cur = static_cast<rlim_t>(lowestFree);
    if (setrlimit(RLIMIT_NOFILE, &lowered) != 0) throw std::runtime_error("cannot lower RLIMIT_NOFILE");
  }
  NoDescriptorsLeft(const NoDescriptorsLeft&) = delete;
  NoDescriptorsLeft& operator=(const NoDescriptorsLeft&) = delete;
  ~NoDescriptorsLeft() { setrlimit(RLIMIT_NOFILE, &saved_); }

 private:
  rlimit saved_{};
};

// Becomes nobody with no process left to start, so that the next thread cannot be made;
// the soft limit comes back afterwards (the leak sanitizer starts a thread at exit).
class NoThreadsLeft {
 public:
  NoThreadsLeft() {
    getrlimit(RLIMIT_NPROC, &saved_);
    if (setgid(65534) != 0 || setuid(65534) != 0) throw std::runtime_error("cannot become nobody");
    rlimit none = saved_;
    none.rlim_cur = 0;
    if (setrlimit(RLIMIT_NPROC, &none) != 0) throw std::runtime_error("cannot lower RLIMIT_NPROC");
  }
  NoThreadsLeft(const NoThreadsLeft&) = delete;
  NoThreadsLeft& operator=(const NoThreadsLeft&) = delete;
  ~NoThreadsLeft() { setrlimit(RLIMIT_NPROC, &saved_); }

 private:
  rlimit saved_{};
};

// The undefined-behaviour sanitizer checks the dynamic type of a call the first time it
// sees it, through a pipe, which cannot be made once the limits bite: one evaluation and one
// error message beforehand make those checks.
void warmUpTypeChecks() {
  Auth::Options options;
  options.mode = Auth::Mode::allow;
  options.conversation = [](const Auth::ConversationRound&) { return std::optional<Auth::Answers>(); };
  Auth authentication(std::move(options));
  authentication.makeContext()->evaluatePolicy(ZavloOwnerAuthenticationPolicy::deviceOwnerAuthentication, "warm-up",
                                               [](bool, const std::optional<ZavloOwnerAuthenticationError>&) {});
  authentication.waitForEvaluations();
  (void)std::generic_category().message(EMFILE);
}

int run(const std::map<std::string, std::string>& options, const std::string& service, const std::string& scenario,
        const std::string& text) {
  std::mutex mutex;
  nlohmann::json report = {{"replies", 0}, {"rounds", nlohmann::json::array()}};
  std::promise<void> promptShown;
  std::atomic<bool> promptSignalled{false};

  Auth::Options authOptions;
  authOptions.pamService = service;
  const auto option = [&](const std::string& name) { return options.count(name) != 0 ? options.at(name) : ""; };
  if (option("secret") == "token") authOptions.secret = Auth::Secret::tokenPin;
  if (option("secret") == "none") authOptions.secret = Auth::Secret::none;
  if (option("mode") == "allow") authOptions.mode = Auth::Mode::allow;
  if (!option("secret-file").empty()) authOptions.secretFile = option("secret-file");
  if (!option("fingerprint-bus").empty()) authOptions.fingerprintBusAddress = option("fingerprint-bus");
  authOptions.conversation = [&](const Auth::ConversationRound& round) -> std::optional<Auth::Answers> {
    {
      const std::lock_guard lock(mutex);
      const char* purposes[] = {"pam", "keyPassword", "tokenPin"};
      auto prompts = nlohmann::json::array();
      for (const auto& message : round.messages) {
        if (message.style == Auth::Message::Style::promptEchoOff) prompts.push_back(message.text);
      }
      report["rounds"].push_back({{"purpose", purposes[static_cast<int>(round.purpose)]}, {"echoOff", prompts}});
      report["reason"] = round.reason;
      report["origin"] = round.requestingOrigin;
    }
    if (scenario == "cancel") return std::nullopt;
    if (scenario == "cannot-ask") throw std::runtime_error("This probe has no terminal to ask on.");
    if (scenario == "destroy") {
      if (!promptSignalled.exchange(true)) promptShown.set_value();
      pollfd cancelled{round.cancelFd, POLLIN, 0};
      while (poll(&cancelled, 1, -1) < 0) {
      }
      return std::nullopt;
    }
    Auth::Answers answers;
    for (std::size_t i = 0; i < round.messages.size(); ++i) {
      answers.push_back(ZavloLinuxSecret::copyOf({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}));
    }
    return answers;
  };
  Auth authentication(std::move(authOptions));
  auto context = authentication.makeContext();

  if (scenario == "check") {
    const auto error = context->policyError(ZavloOwnerAuthenticationPolicy::deviceOwnerAuthentication);
    report["canEvaluate"] = context->canEvaluatePolicy(ZavloOwnerAuthenticationPolicy::deviceOwnerAuthentication);
    report["error"] = errorJson(error);
    std::cout << report.dump() << std::endl;
    return 0;
  }

  const auto caller = std::this_thread::get_id();
  std::weak_ptr<ZavloLinuxOwnerAuthenticationContext> weakContext = context;
  auto reply = [&, owned = scenario == "reply-owns" ? context : nullptr](
                   bool success, const std::optional<ZavloOwnerAuthenticationError>& error) {
    const std::lock_guard lock(mutex);
    report["replies"] = report["replies"].get<int>() + 1;
    report["success"] = success;
    report["error"] = errorJson(error);
    report["replyOnCallingThread"] = std::this_thread::get_id() == caller;
    if (owned) report["proofInReply"] = proofJson(owned->takeOwnerProof());
  };
  {
    if (scenario.rfind("no-", 0) == 0) warmUpTypeChecks();
    std::optional<NoDescriptorsLeft> noDescriptors;
    std::optional<NoThreadsLeft> noThreads;
    if (scenario == "no-descriptors") noDescriptors.emplace();
    if (scenario == "no-threads") noThreads.emplace();
    // As a page could write them: the conversation gets them made safe.
    context->setRequestingOrigin("https://probe.example\x1b[2K");
    context->evaluatePolicy(ZavloOwnerAuthenticationPolicy::deviceOwnerAuthentication,
                            "Sign in to the probe\n\x1b]0;title\x07", std::move(reply));
    if (scenario == "destroy") {
      promptShown.get_future().wait();
      context.reset();
    } else if (scenario == "reply-owns") {
      context.reset();
    }
    authentication.waitForEvaluations();
  }

  const std::lock_guard lock(mutex);
  report["contextAlive"] = !weakContext.expired();
  if (context) {
    report["proof"] = proofJson(context->takeOwnerProof());
    report["proofTakenTwice"] = context->takeOwnerProof() != nullptr;
  }
  std::cout << report.dump() << std::endl;
  return 0;
}

}  // namespace

#if defined(__SANITIZE_THREAD__)
// nss_wrapper, preloaded ahead of the sanitizer, takes its lock before ThreadSanitizer is up
// and releases it after, in its calls and in its finalizer at exit (whose frame shows as the
// loader's), which then looks like an unlock of a lock never taken. GLib's D-Bus worker, as
// in the integration tests (tests/support/ZavloThreadSanitizerSuppressions.cpp): memory
// handed over under GLib's own locks, which the sanitizer cannot see.
extern "C" const char* __tsan_default_suppressions() {
  return "called_from_lib:libnss_wrapper.so\n"
         "mutex:_dl_call_fini\n"
         "race:libglib-2.0.so.0\n"
         "race:libgio-2.0.so.0\n";
}
#endif

int main(int argc, char** argv) {
  std::map<std::string, std::string> options;
  int first = 1;
  for (; first < argc && std::string(argv[first]).rfind("--", 0) == 0; ++first) {
    const std::string argument = argv[first] + 2;
    const auto equals = argument.find('=');
    options[argument.substr(0, equals)] = equals == std::string::npos ? "" : argument.substr(equals + 1);
  }
  if (argc - first < 2) {
    std::cerr << "usage: zavlo-owner-auth-probe [--OPTION=VALUE]... SERVICE SCENARIO [TEXT]\n";
    return 2;
  }
  try {
    return run(options, argv[first], argv[first + 1], argc - first > 2 ? argv[first + 2] : "");
  } catch (const std::exception& exception) {
    std::cerr << "zavlo-owner-auth-probe: " << exception.what() << "\n";
    return 1;
  }
}
