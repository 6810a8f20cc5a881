"""Breaks the sources of a subject, one change at a time, and shows which test notices each mutant.
README.md describes subjects and their lists. Fails when a mutant lives that is not listed as living,
or the other way round.
"""
import concurrent.futures
import dataclasses
import os
import pathlib
import re
import sys
import tempfile

import copies
import objects
import operators

LISTS = pathlib.Path("tests/mutants")
AT_ONCE = 2


@dataclasses.dataclass
class Mutant:
    name: str
    file: str
    ways: tuple
    text: str = None       # the whole source with the change
    made: bool = False     # by an operator
    harmless: str = None   # why no test can notice it


class Entry:
    """A mutant of a list, as it stands there."""

    def __init__(self, name, file, ways):
        self.name = name
        self.file = file
        self.ways = ways
        self.old = []
        self.new = []
        self.swapped = None     # two texts
        self.occurrence = None  # of the old text, from 1; needed where it stands more than once
        self.harmless = None

    def changes_something(self):
        return bool(self.old or self.new or self.swapped)

    def apply(self, source):
        if self.swapped:
            parts = re.split(f"({'|'.join(re.escape(text) for text in self.swapped)})", source)
            if len(parts) != 5 or {parts[1], parts[3]} != set(self.swapped):
                sys.exit(f"mutant \"{self.name}\": its texts do not stand once each in the source")
            return "".join([parts[0], parts[3], parts[2], parts[1], parts[4]])
        old, new = "\n".join(self.old), "\n".join(self.new)
        count = source.count(old)
        if count == 0 or (count > 1 and self.occurrence is None):
            sys.exit(f"mutant \"{self.name}\": its text stands {count} times in the source")
        parts = source.split(old)
        at = self.occurrence or 1
        return old.join(parts[:at]) + new + old.join(parts[at:])


class Subject:
    """What a list says."""

    def __init__(self, name):
        self.name = name
        self.targets = []
        self.tests = None
        self.operated = []   # file and ways
        self.exchanges = []
        self.entries = []
        file = ways = None
        for number, line in enumerate((LISTS / f"{name}.txt").read_text().splitlines(), 1):
            entry = self.entries[-1] if self.entries else None
            word, _, rest = line.partition(" ")
            if line.startswith("== "):
                self.entries.append(Entry(rest, file, ways))
            elif line.startswith("-"):
                entry.old.append(line[1:])
            elif line.startswith("+"):
                entry.new.append(line[1:])
            elif line.startswith("@"):
                entry.occurrence = int(line[1:])
            elif word == "swap":
                entry.swapped = rest.split(" <-> ")
            elif line.startswith("no effect: "):
                entry.harmless = line[len("no effect: "):]
            elif word == "in":
                file, ways = self.place(rest)
            elif word == "build":
                self.targets += rest.split()
            elif word == "test":
                self.tests = rest
            elif word == "operators":
                self.operated.append(self.place(rest))
            elif word == "exchange":
                self.exchanges.append(rest.split())
            elif line and not line.startswith("#"):
                sys.exit(f"{name}.txt:{number}: not understood: {line}")
        names = [entry.name for entry in self.entries]
        for name in set(names):
            if names.count(name) > 1:
                sys.exit(f"{self.name}.txt: {name} stands there twice")

    @staticmethod
    def place(words):
        file, _, ways = words.partition(", by ")
        return file, tuple(ways.split(", ")) if ways else ()

    def mutants(self):
        living = {entry.name: entry for entry in self.entries if not entry.changes_something()}
        for entry in self.entries:
            if entry.changes_something():
                text = entry.apply(pathlib.Path(entry.file).read_text())
                yield Mutant(entry.name, entry.file, entry.ways, text, harmless=entry.harmless)
        for file, ways in self.operated:
            source = pathlib.Path(file).read_text()
            for change in operators.make(source, self.exchanges):
                listed = living.pop(change.name, None)
                yield Mutant(change.name, file, ways, change.apply(source), made=True,
                             harmless=listed.harmless if listed else None)
        if living:
            sys.exit(f"{self.name}.txt: no operator makes " + ", ".join(living))


def outcome(mutant, noticing):
    """The test that notices the mutant, None, or False where it is no mutant."""
    try:
        return noticing.noticed_by(mutant)
    except objects.DoesNotCompile as why:
        if mutant.made:
            return False
        sys.exit(f"mutant \"{mutant.name}\" does not compile:\n{why}")


def run(subject):
    """Prints the subject's mutants and their fate; the number of those that are not as expected."""
    mutants = list(subject.mutants())
    counts = {"noticed": 0, "living": 0, "wrong": 0}
    with tempfile.TemporaryDirectory() as folder, \
            concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
        if subject.tests:
            noticing = copies.Copies(subject, AT_ONCE)
        else:
            ways = sorted({way for mutant in mutants for way in mutant.ways})
            noticing = objects.Objects(pathlib.Path(folder), ways, pool)
        tests = pool.map(lambda mutant: outcome(mutant, noticing), mutants)
        for mutant, test in zip(mutants, tests):
            if test is False:
                continue
            note = test or "-"
            if mutant.harmless:
                note += f" (no effect: {mutant.harmless})"
            counts["noticed" if test else "living"] += 1
            if bool(test) == bool(mutant.harmless):
                counts["wrong"] += 1
                note += "   <-- UNEXPECTED"
            print(f"{mutant.name:<75} {note}", flush=True)
    tell(f"mutants of {subject.name}: {counts['noticed']} noticed, {counts['living']} without effect; "
         f"{counts['wrong']} unexpected")
    return counts["wrong"]


def tell(figure):
    """As `figure` in scripts/lib/command.sh."""
    print(f"\n{figure}\n")
    if "TEVROL_FIGURES" in os.environ:
        with open(os.environ["TEVROL_FIGURES"] + ".step", "a") as step:
            print(figure, file=step)


def main():
    names = sorted(path.stem for path in LISTS.glob("*.txt"))
    given = sys.argv[1:]
    all_but = given[:1] == ["--all-but"]
    named = given[1:] if all_but else given
    unknown = set(named) - set(names)
    if unknown:
        sys.exit(f"no such subject: {', '.join(sorted(unknown))}; there are {', '.join(names)}")
    chosen = [name for name in names if name not in named] if all_but else named or names
    return 1 if sum([run(Subject(name)) for name in chosen]) else 0


if __name__ == "__main__":
    sys.exit(main())
