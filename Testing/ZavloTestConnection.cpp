#include "Testing/ZavloTestConnection.hpp"

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <utility>

#include "Platform/ZavloInterfaceRules.hpp"

ZavloTestConnectionScript ZavloTestConnectionScript::answering(std::string_view response) {
  ZavloTestConnectionScript script;
  script.answer = Answer{{response.begin(), response.end()}, true, std::nullopt};
  return script;
}

ZavloTestConnectionScript ZavloTestConnectionScript::failing(ZavloConnectionError error) {
  ZavloTestConnectionScript script;
  script.stateAfterStart = ZavloConnection::State::failed;
  script.startError = std::move(error);
  return script;
}

ZavloTestConnectionScript ZavloTestConnectionScript::silent() { return {}; }

ZavloTestConnectionScript ZavloTestConnectionScript::waiting(ZavloConnectionError error) {
  ZavloTestConnectionScript script;
  script.stateAfterStart = ZavloConnection::State::waiting;
  script.startError = std::move(error);
  return script;
}

ZavloTestConnection::ZavloTestConnection(std::string host, std::uint16_t port, ZavloConnectionParameters parameters,
                                         std::optional<ZavloTestConnectionScript> script, InterfaceSource interfaces)
    : host_(std::move(host)),
      port_(port),
      parameters_(std::move(parameters)),
      script_(std::move(script)),
      interfaces_(std::move(interfaces)) {}

