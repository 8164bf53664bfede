#include "Platform/Linux/Web/WebKitGtk/ZavloWebKitWebView.hpp"

#include <webkit2/webkit2.h>

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "Platform/Linux/Loop/ZavloLinuxRunLoop.hpp"
#include "Platform/Linux/Web/ZavloLinuxPageMessage.hpp"

namespace {

// In the page's world: the postMessage the page calls. It hands each post to the relay as
// a DOM event (events cross worlds; values do not), as JSON text, with the document's
// random token, and keeps the promise until the relay's answer event. The token is also a
// fixed property of the window, which the callback's evaluation checks.
constexpr const char* kPageScript = R"JS((() => {
  if (window.top !== window) return;
  const name = @NAME@;
  // Once per document and name: a handler added again finds this one in place.
  if (Object.prototype.hasOwnProperty.call(window, '__zavloBridgeDocument_' + name)) return;
  const postEvent = 'zavlo-bridge-post:' + name, answerEvent = 'zavlo-bridge-answer:' + name;
  const token = Array.from(crypto.getRandomValues(new Uint32Array(4)), (n) => n.toString(16).padStart(8, '0')).join('');
  Object.defineProperty(window, '__zavloBridgeDocument_' + name, {value: token});
  const pending = new Map();
  let next = 0;
  document.addEventListener(answerEvent, (event) => {
    let answer;
    try { answer = JSON.parse(event.detail); } catch (error) { return; }
    const entry = answer && pending.get(answer.id);
    if (!entry) return;
    pending.delete(answer.id);
    if (answer.ok) entry.resolve(answer.result); else entry.reject(new Error(String(answer.error)));
  });
  const handler = Object.freeze({
    postMessage(body) {
      let text;
      try { text = JSON.stringify(body); } catch (error) { return Promise.reject(error); }
      if (typeof text !== 'string') return Promise.reject(new TypeError('The message has no JSON form.'));
      const id = ++next;
      return new Promise((resolve, reject) => {
        pending.set(id, {resolve, reject});
        document.dispatchEvent(new CustomEvent(postEvent, {detail: JSON.stringify({id, document: token, body: text})}));
      });
    }
  });
  const define = (object, key, value) => {
    if (!Object.prototype.hasOwnProperty.call(object, key)) Object.defineProperty(object, key, {value, enumerable: true});
    return object[key];
  };
  define(define(define(window, 'webkit', {}), 'messageHandlers', {}), name, handler);
})();)JS";

// In the library's isolated world, which page scripts cannot reach: forwards each post of
// the top document, with its origin, to the handler registered there, and hands the reply
// back as an event.
constexpr const char* kRelayScript = R"JS((() => {
  if (window.top !== window) return;
  const name = @NAME@;
  const mark = '__zavloBridgeRelay_' + name;
  if (window[mark]) return;
  window[mark] = true;
  const postEvent = 'zavlo-bridge-post:' + name, answerEvent = 'zavlo-bridge-answer:' + name;
  document.addEventListener(postEvent, (event) => {
    // Looked up on each post: a handler removed meanwhile is gone from this world too.
    const handler = window.webkit && window.webkit.messageHandlers[name];
    if (!handler) return;
    if (typeof event.detail !== 'string') return;
    let post;
    try { post = JSON.parse(event.detail); } catch (error) { return; }
    if (!post || typeof post.id !== 'number' || typeof post.document !== 'string' || typeof post.body !== 'string') return;
    const settle = (answer) => document.dispatchEvent(
        new CustomEvent(answerEvent, {detail: JSON.stringify(Object.assign({id: post.id}, answer))}));
    handler.postMessage({origin: location.origin, mainFrame: window.top === window, document: post.document,
                         body: post.body})
        .then((result) => settle({ok: true, result}), (error) => settle({ok: false, error: String(error && error.message || error)}));
  });
})();)JS";

std::string withName(std::string script, const std::string& name) {
  const std::string placeholder = "@NAME@";
  const auto quoted = nlohmann::json(name).dump();
  for (auto at = script.find(placeholder); at != std::string::npos; at = script.find(placeholder, at + quoted.size())) {
    script.replace(at, placeholder.size(), quoted);
  }
  return script;
}

struct GFreeDeleter {
  void operator()(gchar* text) const { g_free(text); }
};

}  // namespace

