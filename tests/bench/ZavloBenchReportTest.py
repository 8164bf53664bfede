"""scripts/bench-report on fixed results: which figure is compared with which, and how.

    python3 ZavloBenchReportTest.py PATH/TO/scripts/bench-report
"""

import json
import os
import subprocess
import sys
import tempfile
import unittest

SCRIPT = sys.argv.pop(1) if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "../../scripts/bench-report")


def runs(name, values, key="real_time", unit="us", errors=0, counters=None):
    """One iteration entry per value (the repetitions), then errors failed ones, then a misleading aggregate.
    counters: further counters, each a list of one value per repetition."""
    entries = []
    for index, value in enumerate(values):
        entry = {"name": name, "run_name": name, "run_type": "iteration", "repetitions": len(values) + errors,
                 "repetition_index": index, "iterations": 10, "real_time": 1.0, "cpu_time": 1.0, "time_unit": unit}
        entry[key] = value
        for counter, per_repetition in (counters or {}).items():
            entry[counter] = per_repetition[index]
        entries.append(entry)
    for index in range(errors):
        entries.append({"name": name, "run_name": name, "run_type": "iteration", "error_occurred": True,
                        "error_message": "hop failed", "iterations": 0, "real_time": 0, "cpu_time": 0,
                        "time_unit": unit, "repetition_index": len(values) + index})
    entries.append({"name": name + "_median", "run_name": name, "run_type": "aggregate", "aggregate_name": "median",
                    "real_time": 1e9, "cpu_time": 1e9, "time_unit": unit, key: 1e9})
    return entries


CHAIN = runs("library/http/hops:1", [30e-6, 31e-6, 29e-6], "per_hop") + \
    runs("library/http/hops:5", [20e-6, 22e-6, 21e-6], "per_hop") + \
    runs("sockets/http/hops:1", [10e-6, 10e-6, 10e-6], "per_hop") + \
    runs("sockets/http/hops:5", [7e-6, 7e-6, 7e-6], "per_hop") + \
    runs("libcurl/http/hops:5", [14e-6, 14e-6, 14e-6], "per_hop") + \
    runs("sockets/http-absolute/hops:5", [8e-6, 8e-6, 8e-6], "per_hop") + \
    runs("delayed/library/http/hops:5/iterations:4/real_time", [0.11, 0.11, 0.11], "per_hop") + \
    runs("delayed/sockets/http/hops:5/iterations:6/real_time", [0.1, 0.1, 0.1], "per_hop",
         counters={"rtt_per_hop": [2.01, 2.03, 2.02]}) + \
    runs("delayed/library/tls/hops:5/iterations:4/real_time", [0.103, 0.103, 0.103], "per_hop",
         counters={"rtt_per_hop": [2.06, 2.2, 2.05], "fastopen_per_hop": [1, 1, 0.95], "resumed": [1, 1, 1]}) + \
    runs("delayed/openssl-resumed/tls/hops:5/iterations:4/real_time", [0.153, 0.153, 0.153], "per_hop",
         counters={"rtt_per_hop": [3.07, 3.07, 3.07], "fastopen_per_hop": [0, 0, 0], "resumed": [0.95, 0.95, 0.95]})
TELEMETRY = runs("delivery/library", [900, 1000, 1100], "events_per_s", "ms") + \
    runs("delivery/libcurl", [4000, 4000, 4000], "events_per_s", "ms") + \
    runs("send-event/library/answering", [3.0, 5.0], errors=1) + \
    runs("send-event/libcurl/answering", [2.0, 2.0, 2.0]) + \
    runs("send-event/library/silent", [6.0, 6.0, 6.0]) + \
    runs("send-event/libcurl/silent", [1.0, 1.0, 1.0]) + \
    runs("sockets/http/hops:1", [1.0, 1.0, 1.0])  # same name as a chain reference, other program


class BenchReportTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        inputs = []
        for program, entries in (("chain", CHAIN), ("telemetry", TELEMETRY)):
            path = os.path.join(cls.folder.name, program + ".json")
            with open(path, "w", encoding="utf-8") as file:
                json.dump({"context": {"load_avg": [0.5, 0.5, 0.5]}, "benchmarks": entries}, file)
            inputs.append(f"{program}={path}")
        subprocess.run([sys.executable, SCRIPT, "--note", "a note", cls.folder.name, *inputs], check=True,
                       capture_output=True)
        with open(os.path.join(cls.folder.name, "report.json"), encoding="utf-8") as file:
            cls.report = json.load(file)
        with open(os.path.join(cls.folder.name, "report.md"), encoding="utf-8") as file:
            cls.markdown = file.read()
        cls.rows = {(row["program"], row["library"]["name"], (row["reference"] or {}).get("name")): row
                    for row in cls.report["comparisons"]}

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def test_each_library_figure_meets_exactly_the_references_that_differ_only_in_who(self):
        self.assertEqual(set(self.rows), {
            ("chain", "library/http/hops:1", "sockets/http/hops:1"),
            ("chain", "library/http/hops:5", "sockets/http/hops:5"),
            ("chain", "library/http/hops:5", "libcurl/http/hops:5"),
            ("chain", "delayed/library/http/hops:5", "delayed/sockets/http/hops:5"),  # Iterations() differ
            ("chain", "delayed/library/tls/hops:5", "delayed/openssl-resumed/tls/hops:5"),
            ("telemetry", "delivery/library", "delivery/libcurl"),
            ("telemetry", "send-event/library/answering", "send-event/libcurl/answering"),
            ("telemetry", "send-event/library/silent", "send-event/libcurl/silent"),
        })
        self.assertEqual({(case["program"], case["name"]) for case in self.report["unpaired"]},
                         {("chain", "sockets/http-absolute/hops:5"), ("telemetry", "sockets/http/hops:1")})

    def test_ratios_are_medians_of_repetitions_and_above_one_when_the_library_is_slower(self):
        per_hop = self.rows[("chain", "library/http/hops:5", "sockets/http/hops:5")]
        self.assertEqual(per_hop["library"]["figure"]["kind"], "time per hop")
        self.assertAlmostEqual(per_hop["library"]["figure"]["median"], 21e-6)
        self.assertAlmostEqual(per_hop["ratio"], 3.0)
        rate = self.rows[("telemetry", "delivery/library", "delivery/libcurl")]
        self.assertEqual(rate["library"]["figure"]["unit"], "events/s")
        self.assertAlmostEqual(rate["ratio"], 4.0)
        time = self.rows[("telemetry", "send-event/library/silent", "send-event/libcurl/silent")]
        self.assertAlmostEqual(time["library"]["figure"]["median"], 6e-6)
        self.assertAlmostEqual(time["ratio"], 6.0)

    def test_a_failed_repetition_is_left_out_of_the_median_and_reported(self):
        row = self.rows[("telemetry", "send-event/library/answering", "send-event/libcurl/answering")]
        self.assertEqual(row["library"]["repetitions"], 2)
        self.assertEqual(row["library"]["failed_repetitions"], 1)
        self.assertAlmostEqual(row["ratio"], 2.0)
        self.assertIn("1 of 3 repetitions failed: hop failed", self.markdown)

    def test_round_trips_and_for_tls_fast_open_and_resumption_stand_beside_a_figure_as_medians(self):
        for expected in (
                "| delayed/http/hops:5 | time per hop | 110 ms | raw sockets | 100 ms (2.02 round trips/hop) | **1.10** |",
                "| delayed/tls/hops:5 | time per hop | 103 ms (2.06 round trips/hop, Fast Open 100%, resumed 100%) | "
                "raw OpenSSL, session resumed | 153 ms (3.07 round trips/hop, Fast Open 0%, resumed 95%) | **0.67** |"):
            self.assertIn(expected, self.markdown)

    def test_markdown_has_one_row_per_comparison_and_the_notes(self):
        table_rows = [line for line in self.markdown.splitlines()
                      if line.startswith("| ") and not line.startswith("| Benchmark")]
        self.assertEqual(len([line for line in table_rows if line.count("|") == 7]), len(self.rows))
        self.assertIn("| http/hops:5 | time per hop | 21 µs ±5% | libcurl | 14 µs | **1.50** |", self.markdown)
        self.assertIn("- a note", self.markdown)


if __name__ == "__main__":
    unittest.main()
