#include "Platform/Linux/Network/ZavloLinuxHttpSession.hpp"

#include <curl/curl.h>
#include <pthread.h>

#include <charconv>
#include <condition_variable>
#include <deque>
#include <iterator>
#include <map>
#include <optional>
#include <stdexcept>
#include <string_view>

namespace {

using Code = ZavloHttpTransportError::Code;

// libcurl's global state must be set up once, before any other thread uses it.
bool initialiseCurl() {
  static const bool initialised = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  return initialised;
}

// The one place where libcurl's result codes become our transport errors.
ZavloHttpTransportError transportError(CURLcode result, const char* detail) {
  Code code = Code::other;
  switch (result) {
    case CURLE_OPERATION_TIMEDOUT:
      code = Code::timedOut;
      break;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      code = Code::cannotFindHost;
      break;
    case CURLE_COULDNT_CONNECT:
      code = Code::cannotConnectToHost;
      break;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_CRL_BADFILE:
      code = Code::secureConnectionFailed;
      break;
    case CURLE_GOT_NOTHING:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_PARTIAL_FILE:
      code = Code::networkConnectionLost;
      break;
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_URL_MALFORMAT:
      code = Code::unsupportedURL;
      break;
    default:
      break;
  }
  std::string description(zavloDescribe(code));
  const char* reason = (detail != nullptr && *detail != '\0') ? detail : curl_easy_strerror(result);
  description.append(" (").append(reason).append(")");
  return {code, std::move(description)};
}

struct Task {
  ZavloHttpRequest request;
  ZavloHttpSession::Completion completion;
  std::chrono::steady_clock::time_point submitted;
};

}  // namespace

struct ZavloLinuxHttpSession::Shared {
  explicit Shared(ZavloHttpSessionConfiguration configuration) : configuration(configuration) {}

  const ZavloHttpSessionConfiguration configuration;
  std::mutex mutex;
  std::condition_variable idle;
  CURLM* multi = nullptr;  // set to null (under mutex) by the worker before it frees it
  std::deque<Task> submitted;
  std::size_t outstanding = 0;  // posted and not yet completed
  bool invalidated = false;
  std::thread::id worker;

  // Runs a completion outside every lock, then counts the task as finished. The
  // completion's captures are released before waiters are told.
  void finish(ZavloHttpSession::Completion& completion, ZavloHttpTaskOutcome outcome) {
    try {
      if (completion) completion(std::move(outcome));
    } catch (...) {
      // A completion that throws must not end the worker (and every other task with it).
    }
    completion = nullptr;
    {
      std::lock_guard lock(mutex);
      --outstanding;
    }
    idle.notify_all();
  }
};

// One easy handle and everything it points at; removed from the multi handle and freed on
// every path by the destructor.
struct ZavloLinuxHttpSession::Transfer {
  Transfer(CURLM* multi, Task task) : multi(multi), request(std::move(task.request)), submitted(task.submitted) {
    completion = std::move(task.completion);
    errorBuffer[0] = '\0';
  }
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;
  ~Transfer() {
    if (added) curl_multi_remove_handle(multi, easy);
    if (easy != nullptr) curl_easy_cleanup(easy);
    curl_slist_free_all(headers);
  }

  static std::size_t write(char* data, std::size_t size, std::size_t count, void* context) {
    auto* transfer = static_cast<Transfer*>(context);
    const std::size_t length = size * count;
    if (transfer->received.size() + length > kMaximumResponseSize) {
      transfer->tooLarge = true;
      return 0;  // makes libcurl stop with a write error
    }
    transfer->received.insert(transfer->received.end(), data, data + length);
    return length;
  }

