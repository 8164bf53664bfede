"""What the tests of the GObject layer share: the typelib, the local operator, and a way
to wait for one asynchronous call on a main loop."""
import json
import os
import subprocess
import tempfile

import gi

gi.require_version("ZavloAuth", "0")
from gi.repository import GLib, ZavloAuth  # noqa: E402  (after require_version)

# Telemetry goes to a closed loopback port: never off the machine.
CLOSED_TELEMETRY = "http://127.0.0.1:9/events"
# A guard against a test that would otherwise hang; no test measures time with it.
GUARD_SECONDS = 60


class Operator:
    """zavlo-test-operator: a loopback chain of `hops` requests, over TLS when asked."""

    def __init__(self, hops, tls=False):
        self.folder = tempfile.TemporaryDirectory()
        arguments = [os.environ["ZAVLO_TEST_OPERATOR"], str(hops)]
        self.pem_file = os.path.join(self.folder.name, "anchor.pem") if tls else None
        if tls:
            arguments.append(self.pem_file)
        self.process = subprocess.Popen(arguments, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.url = self.process.stdout.readline().strip()
        self.process.stdout.close()
        self.anchor = None
        if tls:
            with open(self.pem_file) as file:
                self.anchor = file.read()

    def close(self):
        self.process.stdin.close()
        self.process.wait(timeout=GUARD_SECONDS)
        self.folder.cleanup()


def client(**options):
    options.setdefault("telemetryEndpoint", CLOSED_TELEMETRY)
    return ZavloAuth.Client.new(json.dumps(options))


def call(start, finish, *arguments, cancellable=None, context=None, started=None):
    """Runs start(*arguments, cancellable, callback) and iterates `context` (the
    thread-default one) until the callback has run. Answers (dictionary, None) or
    (None, GLib.Error), and the thread the callback ran on."""
    import threading

    loop = GLib.MainLoop.new(context, False)
    outcome = {}

    def done(_source, result):
        outcome["thread"] = threading.get_ident()
        try:
            outcome["value"] = json.loads(finish(result))
        except GLib.Error as error:
            outcome["error"] = error
        loop.quit()

    def guard(*_):
        outcome["error"] = GLib.Error("no answer before the guard")
        loop.quit()
        return GLib.SOURCE_REMOVE

    start(*arguments, cancellable, done)
    if started is not None:
        started()
    guard_source = GLib.timeout_source_new_seconds(GUARD_SECONDS)
    guard_source.set_callback(guard)
    guard_source.attach(context)
    loop.run()
    guard_source.destroy()
    return outcome.get("value"), outcome.get("error"), outcome.get("thread")
