"""Links lead somewhere, and programs in the pages are the ones that the build compiles.

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

for page, example in [("README.md", "minimal.cpp"), ("docs/guide.md", "threaded.cpp")]:
    shown = blocks(SOURCE / page, "cpp")
    check(shown[:1] == [(SOURCE / "examples" / example).read_text()],
          f"{page} shows examples/{example} as it is")
finish()
