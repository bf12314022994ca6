#!/usr/bin/env python3
"""Make the reference from the comments of the public headers.

    reference.py man FOLDER GUIDE HEADER...   man pages: section 3 for each entry, 7 for each header
    reference.py doxygen HEADER|PAGE          with Doxygen's markup (an INPUT_FILTER); a page gets
                                              the anchors that its links name

The headers stay plain prose. What is read from their layout: the comment that opens a header; the
"/* ---- N  Title ----" comments of its sections; an entry, that is a comment and the declarations
under it up to the next empty line. In the prose a line "name  text", with two blanks or more
between, begins an item of a list, and other indented lines are kept as they are.
"""

import os
import re
import sys
import textwrap
import time

TITLE = re.compile(r"^---- (?:(\d+)  )?(.+?) -*$")
ITEM = re.compile(r"^( {0,3})(\S+)( {2,})(\S.*)$")
INDEX_LINE = re.compile(r"^ +\d+  \S")  # the list of sections, which is made anew from their titles


class Entry:
    """A comment and the declarations under it."""

    def __init__(self, prose, code, section):
        self.prose, self.code, self.section = prose, code, section
        text = re.sub(r"/\*.*?\*/", "", "\n".join(code), flags=re.S)
        body = re.sub(r"\{.*\}", "{}", text, flags=re.S)
        self.typedef = body.lstrip().startswith("typedef")
        names = (re.findall(r"\(\*(\w+)\)", body) or re.findall(r"(\w+);", body)) if self.typedef \
            else re.findall(r"(\w+)(?:\[\w+\])?\s*(?:\(|;)", re.sub(r"\([^()]*\)", "()", body))
        self.constants = re.findall(r"\b(TV_\w+)\b", text) if self.kind() in ("enum", "macro") else []
        self.names = [] if self.constants else names

    def kind(self):
        first = self.code[0] if self.code else ""
        return "macro" if first.startswith("#") else "enum" if first.startswith("enum") else "other"

    def summary(self):
        """The first clause of the comment, for the line under NAME."""
        whole = " ".join(self.prose).strip()
        text = re.split(r"[.;:](?= |$)", whole)[0]
        if len(text) < 8: # "Run: wait, fire the timers ..."
            text = re.split(r"[.;](?= |$)", whole)[0]
        if len(text) > 90:
            text = text[:text.rfind(", ", 0, 90)]
        return text[:1].lower() + text[1:] if text[1:2].islower() or text[1:2] == " " else text


class Header:
    """A header as its opening, its sections (number, title, prose) and its entries."""

    def __init__(self, path):
        self.file = os.path.basename(path)
        self.lines = open(path, encoding="utf-8").read().split("\n")
        self.sections, self.entries = [], []
        self.opening = self.summary = None
        position = 0
        while position < len(self.lines):
            position = self.take_block(position)

    def take_block(self, position):
        line = self.lines[position]
        if not line.startswith(("/*", "#define")) or re.match(r"#define \w+_H$", line):
            return position + 1
        end = position
        prose = []
        if line.startswith("/*"):
            while "*/" not in self.lines[end]:
                end += 1
            prose = [re.sub(r"^(/\*| \*/?)? ?| ?\*/$", "", text).rstrip()
                     for text in self.lines[position:end + 1]]
            while prose and not prose[-1]:
                prose.pop()
            end += 1
        title = TITLE.match(prose[0]) if prose else None
        if self.opening is None:
            self.summary = prose[0].split(" - ", 1)[1].rstrip(".")
            self.opening = prose[1:]
        elif title:
            self.sections.append((int(title[1]), title[2], prose[1:]))
        else:
            start, depth = end, 0
            while self.lines[end]:
                end += 1
            self.entries.append(Entry(prose, self.lines[start:end],
                                      self.sections[-1][0] if self.sections else 0))
        return end

    def names(self):
        return [name for entry in self.entries for name in entry.names]


