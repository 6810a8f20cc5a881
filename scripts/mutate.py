#!/usr/bin/env python3
"""Shows that the tests notice every change of the channel and of its lock.

Makes, one at a time, the changes that are listed in tests/conformance/mutants.txt and, for each log
line, another text and the other priority; compiles what the change is meant to be noticed in and
runs the tests on it. Prints which test noticed it first. Fails when one goes unnoticed that is not
listed as having no effect, or the other way round.
"""
import concurrent.futures
import dataclasses
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
CHANNEL = "src/ipc/tevrol-dbus-remote.cpp"
LIST = ROOT / "tests/conformance/mutants.txt"
BUILD = ROOT / "build/dev"
SECONDS_PER_RUN = 30
AT_ONCE = 2
QUICKLY = ["-O0", "-g0", "-w"]

CONFORMANCE = "tests/conformance/CMakeFiles/conformance-tests.dir/"
CONFORMANCE_CHANNEL = "tests/conformance/CMakeFiles/conformance-channel.dir/__/__/src/"
UNIT = "tests/CMakeFiles/unit-tests.dir/"
OPENED_CHANNEL = "tests/CMakeFiles/opened-channel.dir/"


@dataclasses.dataclass(frozen=True)
class Way:
    """A test program that notices a mutant, the objects of it that are compiled with the mutant, and
    those that are left out: they would be compiled with it too, and are not needed to notice it."""
    target: str
    program: str
    compiled: tuple
    left_out: str = r"(?!)"  # a pattern
    tests: str = "*"


# By the names that the list uses.
WAYS = {
    "channel": Way("conformance-tests", "tests/conformance/conformance-tests",
                   (CONFORMANCE_CHANNEL + "ipc/tevrol-dbus-remote.cpp.o",)),
    "lock": Way("conformance-tests", "tests/conformance/conformance-tests",
                (CONFORMANCE_CHANNEL + "common/PTMutex.cpp.o",)),
    "layout": Way("conformance-tests", "tests/conformance/conformance-tests",
                  (CONFORMANCE_CHANNEL + "ipc/tevrol-dbus-remote.cpp.o",
                   CONFORMANCE_CHANNEL + "common/PTMutex.cpp.o",
                   CONFORMANCE + "layout-test.cpp.o", CONFORMANCE + "conformance-test.cpp.o",
                   CONFORMANCE + "stub-world.cpp.o"),
                  left_out=r".*/(recordings|fail-every-call|wrapped-calls)-test\.cpp\.o"),
    "lock by itself": Way("unit-tests", "tests/unit-tests",
                          (OPENED_CHANNEL + "__/src/common/PTMutex.cpp.o",
                           UNIT + "lock-test.cpp.o"),
                          tests="Lock.*"),
    "bulk conversion": Way("unit-tests", "tests/unit-tests",
                           ("tests/CMakeFiles/conversion-Bulk.dir/support/conversion.cpp.o",),
                           tests="ConversionTest.*"),
}


class Mutant:
    def __init__(self, name, file=CHANNEL, way="channel"):
        self.name = name
        self.file = file
        self.way = way
        self.old = []
        self.new = []
        self.swapped = None     # two texts
        self.occurrence = None  # of the old text, from 1; needed where it stands more than once
        self.harmless = None    # why no test can notice it

    def apply(self, source):
        if self.swapped:
            parts = re.split(f"({'|'.join(re.escape(text) for text in self.swapped)})", source)
            if {parts[1], parts[-2]} != set(self.swapped) or len(parts) != 5:
                sys.exit(f"mutant \"{self.name}\": its texts do not stand once each in the source")
            return "".join([parts[0], parts[3], parts[2], parts[1], parts[4]])
        old, new = "\n".join(self.old), "\n".join(self.new)
        count = source.count(old)
        if count == 0 or (count > 1 and self.occurrence is None):
            sys.exit(f"mutant \"{self.name}\": its text stands {count} times in the source")
        parts = source.split(old)
        at = self.occurrence or 1
        return old.join(parts[:at]) + new + old.join(parts[at:])


def listed_mutants():
    mutants = []
    file = way = None
    for line in LIST.read_text().splitlines():
        if line.startswith("in "):
            file, way = line[3:].split(", by ")
        elif line.startswith("== "):
            mutants.append(Mutant(line[3:], file, way))
        elif line.startswith("-"):
            mutants[-1].old.append(line[1:])
        elif line.startswith("+"):
            mutants[-1].new.append(line[1:])
        elif line.startswith("swap "):
            mutants[-1].swapped = line[len("swap "):].split(" <-> ")
        elif line.startswith("@"):
            mutants[-1].occurrence = int(line[1:])
        elif line.startswith("no effect: "):
            mutants[-1].harmless = line[len("no effect: "):]
    return mutants


def log_line_mutants(source):
    """For each log line: the other priority, and the text with a blank behind it."""
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


