// Runs one owner authentication through PAM and prints what happened as one JSON line.
// PAM is only redirected to a test's own service files by preloading pam_wrapper, which
// must happen before a process starts, so the integration tests run this probe instead of
// calling PAM in their own process.
//
//   zavlo-owner-auth-probe SERVICE check
//   zavlo-owner-auth-probe SERVICE answer TEXT        answers every prompt with TEXT
//   zavlo-owner-auth-probe SERVICE cancel             the owner cancels at the prompt
//   zavlo-owner-auth-probe SERVICE cannot-ask         the conversation has no way to ask
//   zavlo-owner-auth-probe SERVICE destroy            the context goes while its prompt is up
//   zavlo-owner-auth-probe SERVICE reply-owns TEXT    the reply holds the last reference to the context

#include <poll.h>

#include <atomic>
#include <future>
#include <iostream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>

#include "Platform/Linux/Owner/ZavloLinuxOwnerAuthentication.hpp"

namespace {

using Auth = ZavloLinuxOwnerAuthentication;

const char* styleName(Auth::Message::Style style) {
  switch (style) {
    case Auth::Message::Style::promptEchoOff:
      return "promptEchoOff";
    case Auth::Message::Style::promptEchoOn:
      return "promptEchoOn";
    case Auth::Message::Style::errorMessage:
      return "errorMessage";
    case Auth::Message::Style::textInfo:
      return "textInfo";
  }
  return "?";
}

nlohmann::json errorJson(const std::optional<ZavloOwnerAuthenticationError>& error) {
  if (!error) return nullptr;
  return {{"domain", error->domain}, {"code", error->code}, {"description", error->description}};
}

int run(const std::string& service, const std::string& scenario, const std::string& text) {
  std::mutex mutex;
  nlohmann::json report = {{"replies", 0}, {"messages", nlohmann::json::array()}};
  std::promise<void> promptShown;
  std::atomic<bool> promptSignalled{false};

  Auth::Options options;
  options.pamService = service;
  options.conversation = [&](const Auth::ConversationRound& round) -> std::optional<std::vector<std::string>> {
    {
      const std::lock_guard lock(mutex);
      for (const auto& message : round.messages) {
        report["messages"].push_back({styleName(message.style), message.text});
      }
      report["reason"] = round.reason;
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
    return std::vector<std::string>(round.messages.size(), text);
  };
  Auth authentication(std::move(options));
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
                   bool success, std::optional<ZavloOwnerAuthenticationError> error) {
    const std::lock_guard lock(mutex);
    report["replies"] = report["replies"].get<int>() + 1;
    report["success"] = success;
    report["error"] = errorJson(error);
    report["replyOnCallingThread"] = std::this_thread::get_id() == caller;
    if (owned) report["authenticatedInReply"] = (owned->takeOwnerProof() != nullptr);
  };
  context->evaluatePolicy(ZavloOwnerAuthenticationPolicy::deviceOwnerAuthentication, "Sign in to the probe",
                          std::move(reply));
  if (scenario == "destroy") {
    promptShown.get_future().wait();
    context.reset();
  } else if (scenario == "reply-owns") {
    context.reset();
  }
  authentication.waitForEvaluations();

  const std::lock_guard lock(mutex);
  report["contextAlive"] = !weakContext.expired();
  if (context) report["authenticated"] = (context->takeOwnerProof() != nullptr);
  std::cout << report.dump() << std::endl;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: zavlo-owner-auth-probe SERVICE SCENARIO [TEXT]\n";
    return 2;
  }
  try {
    return run(argv[1], argv[2], argc > 3 ? argv[3] : "");
  } catch (const std::exception& exception) {
    std::cerr << "zavlo-owner-auth-probe: " << exception.what() << "\n";
    return 1;
  }
}