def blocks(prose):
    """Split prose into lists that begin with "text", "item" (a name follows), "head", "kept" (a list
    of lines) or, between paragraphs, "gap". Lines that go on are joined."""
    result, column = [], 0
    for line in prose + [""]:
        item = ITEM.match(line)
        indent = len(line) - len(line.lstrip())
        last = result[-1] if result else None
        if INDEX_LINE.match(line):
            for block in result: # what announced the list ends here
                block[-1] = re.sub(r":$", ".", block[-1])
            continue
        if not line:
            if last and last[0] != "gap":
                result.append(["gap"])
        elif last and last[0] == "item" and indent == column:
            last[2] += " " + line.strip()
        elif item and not line.rstrip().endswith((";", "{")):
            column = item.start(4)
            result.append(["item", item[2], item[4]])
        elif re.match(r"[A-Z]{4,}, ", line):
            result.append(["head", line.split(",")[0].capitalize()])
        elif indent >= 2:
            if last and last[0] == "kept":
                last[1].append(line)
            else:
                result.append(["kept", [line]])
        elif last and last[0] == "text":
            last[1] += " " + line.strip()
        else:
            result.append(["text", line.strip()])
    while result and result[-1][0] == "gap":
        result.pop()
    return result


# ---- man pages

def roff(text):
    text = text.replace("\\", "\\e").replace("`", "\\(ga").replace("^", "\\(ha").replace("~", "\\(ti")
    text = re.sub(r"-(?=\d)|(?<=-)-|-(?=-)", r"\\-", text)
    return "\\&" + text if text.startswith((".", "'")) else text


def filled(text):
    """Lines of at most 78 characters, none of which is taken for a request."""
    return [line if line[0] not in ".'" else "\\&" + line for line in textwrap.wrap(
        text, 78, break_long_words=False, break_on_hyphens=False)]


def roff_code(lines):
    return [".nf"] + [re.sub(r"(?<!\\)-", r"\\-", roff(line)) or ".sp" for line in lines] + [".fi"]


