"""The way for everything but the channel: copies of the project below build/mutants, each built by
itself. A mutant is put into a copy, the subject's targets are built there, and its tests are run.
"""
import pathlib
import queue
import re
import shutil
import subprocess

from objects import DoesNotCompile

SECONDS_PER_RUN = 300


class Copy:
    def __init__(self, folder, subject):
        self.folder = folder
        self.build = folder / "build/dev"
        self.subject = subject
        self.bring_up_to_date()
        self.call("cmake", "--preset", "dev", "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O0")
        self.make_targets()

    def bring_up_to_date(self):
        listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others",
                                 "--exclude-standard"], check=True, capture_output=True, text=True)
        for name in filter(None, listed.stdout.split("\0")):
            source, target = pathlib.Path(name), self.folder / name
            if not source.is_file():
                continue
            if target.is_file() and target.read_bytes() == source.read_bytes():
                continue
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(source, target)

    def call(self, *command):
        made = subprocess.run(command, cwd=self.folder, capture_output=True, text=True)
        if made.returncode != 0:
            raise DoesNotCompile(made.stdout + made.stderr)

    def make_targets(self):
        if self.subject.targets:
            self.call("cmake", "--build", str(self.build), "--target", *self.subject.targets)

    def noticed_by(self, mutant):
        """The test that notices the mutant, or None."""
        place = self.folder / mutant.file
        original = place.read_text()
        place.write_text(mutant.text)
        try:
            self.make_targets()
            return self.failing_test()
        finally:
            place.write_text(original)

    def failing_test(self):
        """The first of the subject's tests that fails as things are, or None."""
        try:
            run = subprocess.run(["ctest", "--test-dir", str(self.build), "-R", self.subject.tests,
                                  "--stop-on-failure", "--no-tests=error", "--timeout", "60",
                                  "--parallel", "4"],
                                 capture_output=True, errors="replace", text=True,
                                 timeout=SECONDS_PER_RUN)
        except subprocess.TimeoutExpired:
            return "(hang)"
        if run.returncode == 0:
            return None
        failed = re.search(r"Test +#\d+: (\S+) \.*\*{3}", run.stdout)
        return failed[1] if failed else f"(no test: {run.stdout.strip().splitlines()[-1:]})"


class Copies:
    """Notices mutants in as many copies as run at once."""

    def __init__(self, subject, at_once):
        self.free = queue.SimpleQueue()
        for number in range(at_once):
            copy = Copy(pathlib.Path(f"build/mutants/{number}").absolute(), subject)
            failing = copy.failing_test()
            if failing:
                raise SystemExit(f"{subject.name}: {failing} fails without a mutant")
            self.free.put(copy)

    def noticed_by(self, mutant):
        copy = self.free.get()
        try:
            return copy.noticed_by(mutant)
        finally:
            self.free.put(copy)
