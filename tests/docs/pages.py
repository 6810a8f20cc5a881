"""The pages of the documentation, and the code blocks in them."""

import pathlib
import re
import sys

SOURCE = pathlib.Path(sys.argv[1])
BUILD = pathlib.Path(sys.argv[2])
PAGES = [SOURCE / "README.md", SOURCE / "ARCHITECTURE.md", SOURCE / "CONTRIBUTING.md",
         *sorted((SOURCE / "docs").glob("*.md"))]

failures = []


def check(holds, what):
    if not holds:
        print(f"failed: {what}")
        failures.append(what)


def finish():
    sys.exit(1 if failures else 0)


def blocks(page, language):
    """The text of each block of the language, a newline at its end."""
    return re.findall(rf"^```{language}\n(.*?)^```$", page.read_text(), re.M | re.S)
