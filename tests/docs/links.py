"""Links lead somewhere, scripts and tests that a page names exist, and programs in the pages are the ones
that the build compiles.

Usage: links.py SOURCE_FOLDER BUILD_FOLDER
"""

import re

from pages import PAGES, SOURCE, blocks, check, finish


def without_code(page):
    return re.sub(r"^```.*?^```$", "", page.read_text(), flags=re.M | re.S)


def anchors(page):
    """As the usual renderers make them of headings."""
    headings = re.findall(r"^#+ (.*)$", without_code(page), re.M)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


for page in PAGES:
    for link in re.findall(r"\]\(([^)\s]+)\)", without_code(page)):
        if re.match(r"\w+:", link):
            continue
        path, _, anchor = link.partition("#")
        target = page.parent / path if path else page
        check(target.exists(), f"{page.name} links {link}")
        if anchor and target.exists():
            check(anchor in anchors(target), f"{page.name} links {link}: no such heading")

for page in PAGES:
    for script in re.findall(r"\bscripts/[\w.-]*\w", page.read_text()):
        check((SOURCE / script).exists(), f"{page.name} names {script}")

# Tests stand in brackets, by a part of their name.
tests = [".".join(names) for source in (SOURCE / "tests").rglob("*.cpp")
         for names in re.findall(r"^TEST\w*\(\s*(\w+),\s*(\w+)\)", source.read_text(), re.M)]
for page in PAGES:
    for brackets in re.findall(r"\[(`[^\]]*)\](?!\()", without_code(page)):
        for name in re.findall(r"`([\w.]+)", brackets):
            check(any(name in test for test in tests), f"{page.name} names a test: {name}")

for page, example in [("README.md", "minimal.cpp"), ("docs/guide.md", "threaded.cpp")]:
    shown = blocks(SOURCE / page, "cpp")
    check(shown[:1] == [(SOURCE / "examples" / example).read_text()],
          f"{page} shows examples/{example} as it is")
finish()
