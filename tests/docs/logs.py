"""The log lines in docs/guide.md are those of an application in the situation that they stand for.

Lines stand in the guide without what is the same in all of them, and "..." for lines left out.
Unique names differ from run to run.

Usage: logs.py SOURCE_FOLDER BUILD_FOLDER
"""

import os
import re
import signal
import subprocess

from pages import BUILD, SOURCE, blocks, check, finish

PROGRAMS = BUILD / "programs"


def normal(line):
    line = re.sub(r"^([DE]) \S+: \w+\(\d+\) > \[(\w+):\d+\] ", r"\1 \2: ", line)
    return re.sub(r":1\.\d+", ":1.x", line.strip())


class Process:
    """A program whose lines are awaited. Patience is up to the test's time limit."""

    def __init__(self, *command, bus):
        self.lines = []
        self.process = subprocess.Popen(
            command, env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": bus}, text=True,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)

    def wait_for(self, text):
        for line in self.process.stdout:
            if line.strip():
                self.lines.append(normal(line))
            if text in line:
                return
        raise EOFError(f"no line with: {text}")

    def tell(self, command):
        print(command, file=self.process.stdin, flush=True)

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        self.lines += [normal(line) for line in self.process.communicate()[0].splitlines() if line]
        return self.process.returncode


class Pair:
    """An application and a partner on a bus of their own."""

    def __init__(self):
        self.bus_process = subprocess.Popen(
            [PROGRAMS / "tevrol-private-bus", "sh", "-c", "echo $DBUS_SYSTEM_BUS_ADDRESS; exec cat"],
            text=True, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.bus = self.bus_process.stdout.readline().strip()

    def start_application(self, program="logging-threaded"):
        self.application = Process(BUILD / "tests/docs" / program, bus=self.bus)
        self.application.wait_for("Releasing it")
        # It logs this before it does it. A partner that heard the release would answer it.
        while self.is_owned("org.ulmar.Tevrol.demo_CLIENT_SYN"):
            pass

    def is_owned(self, name):
        driver = "org.freedesktop.DBus"
        return "true" in subprocess.check_output(
            ["gdbus", "call", "--address", self.bus, "--dest", driver, "--object-path",
             "/org/freedesktop/DBus", "--method", driver + ".NameHasOwner", name], text=True)

    def start_partner(self, *options):
        self.partner = Process(PROGRAMS / "tevrol-partner", *options, "demo", bus=self.bus)
        self.partner.wait_for("announced SYN")

    def finish(self):
        check(self.application.stop() == 0, "an application that is stopped ends in order")
        self.partner.stop()
        self.bus_process.communicate()
        return self.application.lines


def partner_first(*options):
    pair = Pair()
    pair.start_partner(*options)
    pair.start_application()
    return pair


def healthy_partner_first():
    pair = partner_first()
    pair.application.wait_for("reply: report 1")
    return pair.finish()


def healthy_application_first():
    pair = Pair()
    pair.start_application()
    pair.start_partner()
    pair.application.wait_for("reply: report 1")
    return pair.finish()


def no_bus():
    application = Process(BUILD / "tests/docs/logging-threaded", bus="unix:path=/nonexistent/bus")
    application.wait_for("Error while connecting")
    check(application.stop() == 0, "without a bus an application ends in order")
    return application.lines


def name_taken():
    pair = partner_first("--hold=ack")
    pair.application.wait_for("Will try once again")
    pair.partner.tell("release ack")
    pair.application.wait_for("Finished timer thread")
    return pair.finish()


def first_announcement_refused():
    pair = Pair()
    pair.start_partner("--hold=syn")
    pair.application = Process(BUILD / "tests/docs/logging-threaded", bus=pair.bus)
    pair.application.wait_for("Cannot own name")
    return pair.finish()


def registration_refused():
    pair = Pair()
    twice = Process(BUILD / "tests/docs/logging-two-channels", bus=pair.bus)
    output = twice.process.communicate()[0]
    pair.bus_process.communicate()
    return [normal(line) for line in output.splitlines() if line]


def partner_lost():
    pair = partner_first()
    pair.application.wait_for("reply: report 1")
    pair.partner.tell("quit")
    pair.application.wait_for("Stop watching")
    return pair.finish()


def partner_lost_in_request():
    pair = partner_first("--leave=request")
    pair.application.wait_for("Stop watching")
    return pair.finish()


def wrong_type():
    pair = partner_first("--fault=wrong-type")
    pair.application.wait_for("Unexpected type")
    pair.partner.tell("notify-wrong-type text")
    pair.application.wait_for("cb_SignalCall sender")
    pair.application.wait_for("Unexpected type")
    return pair.finish()


def timeout():
    pair = Pair()
    pair.start_partner("--fault=never")
    pair.start_application("logging-impatient")
    pair.application.wait_for("Error while sending message")
    return pair.finish()


def holds(shown, lines):
    """Whether each run of shown lines stands in `lines` without a gap, in the same order."""
    at = 0
    for run in shown.strip().split("\n...\n"):
        run = [re.sub(r":1\.\d+", ":1.x", line) for line in run.splitlines()]
        starts = [i for i in range(at, len(lines)) if lines[i:i + len(run)] == run]
        if not starts:
            print("not found in this order:", *run, sep="\n  ")
            return False
        at = starts[0] + len(run)
    return True


if __name__ == "__main__":
    situations = [healthy_partner_first, healthy_application_first, no_bus, name_taken,
                  first_announcement_refused, registration_refused, partner_lost,
                  partner_lost_in_request, timeout, wrong_type]
    shown = blocks(SOURCE / "docs/guide.md", "log")
    check(len(shown) == len(situations), "the guide shows the log of each situation")
    for block, situation in zip(shown, situations):
        lines = situation()
        if not holds(block, lines):
            check(False, situation.__name__)
            print("logged:", *lines, sep="\n  ")
    finish()
