#!/usr/bin/env python3
"""Turns the figures of tevrol-bench (CSV on standard input) into tables and goals, in Markdown on
standard output, and into data files for plots.gp in the folder given as argument."""
import csv
import os
import statistics
import sys

NAMES = {
    "channel": "channel",
    "bulk": "channel, bulk",
    "gdbus": "GDBus",
    "loop": "GDBus byte by byte",
    "sdbus": "sd-bus",
    "sdbuscpp": "sdbus-c++",
    "socket": "socket pair",
    "either": "tevrol::Channel",
    "direct": "its direct link",
    "sdbuspair": "sd-bus on a socket pair",
    "bare": "bare calls",
    "keeping": "GDBus that keeps its replies",
}
KIB = 1024
MIB = 1024 * KIB


def read_medians(lines):
    rounds = {}
    for subject, metric, contender, x, _, value in csv.reader(lines):
        rounds.setdefault((subject, metric, contender, int(x)), []).append(float(value))
    return {key: statistics.median(values) for key, values in rounds.items()}


class Figures:
    def __init__(self, medians):
        self.medians = medians

    def get(self, subject, contender, x, metric="time"):
        return self.medians.get((subject, metric, contender, x))

    def xs(self, subject, metric="time"):
        return sorted({x for s, m, _, x in self.medians if (s, m) == (subject, metric)})

    def ratio(self, subject, one, other, x, metric="time"):
        """One over the other; None where either was not measured."""
        a, b = self.get(subject, one, x, metric), self.get(subject, other, x, metric)
        return None if a is None or b is None else a / b

    def worst(self, subject, one, other, accept, metric="time"):
        """The largest ratio over the accepted x, and its x."""
        ratios = [(self.ratio(subject, one, other, x, metric), x)
                  for x in self.xs(subject, metric) if accept(x)]
        return max((r for r in ratios if r[0] is not None), default=None)


def size_text(size):
    for unit, name in ((MIB, "MiB"), (KIB, "KiB")):
        if size >= unit and size % unit == 0:
            return f"{size // unit} {name}"
    return f"{size} B"


def time_text(seconds):
    for unit, name in ((1, "s"), (1e-3, "ms"), (1e-6, "µs"), (1e-9, "ns")):
        if seconds >= unit:
            break
    return f"{seconds / unit:.3g} {name}" if seconds / unit < 100 else f"{seconds / unit:.0f} {name}"


def table(title, head, rows):
    print(f"\n### {title}\n")
    print("| " + " | ".join(head) + " |")
    print("|" + "---|" * len(head))
    for row in rows:
        print("| " + " | ".join("" if cell is None else str(cell) for cell in row) + " |")


def ratio_table(figures, subject, title, contenders, text, metric="time",
                absolute=("gdbus", "channel"), x_name="payload", x_text=size_text):
    """Ratios to the first of `absolute`, then the figures of these themselves."""
    if not figures.xs(subject, metric):
        return
    head = [x_name] + [NAMES[c] for c in contenders] + [f"{NAMES[c]} itself" for c in absolute]
    rows = []
    for x in figures.xs(subject, metric):
        row = [x_text(x)]
        for contender in contenders:
            ratio = figures.ratio(subject, contender, absolute[0], x, metric)
            row.append(None if ratio is None else f"{ratio:.2f}" if ratio < 10 else f"{ratio:.0f}")
        for contender in absolute:
            value = figures.get(subject, contender, x, metric)
            row.append(None if value is None else text(value))
        rows.append(row)
    table(title, head, rows)


def rate_text(seconds):
    return f"{1 / seconds:,.0f}/s"


