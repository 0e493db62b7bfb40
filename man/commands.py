#!/usr/bin/env python3
"""Puts the tool's commands and options into its manual page, as the tool itself gives them.

    quorvixctl completions --json | man/commands.py PAGE.in > PAGE

The line "@COMMANDS@" of the page becomes a list of them all.
"""

import json
import sys

from from_markdown import plain


def sentence(text):
    """The help as it is: where it begins with a small letter, it begins with a value, to be typed so."""
    text = plain(text)
    return text if text.endswith(".") else text + "."


def usage(path, command):
    """The line with which a command is called; its own options follow below it."""
    words = " ".join(f"Cm {plain(word)}" for word in path)
    operands = "".join(f" Ar {plain(operand)}" for operand in command["operands"])
    return f".It {words}{operands}" if words else ""


def leaves(command, path=()):
    """Every command that does something, with the words that lead to it."""
    if not command["commands"] or command["operands"]:
        yield path, command
    for inner in command["commands"]:
        yield from leaves(inner, (*path, inner["name"]))


def section(tool):
    lines = []
    for verb in tool["commands"]:
        lines += [f".Ss {plain(verb['name'])}", sentence(verb["help"]), ".Bl -tag -width indent"]
        for path, command in leaves(verb, (verb["name"],)):
            lines += [usage(path, command), sentence(command["help"]), ".Bl -tag -width indent -compact"]
            for option in command["options"]:
                if "--help" in option["names"]:
                    continue
                names = " , ".join("Fl " + plain(name[1:]) for name in option["names"])
                lines.append(f".It {names}" + (" Ar value" if option["takesValue"] else ""))
                lines.append(sentence(option["help"]))
            if lines[-1].startswith(".Bl"):
                lines.pop()
            else:
                lines.append(".El")
        lines.append(".El")
    return lines


def main():
    tool = json.load(sys.stdin)
    with open(sys.argv[1], encoding="utf-8") as file:
        for line in file.read().splitlines():
            print("\n".join(section(tool)) if line == "@COMMANDS@" else line)


if __name__ == "__main__":
    main()
