"""The commands in the pages work: each sh block is run in a copy of the source, or stands below with
the reason why not. A block that is neither fails the test, so that no new one goes unnoticed. Calls of
ctest within the text select tests.

Usage: commands.py SOURCE_FOLDER BUILD_FOLDER
"""

import os
import re
import shutil
import subprocess
import tempfile

from pages import BUILD, PAGES, SOURCE, blocks, check, finish

# A line of each block that is not run here, and why.
ELSEWHERE = {
    "./scripts/demo.sh ": "CI runs both scripts first",
    "ctest --preset asan": "takes minutes; scripts/check.sh and scripts/check-long.sh do the same",
    "./scripts/bench.sh ": "takes minutes; the benchmarks are built and run by that script alone",
    "dpkg-buildpackage": "takes minutes; scripts/clean-root.sh packages does the same",
    "ctest --preset dev -L unit": "this test is part of such a run",
}

# In the order in which they need each other: a line of the block, what to replace in it, and what
# its output has to contain.
RUN = [
    ("--prefix /usr/local", {"/usr/local": "\"$PREFIX\""}, "Installing"),
    ("DTEVROL_BULK_PAYLOADS=ON", {"-B build/install": "-B build/bulk"}, "converted in one copy"),
    ("g++ -std=c++17 application.cpp", {}, ""),
    # Beside the application above, which others below run.
    ("src/ipc/*.cpp", {"-o application": "-o from-source && test -x from-source"}, ""),
    ("g++ -std=c++17 threaded.cpp", {}, ""),
    ("./threaded & application", {}, "reply: report 2"),
    ("build/demo/examples/minimal",
     {"cmake --preset demo && cmake --build --preset demo": ":", "build/demo/": "$BUILD/"},
     'reply: 8 bytes "desserts"'),
    ("build/demo/examples/product-client", {"build/demo/": "$BUILD/"}, "now 21"),
    ("tevrolctl check demo",
     {"tevrolctl check": "tevrolctl check --wait 0 --private-bus", "demo\n": "demo || [ $? = 4 ]\n"},
     "demo"),
    ("cmake --install build/install --component", {}, "org.ulmar.Tevrol.conf"),
    ("systemd-analyze security", {}, "Overall exposure level"),
    ("dbus-send --system", {"dbus-send": "tevrol-private-bus dbus-send"}, "method return"),
    ("git archive", {"git archive": "git --git-dir=\"$GIT\" archive"}, ""),
]

CMAKE_LISTS = """cmake_minimum_required(VERSION 3.22)
project(application LANGUAGES CXX)
add_executable(application application.cpp)
"""


def sh(command, folder, variables):
    result = subprocess.run(["sh", "-eu", "-c", command], cwd=folder, env={**os.environ, **variables},
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    check(result.returncode == 0, f"{command}\nends with {result.returncode}:\n{result.stdout}")
    return result.stdout


def git_folder():
    if not shutil.which("git"):
        return None
    result = subprocess.run(["git", "-C", SOURCE, "rev-parse", "--absolute-git-dir"],
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    return result.stdout.strip() or None


def take(shown, part):
    """The one block that contains `part`, taken from those that are left."""
    found = [block for block in shown if part in block]
    check(len(found) == 1, f"one block with: {part}")
    for block in found:
        shown.remove(block)
    return found[0] if found else ""


shown = [block for page in PAGES for block in blocks(page, "sh")]
for part in ELSEWHERE:
    take(shown, part)

with tempfile.TemporaryDirectory() as folder:
    copy = os.path.join(folder, "source")
    shutil.copytree(SOURCE, copy, ignore=shutil.ignore_patterns("build", ".git"))
    prefix = os.path.join(folder, "prefix")
    for example, name in [("minimal", "application"), ("threaded", "threaded")]:
        shutil.copy(SOURCE / f"examples/{example}.cpp", os.path.join(copy, f"{name}.cpp"))
    libraries = [os.path.join(prefix, path) for path in ("lib", f"lib/{os.uname().machine}-linux-gnu")]
    git = git_folder()
    variables = {
        "PREFIX": prefix, "BUILD": str(BUILD), "GIT": git or "",
        "PATH": f"{BUILD}/programs:{os.environ['PATH']}",
        "PKG_CONFIG_PATH": ":".join(f"{library}/pkgconfig" for library in libraries),
    }
    for part, changes, expected in RUN:
        command = take(shown, part)
        program = part.split()[0]
        if program in ("systemd-analyze", "dbus-send", "git") and (
                not shutil.which(program) or program == "git" and not git):
            print(f"not run, needs {program}: {part}")
            continue
        for old, new in changes.items():
            check(old in command, f"{old} in: {command}")
            command = command.replace(old, new)
        output = sh(command, copy, variables)
        check(expected in output, f"{expected} in the output of: {command}\n{output}")

    # The CMake lines, in a project that has nothing else.
    project = os.path.join(folder, "project")
    os.mkdir(project)
    shutil.copy(SOURCE / "examples/minimal.cpp", os.path.join(project, "application.cpp"))
    lines = [block for page in PAGES for block in blocks(page, "cmake")]
    check(len(lines) == 1, "one block of CMake")
    with open(os.path.join(project, "CMakeLists.txt"), "w", encoding="utf-8") as file:
        file.write(CMAKE_LISTS + lines[0])
    sh('cmake -S . -B build -DCMAKE_PREFIX_PATH="$PREFIX" && cmake --build build', project, variables)

for page in PAGES:
    for selection in re.findall(r"`ctest --preset dev ([^`]+)`", page.read_text()):
        listed = sh(f"ctest -N {selection}".replace("\\|", "|"), BUILD, {})
        check("Total Tests: 0" not in listed, f"{page.name} selects tests by {selection}")

check(not shown, "blocks that are neither run nor named here:\n" + "\n".join(shown))
finish()
