"""Reads gcovr's JSON report and fails on each line and branch that was not taken and is not listed.
"""
import json
import pathlib
import sys

# Branches that nothing reaches but a failed allocation or, where it says so, the compiler's own
# code: the file and the text of the line, how many there are, and why.
UNREACHABLE = {
    ("src/ipc/tevrol-dbus-remote.cpp", "if (m_introspection_data != nullptr) {"):
        (1, "the text of the interface is a constant and always parses"),
    ("src/platform/dlog-syslog.cpp", "static std::mutex& identifier_and_line = *new std::mutex;"):
        (3, "a failed allocation, and two threads at once in the compiler's guard of the variable"),
}


def main():
    missed = 0
    for file in json.load(sys.stdin)["files"]:
        source = pathlib.Path(file["file"]).read_text().splitlines()
        for line in file["lines"]:
            if line["gcovr/noncode"]:
                continue
            text = source[line["line_number"] - 1].strip()
            untaken = sum(1 for branch in line["branches"] if branch["count"] == 0)
            if line["count"] != 0 and untaken == 0:
                continue
            what = "line not run" if line["count"] == 0 else f"{untaken} branch(es) not taken"
            excused, why = UNREACHABLE.get((file["file"], text), (0, None))
            expected = line["count"] != 0 and untaken <= excused
            print(f"{file['file']}:{line['line_number']}: {what}: {text}"
                  + (f" ({why})" if expected else "   <-- UNEXPECTED"))
            missed += not expected
    print("nothing is missed but what is listed" if missed == 0 else f"{missed} places missed")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