// What the replies still owed share with the view: they may outlive it.
struct ZavloWebKitWebView::State {
  WebKitWebView* webView = nullptr;                    // cleared when the widget is destroyed or this view goes
  WebKitUserContentManager* contentManager = nullptr;  // held strongly
  Observer observer;
  std::uint64_t document = 0;  // counts the documents committed in the view
  gulong destroyHandler = 0;
  gulong loadHandler = 0;

  std::string shownOrigin() const {
    const char* uri = webView != nullptr ? webkit_web_view_get_uri(webView) : nullptr;
    return ZavloOriginRules::originOf(uri != nullptr ? uri : "");
  }

  static void destroyed(WebKitWebView* view, State* self) {
    g_signal_handler_disconnect(view, self->destroyHandler);
    g_signal_handler_disconnect(view, self->loadHandler);
    self->webView = nullptr;
    ++self->document;  // no answer reaches a document of a view that has gone
  }
  static void loadChanged(WebKitWebView*, WebKitLoadEvent event, State* self);

  std::vector<Registration*> registrations;  // for loadChanged
};

struct ZavloWebKitWebView::Registration {
  std::string name;
  std::shared_ptr<ZavloScriptMessageHandler> handler;
  std::weak_ptr<State> state;
  ZavloOriginRules rules;
  bool ownPage = false;               // rules stand for the host's own page
  std::optional<std::string> origin;  // that page's origin, once known
  gulong signalHandler = 0;
  bool registered = false;  // false when the content manager already knew the name
  std::array<WebKitUserScript*, 2> scripts{};

  bool allows(const std::string& pageOrigin) const {
    if (!ownPage) return rules.allows(pageOrigin);
    return origin && *origin != "null" && *origin == pageOrigin;
  }

  static gboolean received(WebKitUserContentManager*, JSCValue* value, WebKitScriptMessageReply* reply,
                           Registration* self);
};

namespace {

// The answer owed to one document; released unanswered, the post's promise rejects.
class WebKitReply final : public ZavloScriptMessageReply {
 public:
  WebKitReply(std::weak_ptr<ZavloWebKitWebView::State> state, WebKitScriptMessageReply* reply, JSCContext* context,
              std::uint64_t document, std::string token, std::string name, std::string origin)
      : state_(std::move(state)),
        reply_(webkit_script_message_reply_ref(reply)),
        context_(JSC_CONTEXT(g_object_ref(context))),
        document_(document),
        token_(std::move(token)),
        name_(std::move(name)),
        origin_(std::move(origin)) {}

  ~WebKitReply() override {
    // WebKit's objects belong to the GTK thread, and this may be released on any.
    struct Release {
      WebKitScriptMessageReply* reply;
      JSCContext* context;
      bool answered;
    };
    auto* release = new Release{reply_, context_, answered_};
    g_idle_add_full(
        G_PRIORITY_DEFAULT,
        [](gpointer data) -> gboolean {
          const auto* release = static_cast<Release*>(data);
          if (!release->answered) {
            webkit_script_message_reply_return_error_message(release->reply, "The message was not answered.");
          }
          webkit_script_message_reply_unref(release->reply);
          g_object_unref(release->context);
          delete release;
          return G_SOURCE_REMOVE;
        },
        release, nullptr);
  }

  bool answer(const std::string& callbackScript, const nlohmann::json& result) override {
    if (answered_) return false;
    answered_ = true;
    const auto state = state_.lock();
    if (!state || state->webView == nullptr || state->document != document_) {
      // The reply stays unanswered: WebKit drops it with the document.
      if (state && state->observer.dropped) state->observer.dropped(origin_);
      return false;
    }
    if (!callbackScript.empty()) {
      // The token check makes an evaluation that lands after a navigation do nothing.
      const auto guarded = "if (window[" + nlohmann::json("__zavloBridgeDocument_" + name_).dump() +
                           "] === " + nlohmann::json(token_).dump() + ") " + callbackScript;
      webkit_web_view_evaluate_javascript(state->webView, guarded.data(), static_cast<gssize>(guarded.size()), nullptr,
                                          nullptr, nullptr, nullptr, nullptr);
    }
    const auto text = result.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    JSCValue* value = jsc_value_new_from_json(context_, text.c_str());
    if (value != nullptr) {
      webkit_script_message_reply_return_value(reply_, value);
      g_object_unref(value);
    } else {
      webkit_script_message_reply_return_error_message(reply_, "The answer has no JavaScript form.");
    }
    if (state->observer.answered) state->observer.answered(origin_, !callbackScript.empty(), result);
    return true;
  }

