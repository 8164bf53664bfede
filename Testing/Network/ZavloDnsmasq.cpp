#include "Testing/Network/ZavloDnsmasq.hpp"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <thread>

namespace {

constexpr const char* kDnsmasq = "/usr/sbin/dnsmasq";

std::string readAll(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace

std::unique_ptr<ZavloDnsmasq> ZavloDnsmasq::start(const ZavloNetworkNamespace& space, const Options& options,
                                                  std::string& whyNot) {
  if (access(kDnsmasq, X_OK) != 0) {
    whyNot = std::string(kDnsmasq) + " is missing (Debian package dnsmasq-base)";
    return nullptr;
  }
  std::unique_ptr<ZavloDnsmasq> server(new ZavloDnsmasq);
  std::string folder = (std::filesystem::temp_directory_path() / "zavlo-dnsmasq-XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr) {
    whyNot = "cannot make a temporary folder";
    return nullptr;
  }
  server->folder_ = folder;
  server->logPath_ = folder + "/queries.log";
  std::vector<std::string> arguments = {kDnsmasq,
                                        "--keep-in-foreground",
                                        "--conf-file=/dev/null",
                                        "--no-resolv",
                                        "--no-hosts",
                                        "--no-poll",
                                        "--pid-file=",
                                        "--user=root",
                                        "--group=root",
                                        "--bind-interfaces",
                                        "--listen-address=" + options.listenAddress,
                                        "--port=53",
                                        "--cache-size=0",
                                        "--local-ttl=" + std::to_string(options.ttl),
                                        "--log-queries",
                                        "--log-facility=" + server->logPath_};
  for (const auto& [domain, address] : options.answers) {
    arguments.push_back("--address=/" + domain + "/" + address);
  }
  try {
    const auto inside = space.enter();
    server->process_ = std::make_unique<ZavloInteractiveProcess>(arguments);
  } catch (const std::exception& error) {
    whyNot = std::string("cannot start dnsmasq: ") + error.what();
    return nullptr;
  }
  // It logs "started" once it listens; a bounded wait, not a measurement.
  for (int i = 0; i < 500; ++i) {
    if (readAll(server->logPath_).find("started, version") != std::string::npos) return server;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  whyNot = "dnsmasq did not start: " + server->process_->finish().standardError;
  return nullptr;
}

ZavloDnsmasq::~ZavloDnsmasq() {
  process_.reset();  // kills it
  std::error_code ignored;
  if (!folder_.empty()) std::filesystem::remove_all(folder_, ignored);
}

std::vector<std::string> ZavloDnsmasq::queries() const {
  std::vector<std::string> found;
  std::ifstream log(logPath_);
  for (std::string line; std::getline(log, line);) {
    if (const auto at = line.find("query["); at != std::string::npos) found.push_back(line.substr(at));
  }
  return found;
}
