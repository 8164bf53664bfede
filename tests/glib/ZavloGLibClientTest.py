#!/usr/bin/python3
"""ZavloAuthClient from Python through PyGObject: chains against a local operator,
device binding with a signature OpenSSL verifies, cancellation, and the error domain."""
import base64
import json
import os
import socket
import subprocess
import tempfile
import threading
import unittest

from zavlo_glib_support import GLib, Operator, ZavloAuth, call, client

from gi.repository import Gio


def start_auth(subject, url, config="{}", **keywords):
    return call(subject.start_auth, subject.start_auth_finish, url, config, **keywords)


def code_of(error):
    """The error's wire word, or the GIO word for a cancellation."""
    if error.matches(Gio.io_error_quark(), Gio.IOErrorEnum.CANCELLED):
        return "CANCELLED"
    if error.domain != GLib.quark_to_string(ZavloAuth.error_quark()):
        return f"{error.domain}:{error.code}"
    return ZavloAuth.Error(error.code).value_nick


class ChainTest(unittest.TestCase):
    def test_chains_over_loopback_answer_the_operators_token(self):
        for hops, tls in [(1, False), (4, False), (3, True)]:
            with self.subTest(hops=hops, tls=tls):
                operator = Operator(hops, tls)
                self.addCleanup(operator.close)
                options = {"cellularInterfaces": ["lo"]}
                if tls:
                    options["trustAnchorsPem"] = [operator.anchor]
                answer, error, _ = start_auth(client(**options), operator.url)
                self.assertIsNone(error)
                self.assertEqual((answer["status"], answer["snaToken"]), ("SUCCESS", "zavlo-chain-token"))

    def test_completions_run_on_the_callers_thread_default_context(self):
        operator = Operator(2)
        self.addCleanup(operator.close)
        seen = {}

        def worker():
            context = GLib.MainContext.new()
            context.push_thread_default()
            subject = client(cellularInterfaces=["lo"])
            seen["answer"], seen["error"], seen["thread"] = start_auth(subject, operator.url, context=context)
            seen["worker"] = threading.get_ident()
            del subject
            context.pop_thread_default()

        thread = threading.Thread(target=worker)
        thread.start()
        thread.join()
        self.assertIsNone(seen["error"])
        self.assertEqual(seen["answer"]["snaToken"], "zavlo-chain-token")
        self.assertEqual(seen["thread"], seen["worker"])


class SilentServer:
    """Accepts connections on loopback and never answers; tells when one arrived."""

    def __init__(self, on_accept):
        self.socket = socket.socket()
        self.socket.bind(("127.0.0.1", 0))
        self.socket.listen()
        self.url = f"http://127.0.0.1:{self.socket.getsockname()[1]}/held"
        self.held = []
        self.thread = threading.Thread(target=self._serve, args=(on_accept,), daemon=True)
        self.thread.start()

    def _serve(self, on_accept):
        try:
            connection, _ = self.socket.accept()
        except OSError:
            return
        self.held.append(connection)
        on_accept()

    def closed_by_client(self, within):
        """Whether the client closes the held connection within that many seconds, while
        the client's main context (this thread's default one) runs."""
        connection = self.held[0]
        connection.settimeout(0.05)
        context = GLib.MainContext.default()
        for _ in range(int(within / 0.05)):
            while context.iteration(False):
                pass
            try:
                if not connection.recv(4096):
                    return True  # the request came first, then the end of the stream
            except socket.timeout:
                continue
            except OSError:
                return True  # reset: closed as well
        return False

    def close(self):
        for connection in self.held:
            connection.close()
        self.socket.close()


class CancelTest(unittest.TestCase):
    def test_a_cancellable_ends_the_call_with_cancelled(self):
        for when in ["before the call", "while the operator holds the connection"]:
            with self.subTest(when=when):
                cancellable = Gio.Cancellable()
                server = SilentServer(cancellable.cancel if when != "before the call" else (lambda: None))
                self.addCleanup(server.close)
                if when == "before the call":
                    cancellable.cancel()
                answer, error, _ = start_auth(client(cellularInterfaces=["lo"]), server.url, cancellable=cancellable)
                self.assertIsNone(answer)
                self.assertEqual(code_of(error), "CANCELLED", error.message)
                if server.held:
                    # The chain itself stops: the client closes the connection the operator
                    # holds, long before the hop's 10 s time-out would.
                    self.assertTrue(server.closed_by_client(within=5), "the chain went on after the cancel")


class BindingTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.secret = os.path.join(self.folder, "owner-secret")
        with open(self.secret, "w") as file:
            file.write("correct horse\n")

    def binding_client(self, owner="allow"):
        return client(keyFile=os.path.join(self.folder, "keys.db"), ownerAuthentication=owner,
                      ownerSecretFile=self.secret, sealingCost=10)

    def run_call(self, subject, name, config):
        answer, error, _ = call(getattr(subject, name), getattr(subject, name + "_finish"), json.dumps(config))
        return answer, error

    def verifies(self, public_key, message, signature):
        key = os.path.join(self.folder, "key.der")
        signed = os.path.join(self.folder, "signature.der")
        data = os.path.join(self.folder, "message")
        for path, content in [(key, base64.b64decode(public_key)), (signed, base64.b64decode(signature)),
                              (data, message.encode())]:
            with open(path, "wb") as file:
                file.write(content)
        pem = subprocess.run(["openssl", "pkey", "-pubin", "-inform", "DER", "-in", key], capture_output=True,
                             check=True).stdout
        with open(key + ".pem", "wb") as file:
            file.write(pem)
        verdict = subprocess.run(["openssl", "dgst", "-sha256", "-verify", key + ".pem", "-signature", signed, data],
                                 capture_output=True)
        return verdict.returncode == 0

    def test_enrol_sign_verify_and_read_the_state(self):
        subject = self.binding_client()
        prompt = {"promptTitle": "glib test", "promptSubtitle": "answered from a file"}
        enrolled, error = self.run_call(subject, "enroll", prompt)
        self.assertIsNone(error)
        key_id = enrolled["keyId"]
        challenge = "glib-challenge-" + base64.b16encode(os.urandom(8)).decode()
        signed, error = self.run_call(subject, "sign", dict(prompt, challenge=challenge, allowedKeyIds=[key_id]))
        self.assertIsNone(error)
        self.assertTrue(self.verifies(enrolled["publicKey"], challenge, signed["signature"]))
        self.assertFalse(self.verifies(enrolled["publicKey"], challenge + "x", signed["signature"]))
        state, error = self.run_call(subject, "get_state", {"keyId": key_id})
        self.assertIsNone(error)
        self.assertEqual((state["state"], state["keyId"]), ("ENROLLED", key_id))


class ErrorTest(unittest.TestCase):
    def test_failures_carry_their_codes(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        keys = os.path.join(folder.name, "keys.db")
        lo = {"cellularInterfaces": ["lo"]}
        binding = {"keyFile": keys, "sealingCost": 10}
        cases = [
            ("a chain before any session", lo, "start_auth", ("https://sna.invalid/", None), "SESSION_NOT_INITIALIZED"),
            ("a URL that is none", lo, "start_auth", ("not a url", "{}"), "INVALID_SNA_URI"),
            ("a closed operator port", lo, "start_auth", ("http://127.0.0.1:9/sna", "{}"), "SNA_CONNECTION_FAILED"),
            ("an empty challenge", binding, "sign", (json.dumps({"challenge": "", "allowedKeyIds": ["k"]}),),
             "INVALID_CHALLENGE"),
            ("a key never enrolled", dict(binding, ownerAuthentication="allow"), "sign",
             (json.dumps({"challenge": "c", "allowedKeyIds": ["never-enrolled"]}),), "DEVICE_BINDING_NOT_ENROLLED"),
            ("an owner who is refused", dict(binding, ownerAuthentication="deny"), "enroll", ("{}",),
             "DEVICE_BINDING_AUTH_FAILED"),
        ]
        for name, options, method, arguments, expected in cases:
            with self.subTest(name):
                subject = client(**options)
                answer, error, _ = call(getattr(subject, method), getattr(subject, method + "_finish"), *arguments)
                self.assertIsNone(answer)
                self.assertTrue(error.matches(ZavloAuth.error_quark(), getattr(ZavloAuth.Error, expected)),
                                f"{code_of(error)}: {error.message}")

    def test_options_that_cannot_be_used_are_refused(self):
        for options in ['{"nope": 1}', "[]", '{"ownerAuthentication": "maybe"}', '{"cellularInterfaces": "lo"}',
                        "not json"]:
            with self.subTest(options=options):
                with self.assertRaises(GLib.Error) as raised:
                    ZavloAuth.Client.new(options)
                self.assertTrue(raised.exception.matches(ZavloAuth.error_quark(), ZavloAuth.Error.INVALID_OPTIONS))


if __name__ == "__main__":
    unittest.main(verbosity=2)
