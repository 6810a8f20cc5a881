"""The quick way for the channel: compiles only the objects that a mutant is in, links them with the
other objects of the build in build/dev, and runs the program.
"""
import dataclasses
import pathlib
import re
import shlex
import subprocess
import tempfile

BUILD = pathlib.Path("build/dev").absolute()
ROOT = pathlib.Path.cwd()
SECONDS_PER_RUN = 30
# clang++ and gold take half the time of what the build uses.
COMPILER = "clang++"
QUICKLY = ["-std=gnu++17", "-O0", "-g0", "-w"]

CONFORMANCE = "tests/conformance/CMakeFiles/conformance-tests.dir/"
CONFORMANCE_CHANNEL = "tests/conformance/CMakeFiles/conformance-channel.dir/__/__/src/"
UNIT = "tests/remote/CMakeFiles/unit-tests.dir/"
OPENED_CHANNEL = "tests/CMakeFiles/opened-channel.dir/"


class DoesNotCompile(Exception):
    pass


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
                  left_out=r".*/((recordings|fail-every-call|wrapped-calls)-test|failure-checks|failure-plan|scenarios)\.cpp\.o"),
    "lock by itself": Way("unit-tests", "tests/remote/unit-tests",
                          (OPENED_CHANNEL + "__/src/common/PTMutex.cpp.o",
                           UNIT + "lock-test.cpp.o"),
                          tests="Lock.*"),
    "bulk conversion": Way("unit-tests", "tests/remote/unit-tests",
                           ("tests/CMakeFiles/conversion-Bulk.dir/support/conversion.cpp.o",),
                           tests="ConversionTest.*"),
}


def build_commands(way):
    """How the build links the way's program and compiles its objects."""
    lines = subprocess.run(["ninja", "-C", str(BUILD), "-t", "commands", way.target],
                           check=True, capture_output=True, text=True).stdout.splitlines()
    def making(output):
        return next(line for line in lines if f" -o {output} " in line)
    linking = making(way.program).removeprefix(": && ").split(" && ")[0]
    linking = [word for word in shlex.split(linking) if not re.fullmatch(way.left_out, word)]
    linking += ["-fuse-ld=gold", "-s"]
    return linking, {made: by_quick_compiler(shlex.split(making(made))) for made in way.compiled}


def by_quick_compiler(command):
    """Without the build's compiler, nor a compiler cache in front of it."""
    first = next(at for at, word in enumerate(command) if word.startswith("-"))
    return [COMPILER, *command[first:]]


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
    while "-include" in compiling:  # what the build has prepared is for its compiler
        at = compiling.index("-include")
        compiling = compiling[:at] + compiling[at + 2:]
    compiling = [word for word in compiling if word != "-Winvalid-pch"]
    preparing = replaced(compiling, {str(source): str(header), made: f"{header}.pch",
                                     made + ".d": f"{header}.d"})
    preparing[preparing.index("-c")] = "-xc++-header"
    subprocess.run(preparing + QUICKLY + ["-fpch-instantiate-templates"], cwd=BUILD, check=True)
    return compiling + QUICKLY + ["-include-pch", f"{header}.pch"]


def first_failure(output):
    failed = re.search(r"^\[  FAILED  \] (\S+?),? ", output, re.MULTILINE)
    if failed:
        return failed[1]
    running = re.findall(r"^\[ RUN      \] (\S+)", output, re.MULTILINE)
    return f"{running[-1]} (crash)" if running else "(crash)"


class Objects:
    """Notices mutants by the ways' programs."""

    def __init__(self, folder, ways, pool):
        targets = sorted({WAYS[name].target for name in ways})
        subprocess.run(["cmake", "--preset", "dev"], check=True, stdout=subprocess.DEVNULL)
        subprocess.run(["cmake", "--build", str(BUILD), "--target", *targets], check=True)
        commands = {name: build_commands(WAYS[name]) for name in ways}
        # Ways that compile the same object share its preparation.
        compiling = {made: command for _, of_way in commands.values()
                     for made, command in of_way.items()}
        prepared = dict(zip(compiling, pool.map(
            lambda made: with_prepared_headers(compiling[made], folder, made), compiling)))
        self.commands = {name: (linking, {made: prepared[made] for made in of_way})
                         for name, (linking, of_way) in commands.items()}

    def noticed_by(self, mutant):
        """The test that notices the mutant, or None: by the first way that does."""
        for way in mutant.ways:
            test = self.noticed_by_way(mutant, way)
            if test:
                return test
        return None

    def noticed_by_way(self, mutant, way):
        linking, compiling = self.commands[way]
        with tempfile.TemporaryDirectory() as name:
            folder = pathlib.Path(name)
            program = str(folder / "mutant")
            objects = self.compile(mutant, compiling, folder)
            subprocess.run(replaced(linking, {**objects, WAYS[way].program: program}), cwd=BUILD,
                           check=True)
            try:
                run = subprocess.run([program, "--gtest_fail_fast",
                                      f"--gtest_filter={WAYS[way].tests}"], cwd=folder,
                                     errors="replace", capture_output=True, text=True,
                                     timeout=SECONDS_PER_RUN)
            except subprocess.TimeoutExpired:
                return "(hang)"
            return None if run.returncode == 0 else first_failure(run.stdout)

    @staticmethod
    def compile(mutant, compiling, folder):
        """The objects that the mutant is compiled in, by those that they replace."""
        mutated = folder / pathlib.Path(mutant.file).relative_to("src")
        mutated.parent.mkdir()
        mutated.write_text(mutant.text)
        objects = {}
        for made, command in compiling.items():
            objects[made] = str(folder / f"{len(objects)}.o")
            changed = replaced(command, {str(ROOT / mutant.file): str(mutated), made: objects[made],
                                         made + ".d": objects[made] + ".d"})
            # In front, so that the mutant is what others include.
            compiled = subprocess.run(changed[:1] + [f"-I{folder}"] + changed[1:], cwd=BUILD,
                                      capture_output=True, text=True)
            if compiled.returncode != 0:
                raise DoesNotCompile(compiled.stderr)
        return objects