def print_tables(figures):
    asking = ["channel", "bulk", "loop", "sdbus", "sdbuscpp", "socket"]
    serving = ["channel", "bulk", "loop", "sdbus", "sdbuscpp"]
    ratio_table(figures, "requests", "Requests asked: time of a round trip, times GDBus's",
                asking, time_text)
    ratio_table(figures, "serving", "Requests served: time of a round trip, times GDBus's",
                serving, time_text)
    sizes = [x for x in figures.xs("requests") if x >= 4 * KIB]
    table("Requests asked: processor time of the asking thread for each byte, nanoseconds",
          ["payload", NAMES["channel"], NAMES["loop"], NAMES["bulk"], NAMES["gdbus"]],
          [[size_text(x)] + [f"{figures.get('requests', c, x, 'processor') / x * 1e9:.3g}"
                             for c in ("channel", "loop", "bulk", "gdbus")] for x in sizes])
    notifying = ["channel", "bulk", "loop", "sdbus", "sdbuscpp", "socket"]
    ratio_table(figures, "notifying", "Notifications sent: time of each in the sending call, "
                "times GDBus's", notifying, rate_text, "sending")
    ratio_table(figures, "notifying", "Notifications sent and handled by the partner: time of each, "
                "times GDBus's", notifying, rate_text)
    ratio_table(figures, "handling", "Notifications handled: time of each, times GDBus's",
                serving, rate_text)

    pairs = ["either", "direct", "sdbuspair", "sdbuscpp", "gdbus"]
    both = ("sdbus", "direct")
    ratio_table(figures, "pairs", "Both ends alike: time of a round trip, times sd-bus's",
                pairs, time_text, absolute=both)
    ratio_table(figures, "pair-notifications", "Both ends alike: time of a notification in the "
                "sending call, times sd-bus's", pairs, rate_text, "sending", both)
    ratio_table(figures, "pair-notifications", "Both ends alike: time of a notification sent and "
                "handled, times sd-bus's", pairs, rate_text, "time", both)
    ratio_table(figures, "pair-threads", "Many callers on one tevrol::Channel: time of a request, "
                "times that of sd-bus with a connection for each", ["either", "direct"], rate_text,
                "time", both, "threads", str)

    rows = []
    for subject, what in (("opening", "partner's SYN to ready"),
                          ("constructing", "construction to ready")):
        ratio = figures.ratio(subject, "channel", "bare", 0)
        if ratio is not None:
            rows.append([what, f"{ratio:.2f}", time_text(figures.get(subject, "channel", 0)),
                         time_text(figures.get(subject, "bare", 0))])
    table("Handshake", ["", "times the bare calls", "channel", "bare calls"], rows)

    table("Scale: channels in one process",
          ["channels", "to ready, each", "heap, each", "request, others idle",
           "request, all busy at once"],
          [[n, time_text(figures.get("scale", "channel", n, "ready")),
            f"{figures.get('scale', 'channel', n, 'memory') / KIB:.1f} KiB",
            time_text(figures.get("scale", "channel", n, "idle")),
            time_text(figures.get("scale", "channel", n, "busy"))]
           for n in figures.xs("scale", "ready")])
    table("Scale: callers on one channel", ["threads", "requests"],
          [[n, rate_text(figures.get("threads", "channel", n))] for n in figures.xs("threads")])

    rows = []
    for x in figures.xs("memory", "peak"):
        row = [size_text(x)]
        for contender in ("channel", "bulk", "gdbus", "either", "direct"):
            peak = figures.get("memory", contender, x, "peak")
            row.append(None if peak is None else f"{peak / x:.1f}")
        rows.append(row)
    table("Memory: peak of one request above the time before it, times the payload",
          ["payload"] + [NAMES[c] for c in ("channel", "bulk", "gdbus", "either", "direct")], rows)
    table("Memory: heap kept by each request",
          ["payload"] + [NAMES[c] for c in ("channel", "bulk", "keeping", "either", "direct")],
          [[size_text(x)] + [f"{figures.get('memory', c, x, 'growth'):.0f} B"
                             for c in ("channel", "bulk", "keeping", "either", "direct")]
           for x in figures.xs("memory", "growth")])

    if figures.xs("log"):
        rows = []
        for sink, lines, request in (("discards", "lines-discarded", "channel"),
                                     ("syslog stand-in", "lines-logged", "logging")):
            share = figures.get("log", lines, 16) / figures.get("log", request, 16)
            rows.append([sink, f"{100 * share:.2f} %", time_text(figures.get("log", lines, 16)),
                         time_text(figures.get("log", request, 16))])
        table("Log: the two lines of a request of 16 bytes",
              ["sink", "share of the request", "the two lines", "the request"], rows)


