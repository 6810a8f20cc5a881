"""Reads gcovr's JSON report and fails on each line and branch that was not taken and that the list of
exceptions, its argument, does not name. With --lines, branches do not count.
"""
import json
import pathlib
import sys


def read_exceptions(path):
    """By file and text of a line: how many of its branches need not be taken, and why."""
    lines = [line.strip() for line in path.read_text().splitlines()
             if line.strip() and not line.startswith("#")]
    exceptions = {}
    for place, text, reason in zip(lines[::3], lines[1::3], lines[2::3], strict=True):
        count, file = place.split(" ", 1)
        exceptions[file, text] = (int(count), reason)
    return exceptions


def main():
    exceptions = read_exceptions(pathlib.Path(sys.argv[1]))
    lines_only = "--lines" in sys.argv[2:]
    missed = 0
    for file in json.load(sys.stdin)["files"]:
        source = pathlib.Path(file["file"]).read_text().splitlines()
        for line in file["lines"]:
            if line["gcovr/noncode"]:
                continue
            text = source[line["line_number"] - 1].strip()
            untaken = 0 if lines_only else sum(1 for b in line["branches"] if b["count"] == 0)
            if line["count"] != 0 and untaken == 0:
                continue
            what = "line not run" if line["count"] == 0 else f"{untaken} branch(es) not taken"
            excused, reason = exceptions.get((file["file"], text), (0, None))
            expected = reason and (lines_only or line["count"] != 0 and untaken <= excused)
            print(f"{file['file']}:{line['line_number']}: {what}: {text}"
                  + (f" ({reason})" if expected else "   <-- UNEXPECTED"))
            missed += not expected
    print("nothing is missed but what is listed" if missed == 0 else f"{missed} places missed")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
