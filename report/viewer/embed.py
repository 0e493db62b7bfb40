#!/usr/bin/env python3
"""Makes the viewer's page into C++ text: page.html with the styles and the script in their places.

    embed.py page.html page.css page.js > Template.cpp

The page's policy names both by their hashes, so that nothing else counts as the page's own, whatever else gets into it.
"""

import base64
import hashlib
import sys

DELIMITER = "quorvix"


def hash_of(text):
    return "sha256-" + base64.b64encode(hashlib.sha256(text.encode()).digest()).decode()


def filled(page, style, script):
    """The page up to the data, and after it."""
    for ending, text in (("</style", style), ("</script", script)):
        if ending in text.lower():
            raise SystemExit(f"embed.py: {ending} would end the element that it is put into")
    for place, text in (("@STYLE_HASH@", hash_of(style)), ("@SCRIPT_HASH@", hash_of(script)), ("@STYLE@", style),
                        ("@SCRIPT@", script)):
        if page.count(place) != 1:
            raise SystemExit(f"embed.py: the page has {place} {page.count(place)} times, not once")
        page = page.replace(place, text)
    before, found, after = page.partition("@DATA@")
    if not found or "@DATA@" in after:
        raise SystemExit("embed.py: the page has @DATA@ not once")
    return before, after


def literal(text):
    if f"){DELIMITER}\"" in text:
        raise SystemExit("embed.py: the page holds the end of a C++ literal")
    return f'R"{DELIMITER}({text}){DELIMITER}"'


def main():
    page, style, script = (open(name, encoding="utf-8").read() for name in sys.argv[1:4])
    before, after = filled(page, style, script)
    print(f"""// Made by embed.py.
#include "report/viewer/Page.h"

namespace quorvix::report {{

const std::string_view kPageBeforeData = {literal(before)};
const std::string_view kPageAfterData = {literal(after)};

}}  // namespace quorvix::report""")


if __name__ == "__main__":
    main()