def goals(figures):
    """Each goal as text, limit, figure, met. The default conversion is one library call for each byte,
    so the default build is held against GDBus byte by byte, and the bulk build against GDBus."""
    def at_most(text, limit, worst, note=size_text):
        if worst is not None:
            yield text, f"at most {limit:.2f}", f"{worst[0]:.3f} ({note(worst[1])})", worst[0] <= limit

    small = lambda x: x <= 64
    for subject, what in (("requests", "request up to 64 B"), ("serving", "request up to 64 B served")):
        yield from at_most(f"{what}, over {NAMES['loop']}", 1.05,
                           figures.worst(subject, "channel", "loop", small))
    for prefix, one, other in (("", "channel", "loop"), ("bulk: ", "bulk", "gdbus")):
        for subject, metric, what in (("notifying", "sending", "sent"),
                                      ("notifying", "time", "sent and handled by the partner"),
                                      ("handling", "time", "handled")):
            worst = figures.worst(subject, one, other, small, metric)
            if worst:
                rate = 1 / worst[0]
                yield (f"{prefix}notifications up to 64 B {what}, rate over {NAMES[other]}",
                       "at least 0.95", f"{rate:.3f} ({size_text(worst[1])})", rate >= 0.95)
    for subject, what in (("opening", "SYN to ready"), ("constructing", "construction to ready")):
        yield from at_most(f"handshake, {what}, over the bare calls", 1.10,
                           figures.worst(subject, "channel", "bare", lambda _: True),
                           lambda _: "median")
    counts = figures.xs("scale", "ready")
    for metric, what in (("ready", "time to ready"), ("memory", "heap"), ("idle", "request"),
                         ("busy", "request, all busy")):
        one = figures.get("scale", "channel", 1, metric)
        if one:
            yield from at_most(f"{what} per channel, over that of one channel", 1.10,
                               max((figures.get("scale", "channel", n, metric) / one, n)
                                   for n in counts if n > 1), lambda n: f"{n} channels")
    middle = lambda x: 4 * KIB <= x <= 4 * MIB
    yield from at_most("request of 4 KiB to 4 MiB, processor time over that of the bare loop", 1.05,
                       figures.worst("requests", "channel", "loop", middle, "processor"))
    yield from at_most("bulk: request, over GDBus", 1.10,
                       figures.worst("requests", "bulk", "gdbus", lambda _: True))
    yield from at_most("bulk: request served, over GDBus", 1.10,
                       figures.worst("serving", "bulk", "gdbus", lambda _: True))
    large = lambda x: x >= KIB
    for subject, what in (("requests", "request"), ("serving", "request served")):
        yield from at_most(f"bulk: {what} from 1 KiB, over sdbus-c++", 1.00,
                           figures.worst(subject, "bulk", "sdbuscpp", large))
    sizes = [x for x in figures.xs("memory", "peak") if x >= MIB]
    if len(sizes) > 1:
        low, high = sizes[0], sizes[-1]
        # What comes with the first large request, whatever its size, is left out.
        grown = (figures.get("memory", "bulk", high, "peak")
                 - figures.get("memory", "bulk", low, "peak")) / (high - low)
        yield from at_most(f"bulk: peak memory of a request, over the payload, from {size_text(low)}",
                           4.00, (grown, high))
    yield from pair_goals(figures, at_most)
    for contender in ("channel", "bulk"):
        yield from at_most(f"{NAMES[contender]}: heap kept by a request, over a kept reply", 1.01,
                           figures.worst("memory", contender, "keeping", lambda _: True, "growth"))