 private:
  std::weak_ptr<ZavloWebKitWebView::State> state_;
  WebKitScriptMessageReply* reply_;
  JSCContext* context_;
  std::uint64_t document_;
  std::string token_;
  std::string name_;
  std::string origin_;
  bool answered_ = false;  // GTK thread only
};

}  // namespace

void ZavloWebKitWebView::State::loadChanged(WebKitWebView*, WebKitLoadEvent event, State* self) {
  if (event != WEBKIT_LOAD_COMMITTED) return;
  ++self->document;
  // Rules for the host's own page that no page had fixed yet take the first one shown.
  const auto origin = self->shownOrigin();
  for (auto* registration : self->registrations) {
    if (registration->ownPage && !registration->origin && origin != "null") registration->origin = origin;
  }
}

gboolean ZavloWebKitWebView::Registration::received(WebKitUserContentManager*, JSCValue* value,
                                                    WebKitScriptMessageReply* reply, Registration* self) {
  const auto state = self->state.lock();
  if (!state || state->webView == nullptr) return TRUE;
  const std::unique_ptr<gchar, GFreeDeleter> json(jsc_value_to_json(value, 0));
  if (!json) {
    jsc_context_clear_exception(jsc_value_get_context(value));
    return TRUE;
  }
  const auto envelope = nlohmann::json::parse(json.get(), nullptr, false);
  const auto text = [&](const char* key) {
    const auto found = envelope.is_object() ? envelope.find(key) : envelope.end();
    return found != envelope.end() && found->is_string() ? found->get<std::string>() : std::string();
  };
  const auto origin = text("origin");
  const bool mainFrame = envelope.is_object() && envelope.contains("mainFrame") && envelope["mainFrame"] == true;
  const auto refuse = [&](const std::string& why) {
    if (state->observer.refused) state->observer.refused(origin, mainFrame, why);
    return TRUE;  // the reply goes unanswered: the page learns nothing
  };
  if (!envelope.is_object() || !envelope.contains("body") || !envelope["body"].is_string()) {
    return refuse("not a message of the library's relay");
  }
  if (!mainFrame) return refuse("not the top frame");
  if (origin != state->shownOrigin()) return refuse("not the origin of the page shown");
  if (!self->allows(origin)) return refuse("an origin the rules do not allow");
  auto body = zavloParsePageMessage(envelope["body"].get_ref<const std::string&>());
  if (!body) return refuse("not JSON, or nested too deeply");

  ZavloScriptMessage message{std::move(*body), {origin, true}, nullptr};
  message.reply = std::make_shared<WebKitReply>(state, reply, jsc_value_get_context(value), state->document,
                                                text("document"), self->name, origin);
  // The handler may remove or replace itself, which frees this registration.
  const auto handler = self->handler;
  try {
    handler->didReceiveScriptMessage(message);
  } catch (...) {
    // Unwinding into GLib's signal emission (C) would end the process.
    ZavloLinuxRunLoop::reportToStandardError(std::current_exception());
  }
  return TRUE;
}

ZavloWebKitWebView::ZavloWebKitWebView(WebKitWebView* webView, Observer observer) : state_(std::make_shared<State>()) {
  state_->observer = std::move(observer);
  if (webView == nullptr) return;
  state_->webView = webView;
  state_->contentManager = WEBKIT_USER_CONTENT_MANAGER(g_object_ref(webkit_web_view_get_user_content_manager(webView)));
  state_->destroyHandler = g_signal_connect(webView, "destroy", G_CALLBACK(&State::destroyed), state_.get());
  state_->loadHandler = g_signal_connect(webView, "load-changed", G_CALLBACK(&State::loadChanged), state_.get());
}

ZavloWebKitWebView::~ZavloWebKitWebView() {
  auto registrations = std::move(registrations_);
  for (auto& [name, registration] : registrations) unregister(*registration);
  if (state_->webView != nullptr) {
    g_signal_handler_disconnect(state_->webView, state_->destroyHandler);
    g_signal_handler_disconnect(state_->webView, state_->loadHandler);
    state_->webView = nullptr;
  }
  ++state_->document;  // answers still owed find no document
  if (state_->contentManager != nullptr) g_object_unref(state_->contentManager);
  state_->contentManager = nullptr;
  // The handlers are released last, when nothing of this object is used any more.
}