void ZavloTestConnection::setStateUpdateHandler(StateHandler handler) {
  std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

template <class Work>
void ZavloTestConnection::deliver(Work work) {
  if (cancelled_) return;
  queue_->post([self = shared_from_this(), work = std::move(work)]() mutable {
    {
      std::lock_guard lock(self->mutex_);
      if (self->cancelled_) return;  // nothing reaches the caller after `cancelled`
    }
    work();
  });
}

void ZavloTestConnection::start(ZavloQueue& queue) {
  // Read outside the lock: the source takes locks of its own.
  const auto present = interfaces_ ? interfaces_() : std::vector<ZavloNetworkInterface>{};
  std::unique_lock lock(mutex_);
  if (queue_ != nullptr) return;
  queue_ = &queue;
  if (cancelled_) {
    queue.post([self = shared_from_this()] {
      StateHandler handler;
      {
        std::lock_guard inner(self->mutex_);
        handler = std::exchange(self->handler_, nullptr);
        self->reported_.push_back(State::cancelled);
      }
      if (handler) handler(State::cancelled, std::nullopt);
    });
    return;
  }
  state_ = State::preparing;
  // Chosen before anything is reported, as a real platform binds before it connects.
  const auto allowed = std::find_if(present.begin(), present.end(), [this](const ZavloNetworkInterface& interface) {
    return zavloInterfaceAllowed(interface.type, parameters_);
  });
  waitingForInterface_ = allowed == present.end() && zavloRestrictsInterfaces(parameters_);
  if (allowed != present.end()) usedInterface_ = *allowed;
  deliver([this] {
    StateHandler handler;
    {
      std::lock_guard inner(mutex_);
      handler = handler_;
      reported_.push_back(State::preparing);
    }
    if (handler) handler(State::preparing, std::nullopt);
  });
  const bool waiting = waitingForInterface_;
  lock.unlock();
  if (waiting) {
    moveTo(State::waiting, zavloNoUsableInterfaceError(parameters_));
    return;
  }
  followScript();
}

void ZavloTestConnection::followScript() {
  // Reports are posted in order, so the scripted state follows `preparing`.
  if (script_ && script_->stateAfterStart) moveTo(*script_->stateAfterStart, script_->startError);
  feedScriptedAnswer();  // for a receive made before start()
}

void ZavloTestConnection::pathChanged() {
  const auto present = interfaces_ ? interfaces_() : std::vector<ZavloNetworkInterface>{};
  {
    std::lock_guard lock(mutex_);
    if (!waitingForInterface_ || cancelled_) return;
    const auto allowed = std::find_if(present.begin(), present.end(), [this](const ZavloNetworkInterface& interface) {
      return zavloInterfaceAllowed(interface.type, parameters_);
    });
    if (allowed == present.end()) return;
    waitingForInterface_ = false;
    usedInterface_ = *allowed;
  }
  moveTo(State::preparing);
  followScript();
}

void ZavloTestConnection::send(std::vector<std::uint8_t> content, SendCompletion completion) {
  std::unique_lock lock(mutex_);
  if (cancelled_) return;
  sent_.insert(sent_.end(), content.begin(), content.end());
  sends_.push_back({std::move(completion)});
  if (queue_ != nullptr && state_ == State::ready && script_ && script_->completeSends) {
    lock.unlock();
    completeSend(script_->sendError);
  }
}

void ZavloTestConnection::receive(std::size_t minimumIncompleteLength, std::size_t maximumLength,
                                  ReceiveCompletion completion) {
  {
    std::lock_guard lock(mutex_);
    if (cancelled_) return;
    receives_.push_back({{minimumIncompleteLength, maximumLength}, std::move(completion)});
    if (queue_ == nullptr) return;
    serveReceives();
  }
  feedScriptedAnswer();
}

void ZavloTestConnection::feedScriptedAnswer() {
  std::unique_lock lock(mutex_);
  if (!script_ || !script_->answer || answerFed_ || queue_ == nullptr || cancelled_ || receives_.empty()) return;
  answerFed_ = true;
  const auto feed = [self = shared_from_this()] {
    const auto& answer = *self->script_->answer;
    if (answer.error) {
      self->failReceive(*answer.error);
    } else {
      self->answerReceive(answer.data, answer.isComplete);
    }
  };
  if (script_->answerDelay > ZavloQueue::Duration::zero()) {
    queue_->postAfter(script_->answerDelay, feed);
    return;
  }
  lock.unlock();
  feed();
}

void ZavloTestConnection::cancel() {
  std::deque<PendingSend> droppedSends;
  std::deque<PendingReceive> droppedReceives;
  std::lock_guard lock(mutex_);
  ++cancelCalls_;
  if (cancelled_) return;
  cancelled_ = true;
  state_ = State::cancelled;
  droppedSends.swap(sends_);
  droppedReceives.swap(receives_);
  if (queue_ == nullptr) return;  // start() reports it
  queue_->post([self = shared_from_this()] {
    StateHandler handler;
    {
      std::lock_guard inner(self->mutex_);
      handler = std::exchange(self->handler_, nullptr);  // the last call: release the captures
      self->reported_.push_back(State::cancelled);
    }
    if (handler) handler(State::cancelled, std::nullopt);
  });
}

bool ZavloTestConnection::isStarted() const {
  std::lock_guard lock(mutex_);
  return queue_ != nullptr;
}

bool ZavloTestConnection::wasCancelled() const {
  std::lock_guard lock(mutex_);
  return cancelled_;
}

int ZavloTestConnection::cancelCallCount() const {
  std::lock_guard lock(mutex_);
  return cancelCalls_;
}

std::vector<std::uint8_t> ZavloTestConnection::sentData() const {
  std::lock_guard lock(mutex_);
  return sent_;
}

std::string ZavloTestConnection::sentText() const {
  std::lock_guard lock(mutex_);
  return {sent_.begin(), sent_.end()};
}

std::size_t ZavloTestConnection::pendingSendCount() const {
  std::lock_guard lock(mutex_);
  return sends_.size();
}

std::vector<ZavloTestConnection::ReceiveRequest> ZavloTestConnection::pendingReceives() const {
  std::lock_guard lock(mutex_);
  std::vector<ReceiveRequest> requests;
  for (const auto& pending : receives_) requests.push_back(pending.request);
  return requests;
}

std::vector<ZavloConnection::State> ZavloTestConnection::reportedStates() const {
  std::lock_guard lock(mutex_);
  return reported_;
}

std::optional<ZavloNetworkInterface> ZavloTestConnection::usedInterface() const {
  std::lock_guard lock(mutex_);
  return usedInterface_;
}

void ZavloTestConnection::requireStarted() const {
  if (queue_ == nullptr) throw std::logic_error("ZavloTestConnection: drive it only after start()");
}

void ZavloTestConnection::moveTo(State state, const std::optional<ZavloConnectionError>& error) {
  bool completeSends = false;
  {
    std::lock_guard lock(mutex_);
    requireStarted();
    if (state == State::cancelled) throw std::logic_error("ZavloTestConnection: use cancel() to cancel");
    if (cancelled_) return;
    state_ = state;
    deliver([this, state, error] {
      StateHandler handler;
      {
        std::lock_guard inner(mutex_);
        handler = handler_;
        reported_.push_back(state);
      }
      if (handler) handler(state, error);
    });
    if (state == State::failed) {
      failPending(error.value_or(ZavloConnectionError{ECONNABORTED, "Software caused connection abort"}));
    } else if (state == State::ready) {
      serveReceives();
      completeSends = script_ && script_->completeSends && !sends_.empty();
    }
  }
  if (completeSends) {
    while (completeSend(script_->sendError)) {
    }
  }
}

bool ZavloTestConnection::completeSend(std::optional<ZavloConnectionError> error) {
  std::lock_guard lock(mutex_);
  requireStarted();
  if (sends_.empty()) return false;
  auto pending = std::move(sends_.front());
  sends_.pop_front();
  if (pending.completion) {
    deliver([completion = std::move(pending.completion), error = std::move(error)] { completion(error); });
  }
  return true;
}

void ZavloTestConnection::answerReceive(std::string_view bytes, bool isComplete) {
  answerReceive(std::vector<std::uint8_t>(bytes.begin(), bytes.end()), isComplete);
}

void ZavloTestConnection::answerReceive(const std::vector<std::uint8_t>& bytes, bool isComplete) {
  std::lock_guard lock(mutex_);
  requireStarted();
  if (cancelled_ || peerFinished_) return;
  inbound_.insert(inbound_.end(), bytes.begin(), bytes.end());
  peerFinished_ = isComplete;
  serveReceives();
}

bool ZavloTestConnection::failReceive(ZavloConnectionError error) {
  std::lock_guard lock(mutex_);
  requireStarted();
  if (receives_.empty()) return false;
  auto pending = std::move(receives_.front());
  receives_.pop_front();
  if (pending.completion) {
    deliver([completion = std::move(pending.completion), error = std::move(error)] { completion({}, false, error); });
  }
  return true;
}

void ZavloTestConnection::serveReceives() {
  while (state_ == State::ready && !receives_.empty()) {
    auto& front = receives_.front();
    std::vector<std::uint8_t> data;
    std::optional<ZavloConnectionError> error;
    if (front.request.maximumLength == 0) {
      error = ZavloConnectionError{EINVAL, "Invalid argument"};
    } else {
      const auto minimum =
          std::clamp<std::size_t>(front.request.minimumIncompleteLength, 1, front.request.maximumLength);
      if (inbound_.size() < minimum && !peerFinished_) return;
      const auto count = std::min(front.request.maximumLength, inbound_.size());
      data.assign(inbound_.begin(), inbound_.begin() + static_cast<std::ptrdiff_t>(count));
      inbound_.erase(inbound_.begin(), inbound_.begin() + static_cast<std::ptrdiff_t>(count));
    }
    const bool isComplete = !error && peerFinished_ && inbound_.empty();
    auto completion = std::move(front.completion);
    receives_.pop_front();
    if (completion) {
      deliver([completion = std::move(completion), data = std::move(data), isComplete,
               error = std::move(error)]() mutable { completion(std::move(data), isComplete, error); });
    }
  }
}

void ZavloTestConnection::failPending(const ZavloConnectionError& error) {
  for (auto& pending : std::exchange(sends_, {})) {
    if (pending.completion) deliver([completion = std::move(pending.completion), error] { completion(error); });
  }
  for (auto& pending : std::exchange(receives_, {})) {
    if (pending.completion) {
      deliver([completion = std::move(pending.completion), error] { completion({}, false, error); });
    }
  }
}

ZavloTestConnections::ZavloTestConnections()
    : ZavloTestConnections([] {
        return std::vector<ZavloNetworkInterface>{{"wwan0", ZavloInterfaceType::cellular}};
      }) {}

ZavloTestConnections::ZavloTestConnections(ZavloTestConnection::InterfaceSource interfaces)
    : interfaces_(std::move(interfaces)) {}

void ZavloTestConnections::script(const std::string& host, std::uint16_t port, ZavloTestConnectionScript script,
                                  std::optional<ZavloConnectionParameters::IpVersion> ipVersion) {
  std::lock_guard lock(mutex_);
  lasting_.push_back({host, port, ipVersion, std::move(script)});
}

void ZavloTestConnections::scriptNext(const std::string& host, std::uint16_t port, ZavloTestConnectionScript script,
                                      std::optional<ZavloConnectionParameters::IpVersion> ipVersion) {
  std::lock_guard lock(mutex_);
  oneShot_.push_back({host, port, ipVersion, std::move(script)});
}

std::vector<std::shared_ptr<ZavloTestConnection>> ZavloTestConnections::all() const {
  std::lock_guard lock(mutex_);
  return connections_;
}

std::vector<std::shared_ptr<ZavloTestConnection>> ZavloTestConnections::to(const std::string& host,
                                                                           std::uint16_t port) const {
  std::lock_guard lock(mutex_);
  std::vector<std::shared_ptr<ZavloTestConnection>> matching;
  for (const auto& connection : connections_) {
    if (connection->host() == host && connection->port() == port) matching.push_back(connection);
  }
  return matching;
}

std::shared_ptr<ZavloTestConnection> ZavloTestConnections::last() const {
  std::lock_guard lock(mutex_);
  return connections_.empty() ? nullptr : connections_.back();
}

std::size_t ZavloTestConnections::count() const {
  std::lock_guard lock(mutex_);
  return connections_.size();
}

void ZavloTestConnections::pathChanged() {
  for (const auto& connection : all()) connection->pathChanged();
}

std::shared_ptr<ZavloTestConnection> ZavloTestConnections::make(const std::string& host, std::uint16_t port,
                                                                ZavloConnectionParameters parameters) {
  std::lock_guard lock(mutex_);
  std::optional<ZavloTestConnectionScript> chosen;
  const auto matches = [&](const Entry& entry) { return entry.matches(host, port, parameters.ipVersion); };
  if (auto found = std::find_if(oneShot_.begin(), oneShot_.end(), matches); found != oneShot_.end()) {
    chosen = std::move(found->script);
    oneShot_.erase(found);
  } else if (auto lasting = std::find_if(lasting_.rbegin(), lasting_.rend(), matches); lasting != lasting_.rend()) {
    chosen = lasting->script;
  }
  auto connection =
      std::make_shared<ZavloTestConnection>(host, port, std::move(parameters), std::move(chosen), interfaces_);
  connections_.push_back(connection);
  return connection;
}
