"""trace_demo_test.py TRACE: what the demo does appears in its trace, on the right threads."""

import collections
import json
import pathlib
import sys
import unittest

# Sections that a thread has, each with those that it is in.
SECTIONS = {
    "host": {"Publish line", "Call advice", "Call advice, Server advice", "Subscriber line",
             "Subscriber sample", "Subscriber recorded", "Subscriber uploaded", "Subscriber sent"},
    "sampler": {"Publish sample", "Publish sent"},
    "recorder": {"Inbox recorder", "Subscriber sample", "Subscriber sample, Set summary",
                 "Subscriber sample, Publish recorded", "Subscriber sample, Publish line"},
    "uploader": {"Inbox uploader", "Subscriber sample", "Subscriber sample, Publish uploaded",
                 "Subscriber sample, Publish line"},
}


class TraceOfDemoTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        path = pathlib.Path(sys.argv[1])
        cls.events = json.loads(path.read_text("utf-8"))
        path.unlink()  # so that a later demo, if it traces nothing, leaves none
        cls.threads = {e["tid"]: e["args"]["name"] for e in cls.events
                       if e.get("name") == "thread_name"}

    def test_sections_are_balanced_and_on_their_threads(self):
        open_sections = collections.defaultdict(list)
        sections = collections.defaultdict(set)
        for event in self.events:
            if event["ph"] not in "BE":
                continue
            thread = self.threads.get(event["tid"])
            if event["ph"] == "B":
                open_sections[thread].append(event["name"])
                section = ", ".join(open_sections[thread])
                self.assertIn(section, SECTIONS.get(thread, ()), thread)
                sections[thread].add(section)
            else:
                self.assertTrue(open_sections[thread], f"a section ends on {thread}")
                open_sections[thread].pop()

        for thread, expected in SECTIONS.items():
            self.assertEqual(sections[thread], expected, thread)
            self.assertEqual(open_sections[thread], [], thread)

    def test_pending_messages_are_counted(self):
        counters = collections.defaultdict(list)
        for event in self.events:
            if event["ph"] == "C":
                counters[event["name"]].append(event["args"]["value"])

        self.assertEqual(set(counters), {"pending screen, demo",
                                         "pending recorder, libdemo_recorder.so",
                                         "pending uploader, libdemo_uploader.so"})
        self.assertEqual(max(counters["pending uploader, libdemo_uploader.so"]), 2)  # its depth
        for name, values in counters.items():
            self.assertEqual(values[-1], 0, name)


unittest.main(argv=sys.argv[:1])