class ManWriter:
    def __init__(self, folder, headers, guide):
        self.folder = folder
        self.headers = headers
        self.programs = re.findall(r"```c\n(// (\w+)\.c.*?)```", guide, flags=re.S)
        self.pages = {name: (entry, header) for header in headers for entry in header.entries
                      for name in entry.names}
        stamp = os.environ.get("SOURCE_DATE_EPOCH")
        self.date = time.strftime("%Y-%m-%d", time.gmtime(int(stamp) if stamp else None))
        version = re.search(r'TV_VERSION +"(.*)"', "\n".join(headers[0].lines))[1]
        self.source = "tolvane " + version

    def mark(self, text, own=(), parameters=()):
        """Text with references to other pages, and with the entry's own names in relief."""
        def replace(match):
            word = match[1]
            if word in own:
                return "\\fB" + word + "\\fP"
            if word in self.pages:
                return "\\fB" + word + "\\fP(3)"
            if word in parameters:
                return "\\fI" + word + "\\fP"
            return match[0]
        return filled(re.sub(r"\b([A-Za-z_]\w+)\b(?:\(\))?", replace, roff(text)))

    def prose(self, lines, own=(), parameters=()):
        out, indented = [], False
        for block in blocks(lines):
            if block[0] == "gap":
                out.append(".PP")
            elif block[0] == "item":
                out += [".TP", "\\fI" + roff(block[1]) + "\\fP"]
                out += self.mark(block[2], own, parameters)
            elif block[0] == "head":
                out.append(".SS " + block[1])
            elif block[0] == "kept":
                out += roff_code(block[1])
            else:
                out += self.mark(block[1], own, parameters)
        out = [line for i, line in enumerate(out)
               if line != ".PP" or (i + 1 < len(out) and not out[i + 1].startswith((".TP", ".SS")))]
        return out

    def write(self, name, section, lines):
        with open(os.path.join(self.folder, "man%d" % section, "%s.%d" % (name, section)), "w",
                  encoding="utf-8") as page:
            page.write("\n".join(lines) + "\n")

    def heading(self, name, section):
        return ['.TH "%s" %d "%s" "%s" "Programmer\'s manual"' %
                (name.upper(), section, self.date, self.source), ".nh", ".ad l"]

    def write_entry(self, entry, header):
        overview = "ruvo_timer" if header.file == "ruvo_timer.h" else "tolvane"
        parameters = set(re.findall(r"(\w+)(?=[,)\[])", "\n".join(entry.code)))
        lines = self.heading(entry.names[0], 3)
        lines += [".SH NAME", *filled("%s \\- %s" % (", ".join(entry.names), roff(entry.summary())))]
        lines += [".SH SYNOPSIS", ".nf", ".B #include <%s>" % header.file, ".PP"]
        for code in entry.code:
            text = re.sub(r"(?<![\w.])(%s)(?=[;()\[ ]|$)" % "|".join(entry.names), r"\\fB\1\\fP",
                          roff(code).replace(" - ", " \\- "))
            lines.append(text or ".sp")
        lines += [".fi", ".SH DESCRIPTION"] + self.prose(entry.prose, entry.names, parameters)
        if entry.section:
            lines += [".PP", "The conventions of \\fB%s\\fP(7) hold: results, time, ownership," % overview,
                      "blocking and closing."]
        mentioned = {word for word in re.findall(r"\w+", " ".join(entry.prose + entry.code))
                     if word in self.pages and word not in entry.names}
        mates = [other for other in header.entries if other.names and other.section == entry.section]
        place = mates.index(entry)
        mentioned |= {other.names[0] for other in mates[max(0, place - 1):place + 2]} - {entry.names[0]}
        lines += [".SH SEE ALSO"]
        lines.append(",\n".join(["\\fB%s\\fP(3)" % name for name in sorted(mentioned)]
                                + ["\\fB%s\\fP(7)" % overview]))
        self.write(entry.names[0], 3, lines)
        for alias in entry.names[1:]:
            self.write(alias, 3, [".so man3/%s.3" % entry.names[0]])

    def contents(self, entries):
        out = []
        for entry in entries:
            if entry.names:
                out += [".TP", ", ".join("\\fB%s\\fP(3)" % name for name in entry.names)]
                out += filled(roff(entry.summary()))
        return out

    def write_overview(self, header):
        name = header.file.split(".")[0]
        libraries = "\\-ltolvane" if name == "tolvane" else "\\-lruvo_timer"
        lines = self.heading(name, 7) + [".SH NAME", *filled("%s \\- %s" % (name, roff(header.summary))),
                                         ".SH SYNOPSIS", ".nf", ".B #include <%s>" % header.file]
        lines += [".PP", ".B cc program.c " + libraries, ".fi", ".SH DESCRIPTION"]
        lines += self.prose(header.opening)
        constants = [entry for entry in header.entries if entry.constants]
        if constants:
            lines += [".SH CONSTANTS"]
        for entry in constants:
            if entry.prose:
                lines += [".PP"] + self.prose(entry.prose) + [".PP"]
            lines += roff_code(entry.code)
        if not header.sections:
            lines += [".SH FUNCTIONS"] + self.contents(header.entries)
        for number, title, prose in header.sections:
            entries = [entry for entry in header.entries if entry.section == number]
            lines += ['.SH "%d  %s"' % (number, title.upper())] + self.prose(prose)
            lines += self.contents(entries)
        if name == "tolvane":
            lines += [".SH EXAMPLES"]
            for program, title in self.programs:
                lines += [".SS " + title.replace("_", " ").capitalize()] + roff_code(program.rstrip().split("\n"))
        others = [other.file.split(".")[0] for other in self.headers if other is not header]
        lines += [".SH SEE ALSO", ",\n".join("\\fB%s\\fP(7)" % other for other in others)]
        self.write(name, 7, lines)

    def run(self):
        for section in (3, 7):
            os.makedirs(os.path.join(self.folder, "man%d" % section), exist_ok=True)
        for header in self.headers:
            self.write_overview(header)
            for entry in header.entries:
                if entry.names:
                    self.write_entry(entry, header)


# ---- Doxygen

def doxygen_text(text, known):
    text = re.sub(r"([\\@<>#%\"*~`|])", r"\\\1", text)
    text = text.replace("\\*", "&#42;").replace("\\|", "&#124;").replace("\\`", "&#96;")
    text = text.replace("\\~", "&#126;").replace("->", "-\\>")
    return re.sub(r"\b(?:%s)\b(?:\(\))?" % "|".join(sorted(known, key=len, reverse=True)),
                  lambda m: "@ref " + m[0].rstrip("()") + " \"" + m[0] + "\"", text)


