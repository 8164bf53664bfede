#!/usr/bin/python3
"""ZavloAuthBridge from Python: a GTK window with a WebKit view whose page calls the web
bridge, which runs a chain against a local operator through the client's platform. Runs
under an Xvfb of its own; skips, naming the Debian package, when something is missing."""
import json
import os
import shutil
import subprocess
import sys
import unittest

PAGE = """<!doctype html><title>waiting</title><script>
function call(method, parameters) {
  return new Promise((resolve) => {
    const callback = 'answer' + Math.random().toString(36).slice(2);
    window[callback] = (text) => { delete window[callback]; resolve(JSON.parse(text)); };
    window.webkit.messageHandlers.zavlo_authentication_bridge.postMessage(
        Object.assign({method, callback}, parameters));
  });
}
(async () => {
  const started = await call('initAuth', {initConfig: JSON.stringify({requestId: 'glib-bridge'})});
  const chain = await call('startAuth', {snaUri: %s});
  document.title = 'answered ' + JSON.stringify({started, chain});
})();
</script>"""

BASE = "https://zavlo-glib-bridge.invalid/"


def start_display():
    """Starts Xvfb on a display of its own; answers why not when it cannot."""
    if shutil.which("Xvfb") is None:
        return None, "no Xvfb on PATH (Debian package xvfb)"
    read, write = os.pipe()
    server = subprocess.Popen(["Xvfb", "-displayfd", str(write), "-nolisten", "tcp", "-screen", "0", "800x600x24"],
                              pass_fds=(write,))
    os.close(write)
    with os.fdopen(read) as announced:
        display = announced.readline().strip()
    if not display:
        server.kill()
        return None, "Xvfb did not announce a display"
    os.environ.update(DISPLAY=":" + display, GDK_BACKEND="x11", NO_AT_BRIDGE="1")
    os.environ.pop("WAYLAND_DISPLAY", None)
    return server, None


SERVER, UNAVAILABLE = start_display()
if UNAVAILABLE is None:
    try:
        import gi

        gi.require_version("Gtk", "3.0")
        gi.require_version("WebKit2", "4.1")
        from gi.repository import Gtk, WebKit2  # noqa: F401
    except (ImportError, ValueError) as error:
        UNAVAILABLE = f"{error} (Debian packages gir1.2-gtk-3.0 and gir1.2-webkit2-4.1)"
if UNAVAILABLE is None and not Gtk.init_check(sys.argv)[0]:
    UNAVAILABLE = "GTK could not open the virtual display"

from zavlo_glib_support import GLib, GUARD_SECONDS, Operator, ZavloAuth, client  # noqa: E402


@unittest.skipIf(UNAVAILABLE is not None, f"the bridge needs a display: {UNAVAILABLE}")
class BridgeTest(unittest.TestCase):
    def run_page(self, allowed_origins):
        operator = Operator(3)
        self.addCleanup(operator.close)
        subject = client(cellularInterfaces=["lo"])
        window = Gtk.Window()
        self.addCleanup(window.destroy)
        view = WebKit2.WebView()
        window.add(view)
        window.show_all()
        bridge = ZavloAuth.Bridge.new(subject, view, allowed_origins)
        loop = GLib.MainLoop()
        answered = {}

        def title_changed(*_):
            title = view.get_title() or ""
            if title.startswith("answered "):
                answered.update(json.loads(title[len("answered "):]))
                loop.quit()

        view.connect("notify::title", title_changed)
        view.load_html(PAGE % json.dumps(operator.url), BASE)
        guard = GLib.timeout_add_seconds(GUARD_SECONDS, loop.quit)
        loop.run()
        if answered:  # otherwise the guard has fired and is gone
            GLib.source_remove(guard)
        del bridge
        self.assertTrue(answered, "the page got no answer before the guard")
        return answered

    def test_the_page_runs_a_chain_through_the_bridge(self):
        for rules in [["https://zavlo-glib-bridge.invalid"], ["https://*.zavlo-glib-bridge.invalid",
                                                             "https://zavlo-glib-bridge.invalid"]]:
            with self.subTest(rules=rules):
                answered = self.run_page(rules)
                self.assertEqual(answered["started"]["status"], "SUCCESS", answered)
                self.assertEqual(answered["chain"]["snaToken"], "zavlo-chain-token", answered)

    def test_a_rule_that_is_none_is_refused(self):
        view = WebKit2.WebView()
        with self.assertRaises(GLib.Error) as raised:
            ZavloAuth.Bridge.new(client(), view, ["not an origin"])
        self.assertTrue(raised.exception.matches(ZavloAuth.error_quark(), ZavloAuth.Error.INVALID_OPTIONS))


if __name__ == "__main__":
    try:
        unittest.main(verbosity=2)
    finally:
        if SERVER is not None:
            SERVER.terminate()