  // libcurl reads a 1xx answer as interim and waits for another; for a post the first
  // status is the answer, so the transfer ends at a 1xx status line, with no body.
  static std::size_t header(char* data, std::size_t size, std::size_t count, void* context) {
    auto* transfer = static_cast<Transfer*>(context);
    const std::string_view line(data, size * count);
    if (!transfer->sawStatusLine && line.starts_with("HTTP/")) {
      transfer->sawStatusLine = true;
      const auto space = line.find(' ');
      if (space != std::string_view::npos && line.size() > space + 3 && line[space + 1] == '1') {
        int status = 0;
        const auto digits = line.substr(space + 1, 3);
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), status);
        if (error == std::errc() && end == digits.data() + digits.size()) {
          transfer->informationalStatus = status;
          return 0;  // makes libcurl stop with a write error
        }
      }
    }
    return line.size();
  }

  // Sets up the easy handle; a failure is reported as the task's outcome.
  CURLcode prepare(const ZavloHttpSessionConfiguration& configuration) {
    easy = curl_easy_init();
    if (easy == nullptr) return CURLE_OUT_OF_MEMORY;
    for (const auto& [name, value] : request.headers) {
      if (!zavloIsValidHeaderField(name, value)) return CURLE_BAD_FUNCTION_ARGUMENT;
      // "Name;" is libcurl's way to send a header with an empty value.
      std::string line = name;
      if (value.empty()) {
        line += ';';
      } else {
        line.append(": ").append(value);
      }
      if (!append(line)) return CURLE_OUT_OF_MEMORY;
    }
    // No "Expect: 100-continue" round trip before larger bodies.
    if (!append("Expect:")) return CURLE_OUT_OF_MEMORY;

    const auto idle = request.timeoutInterval.value_or(configuration.requestTimeout);
    const long idleSeconds = std::max<long>(1, static_cast<long>((idle.count() + 999) / 1000));
    CURLcode result = CURLE_OK;
    const auto set = [&](CURLoption option, auto value) {
      if (result == CURLE_OK) result = curl_easy_setopt(easy, option, value);
    };
    set(CURLOPT_URL, request.url.c_str());
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    set(CURLOPT_FOLLOWLOCATION, 0L);  // a redirect status is the answer to a post
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_POST, 1L);
    set(CURLOPT_POSTFIELDS, static_cast<const void*>(request.body.data()));
    set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    set(CURLOPT_HTTPHEADER, headers);
    set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(idle.count()));
    // Idle time-out: abort when less than one byte a second moves for that long.
    set(CURLOPT_LOW_SPEED_LIMIT, 1L);
    set(CURLOPT_LOW_SPEED_TIME, idleSeconds);
    // The whole-transfer limit runs from the post: a task that waited for a slot gets what
    // is left of it (libcurl reads 0 as "no limit", hence at least a millisecond).
    const auto waited =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - submitted);
    const auto remaining =
        std::max<std::chrono::milliseconds>(configuration.resourceTimeout - waited, std::chrono::milliseconds(1));
    set(CURLOPT_TIMEOUT_MS, static_cast<long>(remaining.count()));
    set(CURLOPT_WRITEFUNCTION, &Transfer::write);
    set(CURLOPT_WRITEDATA, static_cast<void*>(this));
    set(CURLOPT_HEADERFUNCTION, &Transfer::header);
    set(CURLOPT_HEADERDATA, static_cast<void*>(this));
    set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);  // a proxy's answer is not the first status
    set(CURLOPT_ERRORBUFFER, errorBuffer);
    set(CURLOPT_PRIVATE, static_cast<void*>(this));
    return result;
  }

  ZavloHttpTaskOutcome outcome(CURLcode result) {
    if (informationalStatus) return {std::nullopt, informationalStatus, std::vector<std::uint8_t>{}};
    if (answeredButNotHttp(result)) return {};
    if (result != CURLE_OK) {
      if (tooLarge) return ZavloHttpTaskOutcome::failure(Code::other, "The response is too large.");
      return {transportError(result, errorBuffer), std::nullopt, std::nullopt};
    }
    ZavloHttpTaskOutcome outcome;
    long status = 0;
    if (curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK && status > 0) {
      outcome.statusCode = static_cast<int>(status);
    }
    // An HTTP answer always has a body, empty when no bytes came.
    if (outcome.statusCode) outcome.data = std::move(received);
    return outcome;
  }

  // A peer that answered with something other than HTTP: a malformed reply, or a status
  // line libcurl cannot read (reported as an unsupported protocol, but only after a
  // connection was made, which an unsupported scheme never gets to).
  bool answeredButNotHttp(CURLcode result) const {
    if (result == CURLE_WEIRD_SERVER_REPLY) return true;
    if (result != CURLE_UNSUPPORTED_PROTOCOL) return false;
    long connects = 0;
    return curl_easy_getinfo(easy, CURLINFO_NUM_CONNECTS, &connects) == CURLE_OK && connects > 0;
  }

  bool append(const std::string& line) {
    curl_slist* grown = curl_slist_append(headers, line.c_str());
    if (grown == nullptr) return false;
    headers = grown;
    return true;
  }

  CURLM* multi;
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  bool added = false;
  bool tooLarge = false;
  bool sawStatusLine = false;
  std::optional<int> informationalStatus;
  ZavloHttpRequest request;  // owns the body libcurl sends from
  std::chrono::steady_clock::time_point submitted;
  std::vector<std::uint8_t> received;
  ZavloHttpSession::Completion completion;
  char errorBuffer[CURL_ERROR_SIZE];
};

ZavloLinuxHttpSession::ZavloLinuxHttpSession(ZavloHttpSessionConfiguration configuration)
    : shared_(std::make_shared<Shared>(configuration)) {
  if (!initialiseCurl()) throw std::runtime_error("libcurl could not be initialised");
  shared_->multi = curl_multi_init();
  if (shared_->multi == nullptr) throw std::runtime_error("libcurl could not create a multi handle");
  // As many parallel connections per host as a URL loading system allows by default.
  curl_multi_setopt(shared_->multi, CURLMOPT_MAX_HOST_CONNECTIONS, 6L);
  try {
    worker_ = std::thread(&ZavloLinuxHttpSession::run, shared_);
  } catch (...) {
    curl_multi_cleanup(shared_->multi);
    shared_->multi = nullptr;
    throw;
  }
}

ZavloLinuxHttpSession::~ZavloLinuxHttpSession() { invalidateAndCancel(); }

