"""trace_test.py LIBRARY [EMULATOR...] PROGRAM: the file has what trace_test.cpp traces, as JSON."""

import collections
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

LIBRARY, *COMMAND = sys.argv[1:]
SCRIPT = pathlib.Path(__file__).resolve().parent.parent / "host" / "draw_trace.py"
# What a section is called, and what the trace calls it.
NAMES = {
    b'Subscriber "readings"': 'Subscriber "readings"',
    b"C:\\new": "C:\\new",
    b"line 1\nline 2\t\x01\x1f\x7f": "line 1\nline 2\t\x01\x1f\x7f",
    "Außen, 温度, 😀".encode(): "Außen, 温度, 😀",
    b"": "",
    b"cut \xc3": "cut \ufffd",
    b"\xff\x80 overlong \xc0\xaf": "\ufffd\ufffd overlong \ufffd\ufffd",
    b"surrogate \xed\xa0\x80": "surrogate \ufffd\ufffd\ufffd",
}
OWN = ["section"] * 500 + ["20 ms", "when the process exits"]


def run(end, traced=True):
    """Returns what the program says, and the text of the trace, or None if there is no file."""
    environment = {**os.environ, "ASAN_OPTIONS": "verify_asan_link_order=0"}
    # A bare name, since LD_PRELOAD would be split at the spaces of a path.
    preload = {"LD_LIBRARY_PATH": str(pathlib.Path(LIBRARY).parent),
               "LD_PRELOAD": pathlib.Path(LIBRARY).name}
    if len(COMMAND) > 1:
        environment["QEMU_SET_ENV"] = ",".join(f"{key}={value}" for key, value in preload.items())
    else:
        environment.update(preload)
    with tempfile.TemporaryDirectory() as folder:
        path = pathlib.Path(folder, "trace.json")
        environment["ZORVIX_TRACE"] = str(path) if traced else ""
        program = subprocess.run([*COMMAND, end, *NAMES], env=environment, stdout=subprocess.PIPE,
                                 check=end == "exit")
        return program.stdout.decode(), path.read_text("utf-8") if path.exists() else None


# Phase, thread, time in microseconds, name and value. The process did not exit.
HANGS = [
    ("M", 7, None, "thread_name", {"name": "display"}),
    ("B", 7, 1000, "Publish t"), ("B", 7, 2000, "Subscriber t"),
    ("B", 8, 2500, "Publish t"), ("E", 8, 6500),
    ("B", 8, 6600, "Publish t"), ("B", 8, 6700, "Set s"), ("E", 8, 6800), ("E", 8, 7000),
    ("C", 8, 3000, "full", {"value": 1}), ("C", 8, 4000, "full", {"value": 1}),
    ("C", 8, 3000, "drained", {"value": 2}), ("C", 8, 4000, "drained", {"value": 1}),
    ("C", 8, 8000, "drained", {"value": 9}), ("C", 8, 9000, "empty", {"value": 0}),
]
SUMMARY = """\
Sections that never ended:
       8.000 ms from 0.000 on, display (7): Publish t
       7.000 ms from 1.000 on, display (7): Subscriber t
The longest section of each name:
       4.000 ms from 1.500 on, thread 8 (8): Publish t
       0.100 ms from 5.700 on, thread 8 (8): Set s
Counters that only grow:
           1 from 2.000 on: full
"""


def by_thread(events):
    """Returns the events of each thread, under its name."""
    names = {e["tid"]: e["args"]["name"] for e in events if e.get("name") == "thread_name"}
    threads = collections.defaultdict(list)
    for event in events:
        if event["ph"] != "M":
            threads[names.get(event["tid"], "unnamed")].append(event)
    return threads


class TraceTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.said, text = run("exit")
        cls.events = json.loads(text)
        cls.threads = by_thread(cls.events)

    def test_sections_of_each_thread_arrive(self):
        sections = {name: [e["name"] for e in events if e["ph"] == "B"]
                    for name, events in self.threads.items()}

        self.assertEqual(sections, {'"main" \\': [*NAMES.values(), *OWN, "static destructor"],
                                    "other": OWN})

    def test_no_section_ends_that_did_not_begin(self):
        for name, events in self.threads.items():
            with self.subTest(name):
                depth = 0
                for event in events:
                    depth += {"B": 1, "E": -1, "C": 0}[event["ph"]]
                    self.assertGreaterEqual(depth, 0)
                self.assertEqual(depth, 1)

    def test_counters_have_their_values(self):
        values = collections.defaultdict(list)
        for event in self.events:
            if event["ph"] == "C":
                values[event["name"], event["tid"]].append(event["args"]["value"])

        self.assertEqual(sorted(values.values()),
                         [[-(2**63), 2**63 - 1], list(range(500)), list(range(500))])

    def test_times_are_microseconds_in_order(self):
        for name, events in self.threads.items():
            times = [e["ts"] for e in events]
            self.assertEqual(times, sorted(times), name)
        begin, end, _ = [e["ts"] for e in self.threads["other"][-3:]]
        self.assertGreaterEqual(end - begin, 20_000)
        self.assertLess(end - begin, 20_000_000)

    def test_tracing_is_on_only_with_a_file(self):
        self.assertEqual(self.said, "on\n")
        self.assertEqual(run("exit", traced=False), ("off\n", None))

    def test_crash_leaves_an_array_without_its_end_and_with_all_that_is_older(self):
        _, text = run("abort")

        main = by_thread(json.loads(text + "]"))['"main" \\']
        sections = [e["name"] for e in main if e["ph"] == "B"]
        self.assertEqual(sections, [*NAMES.values(), *OWN])

    def test_summary_says_where_to_look(self):
        events = [dict(zip(("ph", "tid", "ts", "name", "args"), event)) for event in HANGS]
        with tempfile.NamedTemporaryFile("w") as file:
            file.write(json.dumps(events).rstrip("]"))
            file.flush()
            printed = subprocess.check_output([sys.executable, SCRIPT, file.name], text=True)

        self.assertEqual(printed, SUMMARY)


unittest.main(argv=sys.argv[:1])
