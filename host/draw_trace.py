#!/usr/bin/env python3
"""draw_trace.py TRACE
draw_trace.py TRACE START+LENGTH... > PICTURE.svg

Reads a trace of libzorvix_trace.so. Times are in milliseconds since the first event.

Without a window of time, it prints where to look: the sections that never ended, with their thread,
and those around them first; the longest section of each name; the counters that only grow.

Otherwise it draws a panel for each window, such as 500+200 or 502.3+0.5. A panel has a band for
each thread with its sections, nested ones below, and a line for each counter. A later panel's
window is marked in the first."""

import collections
import json
import math
import sys
from xml.sax.saxutils import escape

WIDTH = 900
LEFT = 244  # where the time axis begins, behind the names of threads and counters
RIGHT = 876  # where it ends, before the highest values of counters
ROW = 17  # height of a section
STEPS = 18  # height of a counter
CHARACTER = 6.2  # width, at most

STYLE = """
text { font: 11px sans-serif; fill: #1f2328 }
text.axis { fill: #59636e }
.paper { fill: #ffffff }
.band { fill: #f1f3f5 }
.tick { stroke: #d1d5da }
.zoom { fill: #d4a72c; fill-opacity: 0.35 }
.steps { fill: none; stroke: #cf222e; stroke-width: 1.5 }
.kind0 { fill: #9ecbff }
.kind1 { fill: #a5dfae }
.kind2 { fill: #f2cc8f }
.kind3 { fill: #d5bdf5 }
.kind4 { fill: #f4b6c8 }
.kind5 { fill: #9fdcd6 }
@media (prefers-color-scheme: dark) {
  text { fill: #e6edf3 }
  text.axis { fill: #9198a1 }
  .paper { fill: #0d1117 }
  .band { fill: #1a212a }
  .tick { stroke: #343b44 }
  .steps { stroke: #ff7b72 }
  .kind0 { fill: #1f5a9e }
  .kind1 { fill: #23703a }
  .kind2 { fill: #7d5a10 }
  .kind3 { fill: #5f4198 }
  .kind4 { fill: #8c3552 }
  .kind5 { fill: #1b6b66 }
}
"""

Section = collections.namedtuple("Section", "begin end depth name")


def read_events(path):
    with open(path, encoding="utf-8") as file:
        text = file.read()
    try:
        return json.loads(text)
    except json.JSONDecodeError:
        return json.loads(text + "]")  # the process did not exit


class Trace:
    """Sections of each thread and values of each counter, in milliseconds since the first event."""

    def __init__(self, events):
        self.threads = {}
        self.counters = collections.defaultdict(list)
        names = {e["tid"]: e["args"]["name"] for e in events if e.get("name") == "thread_name"}
        timed = sorted((e for e in events if e["ph"] in "BEC"), key=lambda e: e["ts"])
        self.end = (timed[-1]["ts"] - timed[0]["ts"]) / 1000 if timed else 0
        open_sections = collections.defaultdict(list)
        for event in timed:
            time = (event["ts"] - timed[0]["ts"]) / 1000
            thread = event["tid"]
            if event["ph"] == "C":
                self.counters[event["name"]].append((time, event["args"]["value"]))
            elif event["ph"] == "B":
                open_sections[thread].append((time, event["name"]))
            elif open_sections[thread]:
                self.add_section(thread, open_sections[thread], time)
        for thread, stack in open_sections.items():
            while stack:  # the process ended there
                self.add_section(thread, stack, math.inf)
        self.names = {thread: names.get(thread, f"thread {thread}") for thread in self.threads}

    def add_section(self, thread, stack, end):
        begin, name = stack.pop()
        self.threads.setdefault(thread, []).append(Section(begin, end, len(stack), name))


def kind(section):
    """The first word of a name, such as Publish or Subscriber, decides the colour."""
    return section.name.split(" ")[0]


def fits(name, width):
    return len(name) * CHARACTER + 5 <= width


def shorten(name, width):
    return name if fits(name, width) else name[:int(width / CHARACTER) - 2] + "…"


def tick_distance(length):
    """1, 2 or 5 times a power of ten, so that there are 4 to 10 ticks."""
    power = 10 ** math.floor(math.log10(length / 4))
    return max(step * power for step in (1, 2, 5) if step * power <= length / 4)