void ZavloLinuxHttpSession::post(ZavloHttpRequest request, Completion completion) {
  {
    std::lock_guard lock(shared_->mutex);
    if (!shared_->invalidated) {
      shared_->submitted.push_back({std::move(request), std::move(completion), std::chrono::steady_clock::now()});
      ++shared_->outstanding;
      curl_multi_wakeup(shared_->multi);
      return;
    }
  }
  try {
    if (completion)
      completion(ZavloHttpTaskOutcome::failure(Code::cancelled, std::string(zavloDescribe(Code::cancelled))));
  } catch (...) {
  }
}

void ZavloLinuxHttpSession::invalidateAndCancel() {
  {
    std::lock_guard lock(shared_->mutex);
    if (!shared_->invalidated) {
      shared_->invalidated = true;
      if (shared_->multi != nullptr) curl_multi_wakeup(shared_->multi);
    }
  }
  if (worker_.get_id() == std::this_thread::get_id()) {
    // From inside a completion: the worker cancels the rest once it returns. Another
    // thread may be joining it already; if not (this is the last owner letting go),
    // the worker is left to finish on its own.
    std::unique_lock join(joinMutex_, std::try_to_lock);
    if (join.owns_lock() && worker_.joinable()) worker_.detach();
    return;
  }
  std::lock_guard join(joinMutex_);
  if (worker_.joinable()) worker_.join();
}

bool ZavloLinuxHttpSession::waitForOutstandingTasks(std::chrono::milliseconds timeout) {
  std::unique_lock lock(shared_->mutex);
  // From inside a completion the task being reported is itself still outstanding.
  if (shared_->worker == std::this_thread::get_id()) return shared_->outstanding == 0;
  return shared_->idle.wait_for(lock, timeout, [&] { return shared_->outstanding == 0; });
}

void ZavloLinuxHttpSession::run(const std::shared_ptr<Shared>& shared) {
  pthread_setname_np(pthread_self(), "zavlo-http");
  CURLM* multi = nullptr;
  {
    std::lock_guard lock(shared->mutex);
    shared->worker = std::this_thread::get_id();
    multi = shared->multi;
  }
  std::map<CURL*, std::unique_ptr<Transfer>> active;
  const auto cancelled = [] {
    return ZavloHttpTaskOutcome::failure(Code::cancelled, std::string(zavloDescribe(Code::cancelled)));
  };

  // Tasks beyond the transfers that run at once wait here rather than in libcurl, which
  // walks every handle it holds on each step and is slow to start the ones it parks.
  std::deque<Task> waiting;
  for (;;) {
    bool stop = false;
    {
      std::lock_guard lock(shared->mutex);
      std::move(shared->submitted.begin(), shared->submitted.end(), std::back_inserter(waiting));
      shared->submitted.clear();
      stop = shared->invalidated;
    }
    if (stop) break;
    // The whole-transfer limit runs from the post, also for a task still waiting its turn.
    const auto now = std::chrono::steady_clock::now();
    while (!waiting.empty() && now - waiting.front().submitted >= shared->configuration.resourceTimeout) {
      auto completion = std::move(waiting.front().completion);
      waiting.pop_front();
      shared->finish(completion, ZavloHttpTaskOutcome::failure(
                                     Code::timedOut, std::string(zavloDescribe(Code::timedOut)) + " (while queued)"));
    }
    while (!waiting.empty() && active.size() < kMaximumActiveTransfers) {
      auto transfer = std::make_unique<Transfer>(multi, std::move(waiting.front()));
      waiting.pop_front();
      CURLcode prepared = transfer->prepare(shared->configuration);
      if (prepared == CURLE_OK && curl_multi_add_handle(multi, transfer->easy) != CURLM_OK) {
        prepared = CURLE_OUT_OF_MEMORY;
      }
      if (prepared != CURLE_OK) {
        auto completion = std::move(transfer->completion);
        const auto error = transportError(prepared, transfer->errorBuffer);
        transfer.reset();
        shared->finish(completion, {error, std::nullopt, std::nullopt});
        continue;
      }
      transfer->added = true;
      CURL* easy = transfer->easy;
      active.emplace(easy, std::move(transfer));
    }

    int running = 0;
    curl_multi_perform(multi, &running);
    int queued = 0;
    bool finished = false;
    while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
      if (message->msg != CURLMSG_DONE) continue;
      const auto found = active.find(message->easy_handle);
      if (found == active.end()) continue;
      auto outcome = found->second->outcome(message->data.result);
      auto completion = std::move(found->second->completion);
      active.erase(found);  // handles are freed before anyone hears of the outcome
      shared->finish(completion, std::move(outcome));
      finished = true;
    }
    if (finished && !waiting.empty()) continue;  // a slot is free: start the next task now
    curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
  }

  // Nothing is submitted once the session is invalid, so these are all that is left.
  for (auto& task : waiting) shared->finish(task.completion, cancelled());
  while (!active.empty()) {
    auto completion = std::move(active.begin()->second->completion);
    active.erase(active.begin());
    shared->finish(completion, cancelled());
  }
  {
    std::lock_guard lock(shared->mutex);
    shared->multi = nullptr;  // no more wake-ups from posting threads
  }
  curl_multi_cleanup(multi);
}