def doxygen_prose(lines, known, parameters=()):
    out = []
    for block in blocks(lines):
        if block[0] == "gap":
            out.append("")
        elif block[0] == "item" and block[1] in parameters:
            out.append("@param %s %s" % (block[1], doxygen_text(block[2], known)))
        elif block[0] == "item":
            out.append("- <b>%s</b> %s" % (block[1], doxygen_text(block[2], known)))
        elif block[0] == "head":
            out += ["<b>%s</b>" % block[1]]
        elif block[0] == "kept":
            out += ["@code{.c}"] + block[1] + ["@endcode"]
        else:
            out.append(doxygen_text(block[1], known))
    return out


def doxygen(header):
    known = set(header.names()) | {name for entry in header.entries for name in entry.constants}
    summary = header.summary[0].upper() + header.summary[1:]
    out = ["/** @file", "@brief " + summary + ".", ""] + doxygen_prose(header.opening, known) + ["*/"]
    out += [line for line in header.lines if line.startswith("#include")]
    section = 0
    for entry in header.entries:
        if entry.section != section:
            if section:
                out.append("/** @} */")
            section, title, prose = header.sections[entry.section - 1]
            out += ["/** @defgroup section%02d %d  %s" % (section, section, title)]
            out += doxygen_prose(prose, known) + ["@{ */"]
        out += doxygen_entry(entry, known)
    if section:
        out.append("/** @} */")
    return out


def doxygen_entry(entry, known):
    """Every declaration gets the comment of its entry; a comment behind a field stays its field's."""
    out = []
    code = "\n".join(entry.code)
    pieces = [code] if "{" in code or not entry.names else re.findall(r"[^;]+;", code)
    for piece in pieces:
        if entry.constants and entry.kind() == "macro":
            piece = re.sub(r"/\* ", "/**< ", piece)
            out += doxygen_macros(piece, entry, known)
            continue
        parameters = set(re.findall(r"(\w+)(?=[,)\[])", piece))
        prose = doxygen_prose(entry.prose, known - set(entry.names), parameters)
        out += ["/**"] + prose + ["*/"] if prose else []
        out.append(re.sub(r"/\* (.*?) ?\*/", lambda m: "/**< " + re.sub(
            r"([@<>#%\"])", r"\\\1", m[1]) + " */", piece.strip("\n"), flags=re.S))
    return out


def doxygen_macros(piece, entry, known):
    text = doxygen_prose(entry.prose, known)
    return (["/** @name " + " ".join(text), "@{ */"] if text else []) + piece.split("\n") + \
        (["/** @} */"] if text else [])


def anchored(path):
    """A page whose headings have their anchors, unique among all pages, and whose links use them."""
    page = os.path.basename(path).split(".")[0]
    text, code = [], False
    for line in open(path, encoding="utf-8").read().split("\n"):
        code ^= line.startswith("```")
        if not code and line.startswith("##"):
            name = re.sub(r"[^a-z0-9 -]", "", line.lstrip("# ").lower()).replace(" ", "-")
            line += " {#%s-%s}" % (page, name)
        line = re.sub(r"\[([^]]+)\]\(\.\./.*?\)", r"\1", line)  # that file is not among the pages
        line = re.sub(r"\]\(#", "](#%s-" % page, line)
        text.append(re.sub(r"\]\((\w+)\.md#", r"](#\1-", line))
    return "\n".join(text)


if __name__ == "__main__":
    if len(sys.argv) == 3 and sys.argv[2].endswith(".md"):
        print(anchored(sys.argv[2]))
    elif len(sys.argv) == 3 and sys.argv[1] == "doxygen":
        print("\n".join(doxygen(Header(sys.argv[2]))))
    elif len(sys.argv) > 4 and sys.argv[1] == "man":
        with open(sys.argv[3], encoding="utf-8") as guide:
            ManWriter(sys.argv[2], [Header(path) for path in sys.argv[4:]], guide.read()).run()
    else:
        sys.exit(__doc__)