void ZavloWebKitWebView::addScriptMessageHandler(std::shared_ptr<ZavloScriptMessageHandler> handler,
                                                 const std::string& name, const ZavloOriginRules& allowed) {
  // A replaced handler goes with its rules and scripts; its destructor may call back into us.
  removeScriptMessageHandler(name);
  if (!handler || state_->webView == nullptr) return;  // no page can reach it
  auto registration = std::make_unique<Registration>();
  registration->name = name;
  registration->handler = std::move(handler);
  registration->state = state_;
  registration->rules = allowed;
  registration->ownPage = allowed.ownPageOnly();
  if (registration->ownPage) {
    const auto shown = state_->shownOrigin();
    if (shown != "null") registration->origin = shown;
  }

  auto* manager = state_->contentManager;
  // Connected before the name is registered, so that no early message is missed.
  const auto signal = "script-message-with-reply-received::" + name;
  registration->signalHandler =
      g_signal_connect(manager, signal.c_str(), G_CALLBACK(&Registration::received), registration.get());
  registration->registered = webkit_user_content_manager_register_script_message_handler_with_reply(
                                 manager, name.c_str(), kScriptWorld) != FALSE;

  // Rules that allow nothing get no scripts at all: an empty allow list means every page.
  const bool reachable = registration->ownPage || !allowed.texts().empty();
  if (reachable) {
    std::vector<std::string> patterns;
    if (!registration->ownPage) patterns = allowed.uriPatterns();
    if (registration->ownPage && registration->origin) {
      patterns = ZavloOriginRules::sameOriginAs(*registration->origin).uriPatterns();
    }
    std::vector<const gchar*> allowList;
    for (const auto& pattern : patterns) allowList.push_back(pattern.c_str());
    allowList.push_back(nullptr);
    const gchar* const* list = patterns.empty() ? nullptr : allowList.data();
    const auto page = withName(kPageScript, name);
    const auto relay = withName(kRelayScript, name);
    registration->scripts[0] = webkit_user_script_new(page.c_str(), WEBKIT_USER_CONTENT_INJECT_TOP_FRAME,
                                                      WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, list, nullptr);
    registration->scripts[1] =
        webkit_user_script_new_for_world(relay.c_str(), WEBKIT_USER_CONTENT_INJECT_TOP_FRAME,
                                         WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, kScriptWorld, list, nullptr);
    for (auto* script : registration->scripts) webkit_user_content_manager_add_script(manager, script);
    // User scripts reach the documents loaded from now on; an allowed page shown now gets
    // the same scripts at once.
    const auto shown = state_->shownOrigin();
    if (shown != "null" && registration->allows(shown)) {
      webkit_web_view_evaluate_javascript(state_->webView, page.data(), static_cast<gssize>(page.size()), nullptr,
                                          nullptr, nullptr, nullptr, nullptr);
      webkit_web_view_evaluate_javascript(state_->webView, relay.data(), static_cast<gssize>(relay.size()),
                                          kScriptWorld, nullptr, nullptr, nullptr, nullptr);
    }
  }
  state_->registrations.push_back(registration.get());
  registrations_.emplace(name, std::move(registration));
}

void ZavloWebKitWebView::removeScriptMessageHandler(const std::string& name) {
  auto found = registrations_.find(name);
  if (found == registrations_.end()) return;
  const auto registration = std::move(found->second);
  registrations_.erase(found);
  unregister(*registration);
}

void ZavloWebKitWebView::unregister(Registration& registration) {
  auto& list = state_->registrations;
  list.erase(std::remove(list.begin(), list.end(), &registration), list.end());
  auto* manager = state_->contentManager;
  if (manager == nullptr) return;
  g_signal_handler_disconnect(manager, registration.signalHandler);
  if (registration.registered) {
    webkit_user_content_manager_unregister_script_message_handler_in_world(manager, registration.name.c_str(),
                                                                           kScriptWorld);
  }
  for (auto*& script : registration.scripts) {
    if (script == nullptr) continue;
    webkit_user_content_manager_remove_script(manager, script);
    webkit_user_script_unref(script);
    script = nullptr;
  }
}

WebKitWebView* ZavloWebKitWebView::webView() const noexcept { return state_->webView; }

void ZavloWebKitWebView::evaluateJavaScript(const std::string& script) {
  if (state_->webView == nullptr) return;
  webkit_web_view_evaluate_javascript(state_->webView, script.data(), static_cast<gssize>(script.size()), nullptr,
                                      nullptr, nullptr, nullptr, nullptr);
}