class Panel:
    """Draws one window of time from `top` on, down to `bottom`."""

    def __init__(self, begin, length, top, colours):
        self.begin = begin
        self.end = begin + length
        self.scale = (RIGHT - LEFT) / length
        self.top = top
        self.bottom = top
        self.colours = colours
        self.background = []
        self.drawing = []

    def x(self, time):
        return LEFT + (min(max(time, self.begin), self.end) - self.begin) * self.scale

    def text(self, x, y, text, more=""):
        self.drawing.append(f'<text x="{x:.1f}" y="{y}"{more}>{escape(text)}</text>')

    def name(self, y, name):
        self.text(LEFT - 8, y, shorten(name, LEFT - 8), ' text-anchor="end"')

    def draw(self, trace, zooms):
        for thread, sections in trace.threads.items():
            self.draw_thread(trace.names[thread], sections)
        for name, values in sorted(trace.counters.items()):
            self.draw_counter(name, values)
        self.draw_axis()
        for begin, length in zooms:
            x = self.x(begin)
            width = max(self.x(begin + length) - x, 2)
            self.drawing.append(f'<rect class="zoom" x="{x:.1f}" y="{self.top}" width="{width:.1f}"'
                                f' height="{self.bottom - self.top - 18}"/>')

    def draw_thread(self, name, sections):
        visible = sorted(s for s in sections if s.begin < self.end and s.end > self.begin)
        if not visible:
            return
        rows = collections.defaultdict(list)
        for section in visible:
            rows[section.depth].append(section)
        height = (max(rows) + 1) * ROW + 3
        self.background.append(f'<rect class="band" x="{LEFT}" y="{self.bottom}"'
                               f' width="{RIGHT - LEFT}" height="{height}"/>')
        self.name(self.bottom + 14, name)
        for depth, row in rows.items():
            self.draw_row(self.bottom + 2 + depth * ROW, row)
        self.bottom += height + 6

    def draw_row(self, y, row):
        drawn_to = 0
        for section, following in zip(row, [*row[1:], None]):
            x = self.x(section.begin)
            right = max(self.x(section.end), x + 2)
            if right <= drawn_to + 0.5:
                continue  # too close to the section before to be seen
            drawn_to = right
            self.drawing.append(f'<rect class="{self.colours[kind(section)]}" x="{x:.1f}" y="{y}"'
                                f' width="{right - x - 0.5:.1f}" height="{ROW - 2}"/>')
            # The name stands in the box, behind it, or shortened in it, or there is no room.
            behind = (self.x(following.begin) if following else RIGHT) - right
            if fits(section.name, right - x):
                self.text(x + 3, y + 11, section.name)
            elif fits(section.name, behind):
                self.text(right + 3, y + 11, section.name)
            elif right - x >= 40:
                self.text(x + 3, y + 11, shorten(section.name, right - x))

    def draw_counter(self, name, values):
        before = [value for time, value in values if time <= self.begin]
        changes = [(time, value) for time, value in values if self.begin < time < self.end]
        if not changes:
            return
        steps = [(self.begin, before[-1] if before else 0), *changes]
        highest = max(1, *(value for _, value in steps))
        base = self.bottom + STEPS
        heights = [f"{base - STEPS * value / highest:.1f}" for _, value in steps]
        path = f"M{LEFT} {heights[0]}"
        for (time, _), height in zip(steps[1:], heights[1:]):
            path += f"H{self.x(time):.1f}V{height}"
        self.drawing.append(f'<path class="steps" d="{path}H{RIGHT}"/>')
        self.name(base - 4, name)
        self.text(RIGHT + 4, base - STEPS + 8, str(highest), ' class="axis"')
        self.bottom = base + 8

    def draw_axis(self):
        distance = tick_distance(self.end - self.begin)
        first = math.ceil(self.begin / distance - 1e-9)
        last = math.floor(self.end / distance + 1e-9)
        for number in range(first, last + 1):
            x = self.x(number * distance)
            self.background.append(f'<path class="tick" d="M{x:.1f} {self.top}V{self.bottom}"/>')
            unit = " ms" if number == first else ""
            self.text(x, self.bottom + 12, f"{number * distance:.10g}{unit}",
                      ' class="axis" text-anchor="middle"')
        self.bottom += 18


def only_grows(values):
    """A counter begins at 0, so one value may be enough."""
    numbers = [0, *(value for _, value in values)]
    return numbers == sorted(numbers) and numbers[-1] > 0


def summarize(trace):
    never_ended = []
    ended = {}
    for thread, sections in trace.threads.items():
        for section in sorted(sections):  # those around others first
            length = min(section.end, trace.end) - section.begin
            place = f"from {section.begin:.3f} on, {trace.names[thread]} ({thread})"
            row = (length, f"{place}: {section.name}")
            if section.end == math.inf:
                never_ended.append(row)
            else:
                ended[section.name] = max(row, ended.get(section.name, row))
    counters = [(values[-1][1], f"from {values[0][0]:.3f} on: {name}")
                for name, values in sorted(trace.counters.items()) if only_grows(values)]
    for title, layout, rows in (
            ("Sections that never ended", "{:12.3f} ms {}", never_ended),
            ("The longest section of each name", "{:12.3f} ms {}",
             sorted(ended.values(), reverse=True)),
            ("Counters that only grow", "{:12} {}", counters)):
        print(f"{title}:")
        for row in rows:
            print(layout.format(*row))
        if not rows:
            print("        none")


def draw(trace, windows):
    kinds = dict.fromkeys(kind(s) for sections in trace.threads.values() for s in sections)
    colours = {name: f"kind{number % 6}" for number, name in enumerate(sorted(kinds))}
    drawing = []
    bottom = 8
    for number, (begin, length) in enumerate(windows):
        panel = Panel(begin, length, bottom, colours)
        panel.draw(trace, windows[1:] if number == 0 else [])
        drawing += panel.background + panel.drawing
        bottom = panel.bottom + 12
    x = LEFT
    picture = "\n".join(drawing)
    for name, colour in colours.items():
        if f'class="{colour}"' not in picture:
            continue
        drawing.append(f'<rect class="{colour}" x="{x}" y="{bottom}" width="12" height="12"/>'
                       f'<text x="{x + 16}" y="{bottom + 10}">{escape(name)}</text>')
        x += int(36 + len(name) * CHARACTER)
    bottom += 22
    print(f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {bottom}"'
          f' width="{WIDTH}" height="{bottom}">')
    print(f'<style>{STYLE}</style>')
    print(f'<rect class="paper" width="{WIDTH}" height="{bottom}"/>')
    print("\n".join(drawing))
    print("</svg>")


def main(path, *windows):
    trace = Trace(read_events(path))
    if windows:
        draw(trace, [tuple(float(part) for part in window.split("+")) for window in windows])
    else:
        summarize(trace)


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    main(*sys.argv[1:])
