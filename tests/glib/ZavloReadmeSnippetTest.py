#!/usr/bin/python3
"""The README's Python snippet runs as written, against a local operator: only its URL
and its options (the cellular interface) are replaced by the test's."""
import json
import os
import re
import subprocess
import sys
import unittest

from zavlo_glib_support import CLOSED_TELEMETRY, GUARD_SECONDS, Operator

README = os.path.join(os.path.dirname(__file__), "..", "..", "README.md")


def snippet():
    with open(README) as file:
        text = file.read()
    section = text.split("## From Python, JavaScript, Vala or Rust", 1)[1]
    return re.search(r"```python\n(.*?)```", section, re.S).group(1)


class ReadmeSnippetTest(unittest.TestCase):
    def test_the_snippet_prints_the_operators_token(self):
        operator = Operator(2)
        self.addCleanup(operator.close)
        code = snippet()
        options = {"cellularInterfaces": ["lo"], "telemetryEndpoint": CLOSED_TELEMETRY}
        replaced = re.sub(r"^OPTIONS = .*$", f"OPTIONS = {options!r}", code, count=1, flags=re.M)
        replaced = re.sub(r"^URL = .*$", f"URL = {json.dumps(operator.url)}", replaced, count=1, flags=re.M)
        self.assertNotEqual(replaced, code)
        ran = subprocess.run([sys.executable, "-c", replaced], capture_output=True, text=True, timeout=GUARD_SECONDS)
        self.assertEqual((ran.returncode, ran.stdout), (0, "zavlo-chain-token\n"), ran.stderr)


if __name__ == "__main__":
    unittest.main(verbosity=2)