def pair_goals(figures, at_most):
    """The goals of tevrol::Channel with itself."""
    every, small, large = (lambda _: True), (lambda x: x <= 4 * KIB), (lambda x: x >= 64 * KIB)

    def worst(one, other, accept, subject="pairs", metric="time"):
        return figures.worst(subject, one, other, accept, metric)

    channel, direct = NAMES["either"], "direct link"
    yield from at_most(f"{channel}: request, over sd-bus", 1.10, worst("either", "sdbus", every))
    yield from at_most(f"{channel}: request, over sdbus-c++", 1.00,
                       worst("either", "sdbuscpp", every))
    yield from at_most(f"{channel}: request up to 4 KiB, over GDBus", 0.75,
                       worst("either", "gdbus", small))
    yield from at_most(f"{direct}: request up to 4 KiB, over sd-bus", 0.45,
                       worst("direct", "sdbus", small))
    yield from at_most(f"{direct}: request from 64 KiB, over sd-bus", 0.60,
                       worst("direct", "sdbus", large))
    yield from at_most(f"{direct}: request, over {NAMES['sdbuspair']}", 1.25,
                       worst("direct", "sdbuspair", every))
    for metric, what in (("sending", "sent"), ("time", "sent and handled")):
        yield from at_most(f"{channel}: notification {what}, over sd-bus", 1.00,
                           worst("either", "sdbus", every, "pair-notifications", metric))
    yield from at_most(f"{direct}: notification sent and handled, over sd-bus", 0.50,
                       worst("direct", "sdbus", every, "pair-notifications"))
    threads = lambda n: f"{n} threads"
    yield from at_most(f"{channel}: request from 16 threads, over sd-bus with 16 connections", 1.00,
                       worst("either", "sdbus", lambda n: n == 16, "pair-threads"), threads)
    one, many = (figures.get("pair-threads", "direct", n) for n in (1, 16))
    if one and many:
        yield from at_most(f"{direct}: request from 16 threads, over one from one thread", 0.50,
                           (many / one, 16), threads)
    for contender in ("either", "direct"):
        # A little comes with the first large message, whatever its size.
        peaks = [(figures.get("memory", contender, x, "peak") / x, x)
                 for x in figures.xs("memory", "peak") if x >= MIB]
        if peaks:
            yield from at_most(f"{NAMES[contender]}: peak memory of a request, over the payload",
                               3.00, max(peaks))
        growth = [(figures.get("memory", contender, x, "growth"), x)
                  for x in figures.xs("memory", "growth")]
        if growth:
            yield from at_most(f"{NAMES[contender]}: heap kept by each request, bytes", 0.05,
                               max(growth))


def write_plot_data(figures, folder):
    for subject, metric in (("requests", "time"), ("serving", "time"), ("notifying", "time"),
                            ("pairs", "time")):
        contenders = sorted({c for s, m, c, _ in figures.medians if (s, m) == (subject, metric)})
        for contender in contenders:
            with open(os.path.join(folder, f"{subject}-{contender}.dat"), "w",
                      encoding="utf-8") as data:
                for x in figures.xs(subject, metric):
                    value = figures.get(subject, contender, x, metric)
                    if value is not None:
                        data.write(f"{x} {value * 1e6}\n")
    with open(os.path.join(folder, "scale.dat"), "w", encoding="utf-8") as data:
        for n in figures.xs("scale", "ready"):
            values = [figures.get("scale", "channel", n, m)
                      for m in ("ready", "idle", "busy", "memory")]
            data.write(f"{n} " + " ".join(f"{v * 1e6:.3f}" for v in values[:3])
                       + f" {values[3] / KIB:.3f}\n")


def main():
    figures = Figures(read_medians(sys.stdin))
    print("### Goals")
    print("\n| goal | limit | worst figure | |\n|---|---|---|---|")
    for text, limit, figure, met in goals(figures):
        print(f"| {text} | {limit} | {figure} | {'met' if met else '**not met**'} |")
    print_tables(figures)
    write_plot_data(figures, sys.argv[1])


main()
