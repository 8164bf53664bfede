#include "ZavloDemoReport.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

namespace {

std::string milliseconds(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f ms", value);
  return text;
}

std::string escapeHtml(const std::string& text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\'':
        escaped += "&#39;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

double hopEnd(const ZavloDemoReport::Hop& hop) {
  return hop.start + hop.connect.value_or(0) + hop.request.value_or(0) + hop.response.value_or(0);
}

// A tick spacing of 1, 2 or 5 times a power of ten that gives at most six ticks.
double tickSpacing(double total) {
  const double rough = total / 6;
  const double power = std::pow(10.0, std::floor(std::log10(rough)));
  for (const double factor : {1.0, 2.0, 5.0}) {
    if (factor * power >= rough) return factor * power;
  }
  return 10 * power;
}

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", value);
  return text;
}

void waterfall(std::ostringstream& out, const ZavloDemoReport::Chain& chain) {
  constexpr double kLabelWidth = 300, kPlotWidth = 560, kRow = 28, kBar = 14, kTop = 24;
  double total = 0;
  for (const auto& hop : chain.hops) total = std::max(total, hopEnd(hop));
  if (total <= 0) total = 1;
  const double scale = kPlotWidth / total;
  const double height = kTop + kRow * static_cast<double>(chain.hops.size()) + 8;

  out << "<svg class=\"waterfall\" xmlns=\"http://www.w3.org/2000/svg\" width=\""
      << number(kLabelWidth + kPlotWidth + 20) << "\" height=\"" << number(height)
      << "\" role=\"img\" aria-label=\"hops of the " << escapeHtml(chain.via) << " chain on a time axis\">\n";
  const double spacing = tickSpacing(total);
  for (int i = 0; i <= 10 && i * spacing <= total * 1.001; ++i) {
    const double tick = i * spacing;
    const double x = kLabelWidth + tick * scale;
    out << "<line class=\"tick\" x1=\"" << number(x) << "\" y1=\"" << number(kTop - 6) << "\" x2=\"" << number(x)
        << "\" y2=\"" << number(height) << "\"/><text class=\"axis\" x=\"" << number(x) << "\" y=\"12\">"
        << escapeHtml(milliseconds(tick)) << "</text>\n";
  }
  for (std::size_t i = 0; i < chain.hops.size(); ++i) {
    const auto& hop = chain.hops[i];
    const double y = kTop + kRow * static_cast<double>(i);
    std::string label =
        std::to_string(i + 1) + "  " + (hop.status ? std::to_string(hop.status) : "---") + "  " + hop.url;
    if (label.size() > 48) label = label.substr(0, 47) + "\u2026";
    out << "<text class=\"hop\" x=\"0\" y=\"" << number(y + kBar - 2) << "\">" << escapeHtml(label) << "<title>"
        << escapeHtml(hop.url) << "</title></text>\n";
    double x = hop.start;
    const std::pair<const char*, std::optional<double>> phases[] = {
        {"connect", hop.connect}, {"request", hop.request}, {"response", hop.response}};
    for (const auto& [phase, duration] : phases) {
      if (!duration) continue;
      out << "<rect class=\"bar " << phase << "\" x=\"" << number(kLabelWidth + x * scale) << "\" y=\"" << number(y)
          << "\" width=\"" << number(std::max(1.0, *duration * scale)) << "\" height=\"" << number(kBar) << "\"><title>"
          << phase << ' ' << escapeHtml(milliseconds(*duration)) << "</title></rect>\n";
      x += *duration;
    }
  }
  out << "</svg>\n";
}

constexpr const char* kStyle = R"(
body { font: 14px/1.4 system-ui, sans-serif; margin: 24px; color: #1d2430; }
h1 { font-size: 22px; } h2 { font-size: 17px; margin-top: 28px; }
table { border-collapse: collapse; } td, th { padding: 3px 10px; border-bottom: 1px solid #dde; text-align: left; }
th { background: #eef0f6; } td.num { text-align: right; font-variant-numeric: tabular-nums; }
.ok { color: #17733a; font-weight: 600; } .failed { color: #b3261e; font-weight: 600; }
.verdict { font-size: 16px; padding: 8px 12px; display: inline-block; border-radius: 4px; }
.verdict.ok { background: #e3f4e8; } .verdict.failed { background: #fbe4e2; }
code { font: 13px ui-monospace, monospace; word-break: break-all; }
svg text { font: 12px ui-monospace, monospace; fill: #1d2430; } svg text.axis { fill: #667; text-anchor: middle; }
.tick { stroke: #dde; } .connect { fill: #e39b2d; } .request { fill: #3b7dd8; } .response { fill: #27a36a; }
.legend .connect { background: #e39b2d; } .legend .request { background: #3b7dd8; }
.legend .response { background: #27a36a; }
.legend span { display: inline-block; width: 12px; height: 12px; margin: 0 4px 0 14px; vertical-align: -1px; }
)";

// Lets a browser test see that the page's script ran and that the waterfall has bars.
constexpr const char* kSelfCheck = R"(<script>
(function () {
  var root = document.documentElement;
  window.addEventListener('error', function (e) { root.setAttribute('data-script-error', String(e.message)); });
  var drawn = 0;
  document.querySelectorAll('svg.waterfall .bar').forEach(function (bar) {
    if (bar.getBBox().width > 0) drawn += 1;
  });
  root.setAttribute('data-waterfall-bars', String(drawn));
})();
</script>
)";

}  // namespace

bool ZavloDemoReport::succeeded() const {
  return !steps.empty() && std::all_of(steps.begin(), steps.end(), [](const Step& step) { return step.succeeded; });
}

std::map<std::string, std::size_t> ZavloDemoReport::eventCounts() const {
  std::map<std::string, std::size_t> counts;
  for (const auto& event : events) ++counts[event.name];
  return counts;
}

std::string zavloDemoStepLine(const ZavloDemoReport::Step& step) {
  char text[96];
  std::snprintf(text, sizeof text, "  %-6s %-7s %-28s %10s  ", step.succeeded ? "ok" : "FAILED", step.via.c_str(),
                step.name.c_str(), milliseconds(step.milliseconds).c_str());
  return text + step.detail;
}

std::string zavloDemoSummary(const ZavloDemoReport& report) {
  std::ostringstream out;
  for (const auto& chain : report.chains) {
    out << "\nhops of the " << chain.via << " chain:\n";
    for (std::size_t i = 0; i < chain.hops.size(); ++i) {
      const auto& hop = chain.hops[i];
      out << "  " << i + 1 << "  " << hop.url << "  connect " << (hop.connect ? milliseconds(*hop.connect) : "-")
          << "  status " << hop.status;
      if (hop.redirect) out << "  -> " << *hop.redirect;
      if (hop.failure) out << "  failed: " << *hop.failure;
      out << '\n';
    }
  }
  out << "\ntelemetry: the collector received " << report.events.size() << " of " << report.eventsSent
      << " events sent\n";
  for (const auto& [name, count] : report.eventCounts()) out << "  " << count << "  " << name << '\n';
  const auto failed =
      std::count_if(report.steps.begin(), report.steps.end(), [](const auto& s) { return !s.succeeded; });
  out << '\n';
  if (report.succeeded()) {
    out << "demo: every step succeeded (" << report.steps.size() << " steps)\n";
  } else {
    out << "demo: " << failed << " of " << report.steps.size() << " steps failed\n";
  }
  return out.str();
}

std::string zavloDemoHtml(const ZavloDemoReport& report) {
  std::ostringstream out;
  out << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n<title>zavlo-auth demo</title>\n<style>"
      << kStyle << "</style></head>\n<body>\n<h1>zavlo-auth demo</h1>\n";
  const bool ok = report.succeeded();
  out << "<p class=\"verdict " << (ok ? "ok\">Every step succeeded." : "failed\">Some steps failed.") << "</p>\n";

  out << "<table class=\"setting\">\n";
  for (const auto& [label, text] : report.setting) {
    out << "<tr><th>" << escapeHtml(label) << "</th><td>" << escapeHtml(text) << "</td></tr>\n";
  }
  out << "</table>\n";

  out << "<h2>Steps</h2>\n<table class=\"steps\">\n<tr><th>via</th><th>step</th><th>outcome</th><th>time</th>"
         "<th>detail</th></tr>\n";
  for (const auto& step : report.steps) {
    out << "<tr><td>" << escapeHtml(step.via) << "</td><td>" << escapeHtml(step.name) << "</td><td class=\""
        << (step.succeeded ? "ok\">ok" : "failed\">failed") << "</td><td class=\"num\">"
        << escapeHtml(milliseconds(step.milliseconds)) << "</td><td>" << escapeHtml(step.detail) << "</td></tr>\n";
  }
  out << "</table>\n";

  out << "<h2>Redirect chains</h2>\n<p class=\"legend\"><span class=\"connect\"></span>connect<span "
         "class=\"request\"></span>request<span class=\"response\"></span>response</p>\n";
  for (const auto& chain : report.chains) {
    out << "<h3>" << escapeHtml(chain.via) << "</h3>\n";
    waterfall(out, chain);
    out << "<table class=\"hops\">\n<tr><th>#</th><th>URL</th><th>connect</th><th>request</th><th>response</th>"
           "<th>status</th><th>next</th></tr>\n";
    for (std::size_t i = 0; i < chain.hops.size(); ++i) {
      const auto& hop = chain.hops[i];
      const auto cell = [](const std::optional<double>& value) {
        return "<td class=\"num\">" + (value ? escapeHtml(milliseconds(*value)) : std::string("-")) + "</td>";
      };
      out << "<tr><td>" << i + 1 << "</td><td><code>" << escapeHtml(hop.url) << "</code></td>" << cell(hop.connect)
          << cell(hop.request) << cell(hop.response) << "<td>" << hop.status << "</td><td><code>"
          << escapeHtml(hop.redirect.value_or(hop.failure ? "failed: " + *hop.failure : "")) << "</code></td></tr>\n";
    }
    out << "</table>\n";
  }

  out << "<h2>Telemetry</h2>\n<p>The collector received " << report.events.size() << " of " << report.eventsSent
      << " events sent.</p>\n<table class=\"events\">\n<tr><th>#</th><th>event</th><th>status</th><th>request id</th>"
         "</tr>\n";
  for (std::size_t i = 0; i < report.events.size(); ++i) {
    const auto& event = report.events[i];
    out << "<tr><td>" << i + 1 << "</td><td>" << escapeHtml(event.name) << "</td><td>" << escapeHtml(event.status)
        << "</td><td><code>" << escapeHtml(event.requestId) << "</code></td></tr>\n";
  }
  out << "</table>\n";

  out << "<h2>Device binding keys</h2>\n<table class=\"keys\">\n<tr><th>via</th><th>key id</th>"
         "<th>SHA-256 of the public key</th></tr>\n";
  for (const auto& key : report.keys) {
    out << "<tr><td>" << escapeHtml(key.via) << "</td><td><code>" << escapeHtml(key.keyId) << "</code></td><td><code>"
        << escapeHtml(key.fingerprint) << "</code></td></tr>\n";
  }
  out << "</table>\n";
  out << kSelfCheck << "</body></html>\n";
  return out.str();
}
