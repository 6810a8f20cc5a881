#!/usr/bin/env python3
"""Shows that the conformance tests notice every change of the channel.

Applies to src/ipc/tevrol-dbus-remote.cpp, one at a time, the changes that are listed in
tests/conformance/mutants.txt and, for each log line, another text and the other priority; builds
each mutant and runs the conformance tests on it. Prints which test noticed it first. Fails when one
goes unnoticed that is not listed as having no effect, or the other way round.
"""
import concurrent.futures
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
SOURCE = ROOT / "src/ipc/tevrol-dbus-remote.cpp"
LIST = ROOT / "tests/conformance/mutants.txt"
BUILD = ROOT / "build/dev"
OBJECT = "tests/conformance/CMakeFiles/conformance-channel.dir/__/__/src/ipc/tevrol-dbus-remote.cpp.o"
PROGRAM = "tests/conformance/conformance-tests"
SECONDS_PER_RUN = 60
AT_ONCE = 2
QUICKLY = ["-O0", "-g0", "-w"]


class Mutant:
    def __init__(self, name):
        self.name = name
        self.old = []
        self.new = []
        self.occurrence = None  # of the old text, from 1; needed where it stands more than once
        self.harmless = None    # why no test can notice it

    def apply(self, source):
        old, new = "\n".join(self.old), "\n".join(self.new)
        count = source.count(old)
        if count == 0 or (count > 1 and self.occurrence is None):
            sys.exit(f"mutant \"{self.name}\": its text stands {count} times in the source")
        parts = source.split(old)
        at = self.occurrence or 1
        return old.join(parts[:at]) + new + old.join(parts[at:])


def listed_mutants():
    mutants = []
    for line in LIST.read_text().splitlines():
        if line.startswith("== "):
            mutants.append(Mutant(line[3:]))
        elif line.startswith("-"):
            mutants[-1].old.append(line[1:])
        elif line.startswith("+"):
            mutants[-1].new.append(line[1:])
        elif line.startswith("@"):
            mutants[-1].occurrence = int(line[1:])
        elif line.startswith("no effect: "):
            mutants[-1].harmless = line[len("no effect: "):]
    return mutants


def log_line_mutants(source):
    """For each log line: the other priority, and a text without its first letter."""
    mutants = []
    line = re.compile(r'LOG_LINE\((DLOG_\w+), (\w+),\s*"((?:[^"\\]|\\.)*)"')
    for number, found in enumerate(line.finditer(source), 1):
        priority, text = found[1], found[3]
        other = "DLOG_ERROR" if priority == "DLOG_DEBUG" else "DLOG_DEBUG"
        changed_text = found[0][:-1] + ' "'  # a blank at the end, behind the newlines
        for what, change in (("priority", found[0].replace(priority, other, 1)),
                             ("text", changed_text)):
            mutant = Mutant(f"{what} of log line {number}: {text}")
            mutant.apply = (lambda source, found=found, change=change:
                            source[:found.start()] + change + source[found.end():])
            mutants.append(mutant)
    return mutants


def build_commands():
    """How the build compiles the channel and links the tests."""
    lines = subprocess.run(["ninja", "-C", str(BUILD), "-t", "commands", "conformance-tests"],
                           check=True, capture_output=True, text=True).stdout.splitlines()
    compiling = next(line for line in lines if f" -o {OBJECT} " in line)
    linking = next(line for line in lines if f" -o {PROGRAM} " in line)
    linking = linking.removeprefix(": && ").split(" && ")[0]
    return shlex.split(compiling), shlex.split(linking)


def prepare_headers(compiling, folder):
    """Compiles what the channel includes once, so that each mutant takes a third of the time."""
    header = folder / "headers.h"
    header.write_text("".join(f"#include {found}\n" for found in
                              re.findall(r"#include (\S+)", SOURCE.read_text())))
    command = replaced(compiling, {str(SOURCE): str(header), OBJECT: f"{header}.gch",
                                   OBJECT + ".d": str(folder / "headers.d")})
    command[command.index("-c")] = "-xc++-header"
    subprocess.run(command + QUICKLY, cwd=BUILD, check=True)
    return compiling + QUICKLY + ["-include", str(header)]


def replaced(command, changes):
    return [changes.get(word, word) for word in command]


def first_failure(output):
    failed = re.search(r"^\[  FAILED  \] (\S+?),? ", output, re.MULTILINE)
    if failed:
        return failed[1]
    running = re.findall(r"^\[ RUN      \] (\S+)", output, re.MULTILINE)
    return f"{running[-1]} (crash)" if running else "(crash)"


def noticed_by(mutant, source, commands):
    """The test that notices the mutant, or None."""
    compiling, linking = commands
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        mutated, object_file, program = (folder / SOURCE.name, folder / "mutant.o",
                                         folder / "mutant")
        mutated.write_text(mutant.apply(source))
        compiled = subprocess.run(
            replaced(compiling, {str(SOURCE): str(mutated), OBJECT: str(object_file),
                                 OBJECT + ".d": str(folder / "mutant.d")}),
            cwd=BUILD, capture_output=True, text=True)
        if compiled.returncode != 0:
            raise RuntimeError(f"mutant \"{mutant.name}\" does not compile:\n{compiled.stderr}")
        subprocess.run(replaced(linking, {OBJECT: str(object_file), PROGRAM: str(program)}),
                       cwd=BUILD, check=True)
        try:
            run = subprocess.run([str(program), "--gtest_fail_fast"], cwd=folder, errors="replace",
                                 capture_output=True, text=True, timeout=SECONDS_PER_RUN)
        except subprocess.TimeoutExpired:
            return "(hang)"
        return None if run.returncode == 0 else first_failure(run.stdout)


def main():
    source = SOURCE.read_text()
    mutants = listed_mutants() + log_line_mutants(source)
    for mutant in mutants:
        mutant.apply(source)  # all can be made
    compiling, linking = build_commands()
    wrong = 0
    harmless = 0
    with tempfile.TemporaryDirectory() as folder, \
            concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
        commands = (prepare_headers(compiling, pathlib.Path(folder)), linking)
        outcomes = pool.map(lambda mutant: noticed_by(mutant, source, commands), mutants)
        for mutant, test in zip(mutants, outcomes):
            note = test or "-"
            if mutant.harmless:
                harmless += 1
                note += f" (no effect: {mutant.harmless})"
            if bool(test) == bool(mutant.harmless):
                wrong += 1
                note += "   <-- UNEXPECTED"
            print(f"{mutant.name:<75} {note}", flush=True)
    print(f"\n{len(mutants)} mutants: {len(mutants) - harmless} to be noticed, {harmless} without "
          f"effect; {wrong} unexpected")
    return 1 if wrong else 0


if __name__ == "__main__":
    os.chdir(ROOT)
    sys.exit(main())