def build_commands(way):
    """How the build links the way's program and compiles its objects."""
    lines = subprocess.run(["ninja", "-C", str(BUILD), "-t", "commands", way.target],
                           check=True, capture_output=True, text=True).stdout.splitlines()
    def making(output):
        return next(line for line in lines if f" -o {output} " in line)
    linking = making(way.program).removeprefix(": && ").split(" && ")[0]
    linking = [word for word in shlex.split(linking) if not re.fullmatch(way.left_out, word)]
    linking.append("-s")  # without the symbols, which takes half the time
    return linking, {made: shlex.split(making(made)) for made in way.compiled}


def replaced(command, changes):
    return [changes.get(word, word) for word in command]


def system_headers(*files):
    """What the files, and those of the project that they include, include of others."""
    found = []
    for file in files:
        for include in re.findall(r'^#include (\S+)', file.read_text(), re.MULTILINE):
            in_project = [ROOT / folder / include.strip('"') for folder in ("", "src")]
            if include.startswith("<"):
                found.append(include)
            else:
                found += system_headers(*(file for file in in_project if file.is_file()))
    return sorted(set(found))


def with_prepared_headers(compiling, folder, made):
    """Compiles once what an object includes of others, so that a mutant takes a third of the time."""
    source = pathlib.Path(compiling[compiling.index("-c") + 1])
    header = folder / f"{made.replace('/', '-')}.h"
    header.write_text("".join(f"#include {name}\n" for name in system_headers(source)))
    while "-include" in compiling:  # what the build has prepared is of no use with other options
        at = compiling.index("-include")
        compiling = compiling[:at] + compiling[at + 2:]
    preparing = replaced(compiling, {str(source): str(header), made: f"{header}.gch",
                                     made + ".d": f"{header}.d"})
    preparing[preparing.index("-c")] = "-xc++-header"
    subprocess.run(preparing + QUICKLY, cwd=BUILD, check=True)
    return compiling + QUICKLY + ["-include", str(header)]


def prepared_commands(folder, pool):
    """For each way the same, prepared. Ways that compile the same object share its preparation."""
    commands = {name: build_commands(way) for name, way in WAYS.items()}
    compiling = {made: command for _, of_way in commands.values() for made, command in of_way.items()}
    prepared = dict(zip(compiling, pool.map(
        lambda made: with_prepared_headers(compiling[made], folder, made), compiling)))
    return {name: (linking, {made: prepared[made] for made in of_way})
            for name, (linking, of_way) in commands.items()}


def first_failure(output):
    failed = re.search(r"^\[  FAILED  \] (\S+?),? ", output, re.MULTILINE)
    if failed:
        return failed[1]
    running = re.findall(r"^\[ RUN      \] (\S+)", output, re.MULTILINE)
    return f"{running[-1]} (crash)" if running else "(crash)"


def compile_with(mutant, commands, folder):
    """The objects that the mutant is compiled in, by those that they replace."""
    mutated = folder / pathlib.Path(mutant.file).relative_to("src")
    mutated.parent.mkdir()
    mutated.write_text(mutant.apply((ROOT / mutant.file).read_text()))
    objects = {}
    for made, command in commands.items():
        objects[made] = str(folder / f"{len(objects)}.o")
        changed = replaced(command, {str(ROOT / mutant.file): str(mutated), made: objects[made],
                                     made + ".d": objects[made] + ".d"})
        # In front, so that the mutant is what others include.
        compiled = subprocess.run(changed[:1] + [f"-I{folder}"] + changed[1:], cwd=BUILD,
                                  capture_output=True, text=True)
        if compiled.returncode != 0:
            raise RuntimeError(f"mutant \"{mutant.name}\" does not compile:\n{compiled.stderr}")
    return objects


def noticed_by(mutant, linking, commands):
    """The test that notices the mutant, or None."""
    way = WAYS[mutant.way]
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        program = str(folder / "mutant")
        objects = compile_with(mutant, commands, folder)
        subprocess.run(replaced(linking, {**objects, way.program: program}), cwd=BUILD, check=True)
        try:
            run = subprocess.run([program, "--gtest_fail_fast", f"--gtest_filter={way.tests}"],
                                 cwd=folder, errors="replace", capture_output=True, text=True,
                                 timeout=SECONDS_PER_RUN)
        except subprocess.TimeoutExpired:
            return "(hang)"
        return None if run.returncode == 0 else first_failure(run.stdout)


def main():
    mutants = listed_mutants() + log_line_mutants((ROOT / CHANNEL).read_text())
    for mutant in mutants:
        mutant.apply((ROOT / mutant.file).read_text())  # all can be made
    wrong = 0
    harmless = 0
    with tempfile.TemporaryDirectory() as folder, \
            concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
        commands = prepared_commands(pathlib.Path(folder), pool)
        outcomes = pool.map(lambda mutant: noticed_by(mutant, *commands[mutant.way]), mutants)
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
