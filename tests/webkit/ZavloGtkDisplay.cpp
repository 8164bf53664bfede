#include "ZavloGtkDisplay.hpp"

#include <gtk/gtk.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <sstream>

#include "ZavloPrivateBus.hpp"

namespace {

std::string findProgram(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::istringstream folders(path != nullptr ? path : "/usr/bin:/bin");
  for (std::string folder; std::getline(folders, folder, ':');) {
    const auto candidate = (folder.empty() ? std::string(".") : folder) + "/" + name;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return {};
}

std::string startGtk() {
  const auto xvfb = findProgram("Xvfb");
  if (xvfb.empty()) return "no Xvfb on PATH (Debian package xvfb): the WebKit tests need a virtual display";
  std::string display;
  try {
    // Never destroyed: the server must outlive every GTK object of the process, and it
    // gets SIGTERM when the process ends. Only a local socket: no TCP listener.
    static auto* server =
        new ZavloChildProcess({xvfb, "-displayfd", "1", "-nolisten", "tcp", "-noreset", "-screen", "0", "1024x768x24"});
    display = ":" + server->readLine();
  } catch (const std::exception& error) {
    return std::string("Xvfb did not announce a display: ") + error.what();
  }
  setenv("DISPLAY", display.c_str(), 1);
  setenv("GDK_BACKEND", "x11", 1);
  unsetenv("WAYLAND_DISPLAY");
  setenv("NO_AT_BRIDGE", "1", 1);  // no accessibility bus to look for
  if (gtk_init_check(nullptr, nullptr) == FALSE) return "GTK could not open the virtual display " + display;
  return {};
}

}  // namespace

const std::string& zavloGtkUnavailableReason() {
  static const std::string reason = startGtk();
  return reason;
}
