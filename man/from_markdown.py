#!/usr/bin/env python3
"""Makes the manual's page of a format out of its page in docs/, so that there is one text to keep true.

    man/from_markdown.py PAGE DESCRIPTION DATE SOURCE.md [SECTION...] > PAGE.5

With sections, only those of the source that begin with these words are taken, and the page's first words are left out.
Takes what our pages are written in: headings, paragraphs, lists, tables, fenced and indented blocks, `code`, **strong**
and [links](...). A table becomes a list tagged by its first column: tables of sentences do not fit a terminal.
"""

import re
import sys

# What a reader of a page may want beside it. The tool and the daemon are on every page.
RELATED = {
    "quorvix-channel": ["libquorvix 3", "quorvix-hang-report 5", "quorvix-messages 5"],
    "quorvix-counters": ["quorvix-hang-report 5", "quorvix-power-log 5"],
    "quorvix-hang-report": ["quorvix-channel 5", "quorvix-counters 5", "quorvix-preferences 5"],
    "quorvix-memory-snapshot": ["quorvix-preferences 5"],
    "quorvix-messages": ["libquorvix 3", "quorvix-channel 5", "quorvix-power-log 5"],
    "quorvix-power-log": ["quorvix-counters 5", "quorvix-messages 5", "quorvix-preferences 5"],
    "quorvix-preferences": ["quorvix-hang-report 5", "quorvix-memory-snapshot 5", "quorvix-power-log 5"],
}
INLINE = re.compile(r"`([^`]+)`|\*\*([^*]+)\*\*|\[([^\]]+)\]\([^)]*\)")


def plain(text):
    """Text for the middle of a line."""
    return text.replace("\\", "\\e").replace("-", "\\-").replace("'", "\\(aq").replace("`", "\\(ga")


def inline(text):
    out, at = "", 0
    for match in INLINE.finditer(text):
        out += plain(text[at:match.start()])
        code, strong, link = match.groups()
        if link is not None:
            out += inline(link)
        else:
            out += "\\fB" + plain(code if code is not None else strong) + "\\fR"
        at = match.end()
    out += plain(text[at:])
    # A full stop at the beginning of a line would be a command.
    return "\\&" + out if out.startswith((".", "\\(aq")) else out


def sentences(text):
    """One a line, as roff wants them for the blanks between two."""
    return [inline(sentence) for sentence in re.split(r"(?<=[.!?])\s+", text.strip()) if sentence]


def cells(line):
    parts = re.split(r"(?<!\\)\|", line.strip().strip("|"))
    return [part.strip().replace("\\|", "|") for part in parts]


class Page:
    def __init__(self, lines, chosen):
        self.lines = lines
        self.chosen = chosen
        self.taking = not chosen
        self.at = 0
        self.out = []

    def emit(self, *lines):
        if self.taking:
            self.out += lines

    def next(self):
        line = self.lines[self.at]
        self.at += 1
        return line

    def peek(self):
        return self.lines[self.at] if self.at < len(self.lines) else None

    def take_while(self, condition):
        taken = []
        while self.peek() is not None and condition(self.peek()):
            taken.append(self.next())
        return taken

    def make(self):
        while self.peek() is not None:
            line = self.peek()
            if not line.strip():
                self.next()
            elif line.startswith("#"):
                self.heading(self.next())
            elif line.startswith("```"):
                self.next()
                self.block(self.take_while(lambda text: not text.startswith("```")))
                self.next()
            elif line.startswith("    "):
                block = self.take_while(lambda text: text.startswith("    ") or not text.strip())
                while block and not block[-1].strip():
                    block.pop()
                self.block([text[4:] for text in block])
            elif line.startswith("|"):
                self.table(self.take_while(lambda text: text.startswith("|")))
            elif re.match(r"(- |\d+\. )", line):
                self.list()
            else:
                words = self.take_while(lambda text: text.strip() and not re.match(r"(#|```|\||- )", text))
                if not self.out or not self.out[-1].startswith((".Sh", ".Ss")):
                    self.emit(".Pp")
                self.emit(*sentences(" ".join(text.strip() for text in words)))
        return self.out

    def heading(self, line):
        depth = len(line) - len(line.lstrip("#"))
        text = line.lstrip("#").strip()
        shown = re.sub(r"^\d+\. ", "", text)
        if depth == 1:
            return
        if depth == 2 and self.chosen:
            self.taking = any(text.startswith(words) for words in self.chosen)
        if depth == 2:
            self.emit(".Sh " + plain(shown.replace("`", "").upper()))
        else:
            self.emit(".Ss " + inline(shown))

    def block(self, lines):
        self.emit(".Bd -literal -offset indent")
        self.emit(*["\\&" + plain(line) if line else "" for line in lines])
        self.emit(".Ed")

    def table(self, lines):
        header = cells(lines[0])
        self.emit(".Bl -tag -width indent")
        for line in lines[2:]:
            first, *rest = cells(line)
            self.emit(".It " + inline(first) if first else ".It \\(em")
            named = len([cell for cell in rest if cell]) > 1
            texts = [(title + ": " if named and title else "") + cell for title, cell in zip(header[1:], rest) if cell]
            self.emit(*(sentences("; ".join(texts)) or ["\\(en"]))
        self.emit(".El")

    def list(self):
        marker = re.compile(r"(- |\d+\. )")
        self.emit(".Bl -" + ("bullet" if self.peek().startswith("- ") else "enum"))
        while self.peek() is not None and marker.match(self.peek()):
            item = [marker.sub("", self.next(), count=1)]
            item += self.take_while(lambda text: text.startswith("  ") and text.strip())
            self.emit(".It", *sentences(" ".join(text.strip() for text in item)))
        self.emit(".El")


def main():
    name, description, date, source, *chosen = sys.argv[1:]
    with open(source, encoding="utf-8") as file:
        lines = file.read().splitlines()
    print(f'.\\" Made from {source.rsplit("/", 1)[-1]} by man/from_markdown.py.')
    print(f".Dd {date}\n.Dt {name.upper()} 5\n.Os quorvixd\n.Sh NAME\n.Nm {name}\n.Nd {description}\n.Sh DESCRIPTION")
    body = Page(lines, chosen).make()
    if body and body[0].startswith(".Sh"):
        print(description[0].upper() + description[1:] + ".")
    elif body and body[0] == ".Pp":
        body = body[1:]
    print("\n".join(body))
    others = ["quorvixctl 1", *RELATED[name], "quorvixd 8"]
    print(".Sh SEE ALSO\n" + " ,\n".join(".Xr " + plain(other) for other in others))


if __name__ == "__main__":
    main()
