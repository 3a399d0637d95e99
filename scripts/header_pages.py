"""Section 3 of the manual, from the comments of the public headers.

A page is about the functions that stand together in a header, without a blank line between them;
those below a comment that begins "The same" belong to the page above. What a header says at its
top holds for each of its functions, and a comment that stands alone for those below it, up to the
next heading. The codes that a comment names behind "Returns" are explained on the page.
"""

import re
import textwrap
from dataclasses import dataclass, field

import roff
from doc_comments import body_of, declared_in

HEADING = re.compile(r"^-{4} .* -{4}$")
COMMENT = re.compile(r"^/\*.*?\*/[ ]*$", re.DOTALL | re.MULTILINE)
NO_DECLARATION = re.compile(r"#(if|ifdef|ifndef|endif|include|define LIBPKI_|define BOARD_)"
                            r"|PKI_(BEGIN|END)_DECLS")
FOR_EACH_LANGUAGE = re.compile(r"#ifdef __cplusplus\n#define MARSHAL_")
RETURNS = re.compile(r"(?:^|(?<=[.] ))Returns? ", re.MULTILINE)
NUMBERS = r"\d+(?: to \d+)?"
# What a clause about codes begins with: "2", "36 to 41", "45, 47, 48", "0, or 16".
CODES = re.compile(rf"(?:Returns? |and |also )*({NUMBERS}(?:(?:, or|,| or| and) {NUMBERS})*)\b")
CONSTANT = re.compile(r"\b[A-Z]+_[A-Z0-9_]+\b")


@dataclass
class Entry:
    """A comment (or "") and the code below it."""
    comment: str
    code: str

    def names(self):
        return declared_in(self.code)


@dataclass
class Group:
    """Functions that share a page."""
    header: "Header"
    intro: list
    entries: list

    def names(self):
        return [name for entry in self.entries for name in entry.names()]

    def code(self):
        return "\n".join(entry.code for entry in self.entries)

    def told(self):
        """All that the comments say about them."""
        return "\n\n".join([*self.intro, *(entry.comment for entry in self.entries)])

    def title(self):
        """One line about them."""
        text = self.entries[0].comment
        return headline(text) if text else self.header.title


@dataclass
class Header:
    include: str
    title: str
    about: str
    types: list = field(default_factory=list)
    groups: list = field(default_factory=list)

    @property
    def page_name(self):
        return "libpki_" + re.sub(r".*/|\.h$", "", self.include)


def headline(text):
    """The first sentence, cut short where it goes on for too long."""
    first = " ".join(text.split("\n\n")[0].split())
    first = re.split(r"(?<=[.;?])\s", first)[0].rstrip(".;:").replace("`", "")
    while len(first) > 90 and re.search(r"[,(:] ?[^,(:]*$", first):
        first = re.sub(r"\s*[,(:] ?[^,(:]*$", "", first)
    if first.count("(") > first.count(")"):
        first = first.rpartition("(")[0].rstrip()
    return first


def sentence(title):
    return title[:1].upper() + title[1:] + "."


def without_guards(text):
    """A type as a reader sees it, without what only compilers want."""
    # What follows __extension__ is written as its continuation, one step deeper.
    text = re.sub(r"^#if defined\(__GNUC__\)\n( *)__extension__\n#endif\n *", r"\1", text,
                  flags=re.MULTILINE)
    text = re.sub(r"^#if defined\(__GNUC__\)\n.*?^#endif\n", "", text,
                  flags=re.DOTALL | re.MULTILINE)
    return re.sub(r"^#ifdef __cplusplus\n.*?^#else\n(.*?)^#endif$", r"\1", text,
                  flags=re.DOTALL | re.MULTILINE).strip("\n")


def chunks(text):
    """The runs of lines between blank ones, each as its entries."""
    for chunk in re.split(r"\n[ ]*\n", text):
        entries, position, comment = [], 0, ""
        for match in COMMENT.finditer(chunk):
            before = chunk[position:match.start()].strip("\n")
            if before or comment:
                entries.append(Entry(comment, before))
            comment, position = body_of(match.group(0)).strip(), match.end()
        entries.append(Entry(comment, chunk[position:].strip("\n")))
        yield entries


def add_chunk(header, entries, intro):
    """Files a chunk; returns what the comments that stand alone have said so far."""
    if len(entries) == 1 and not entries[0].code:
        text = entries[0].comment
        if HEADING.match(text):
            return []
        return intro if not text or "NOLINT" in text else intro + [text]
    entries = [entry for entry in entries
               if FOR_EACH_LANGUAGE.match(entry.code) or not NO_DECLARATION.match(entry.code)]
    declaring = [entry for entry in entries if entry.names()]
    if declaring and declaring[0].comment.startswith("The same") and header.groups:
        header.groups[-1].entries += declaring
    elif declaring:
        header.groups.append(Group(header, intro, declaring))
    header.types += [entry for entry in entries if not entry.names()]
    return intro


def read_header(path, include):
    text = path.read_text(encoding="utf-8").replace("BOARD_API", "PKI_API")
    first = COMMENT.search(text)
    title, _, about = body_of(first.group(0)).partition("\n\n")
    title = " ".join(title.split()).partition(": ")[2]
    if not about and ". " in title:
        about = title.partition(". ")[2]
    header = Header(include, title.partition(". ")[0].rstrip("."), about)
    intro = []
    for entries in chunks(text[first.end():]):
        intro = add_chunk(header, entries, intro)
    return header


def wrapped_prototype(text):
    """A declaration on lines that fit a page, broken behind commas."""
    text = " ".join(re.sub(r"/\*.*?\*/", "", text, flags=re.DOTALL).split()) + ";"
    text = re.sub(r"\s*\bPKI_API\b\s*", " ", text).strip()
    indent = text.find("(") + 1
    if indent > 44 or text.count("(") > 1:
        indent = 4
    parts = re.split(r"(?<=,) ", text)
    lines = [parts[0]]
    for part in parts[1:]:
        if len(lines[-1]) + 1 + len(part) > 74:
            lines.append(" " * indent + part)
        else:
            lines[-1] += " " + part
    return lines


def prototypes(code):
    for statement in code.split(";"):
        if "PKI_API" in statement:
            yield wrapped_prototype(statement)


def clauses(text):
    """What a comment says about the results, clause by clause."""
    for match in RETURNS.finditer(text):
        paragraph = re.split(r"\n[ ]*\n", text[match.start():])[0]
        yield from re.split(r"; |\. ", " ".join(paragraph.split()))


def codes_in(clause):
    """The codes that a clause begins with, or has as "(or 2)"."""
    head = CODES.match(clause)
    named = re.findall(r"\(or (\d+)\)", clause)
    for numbers in re.findall(NUMBERS, head.group(1) if head else "") + named:
        first, _, last = numbers.partition(" to ")
        yield from range(int(first), int(last or first) + 1)


def bare(code):
    """The code without its comments, and without what is in braces."""
    code = re.sub(r"/\*.*?\*/", "", code, flags=re.DOTALL)
    while "{" in code and (inner := re.sub(r"\s*\{[^{}]*\}", "", code)) != code:
        code = inner
    return code


def declared_types(code):
    """The names of types that a host writes."""
    names = re.findall(r"\btypedef\b[^;]*?(\w+)\s*(?:\([^()]*\))?;|\benum (\w+);", bare(code))
    return [one or other for one, other in names if one != "STACK"]


def named_values(code):
    """The names of macros and of an enumeration's values."""
    code = re.sub(r"/\*.*?\*/", "", code, flags=re.DOTALL)
    names = re.findall(r"^#define (\w+)", code, re.MULTILINE)
    for body in re.findall(r"\benum\b[^{;]*\{([^{}]*)\}", code):
        names += re.findall(r"^\s*(\w+)", "\n".join(body.split(",")), re.MULTILINE)
    return dict.fromkeys(names)


class Manual:
    def __init__(self, headers, errors, version, date, documents):
        self.headers = headers
        self.errors = errors
        self.version = version
        self.date = date
        self.documents = documents
        self.group_of = {name: group for header in headers for group in header.groups
                         for name in group.names()}
        self.functions = set(self.group_of)

    def name_lines(self, names, title):
        return [".SH NAME", *textwrap.wrap(", ".join(names), 78),
                *textwrap.wrap(r"\- " + roff.escape(title), 78, break_on_hyphens=False)]

    def words(self, text):
        """Documents are named by where they are installed."""
        text = re.sub(r"(?<![\w/])docs/[\w-]+\.md\b", rf"{self.documents}\g<0>", text)
        return roff.paragraphs(text, self.functions)

    def page(self, title, lines):
        return roff.page(title, 3, self.version, self.date, lines)

    def see_also(self, names):
        pages = [f"\\fB{roff.name(name)}\\fP({section})" for name, section in names]
        return [".SH SEE ALSO", *(page + "," for page in pages[:-1]), pages[-1]]

    def type_lines(self, entry):
        lines = self.words(entry.comment) if entry.comment else []
        code = without_guards(entry.code)
        if "error_list.inc" in code:
            return lines
        return lines + roff.verbatim(code.splitlines())

    def types_in(self, code, told):
        """(header, type) for what the declarations speak of, and the lists and constants of which
        their comments do."""
        listed = set(re.findall(r"\(of\s+(\w+)", told))
        constants = set(CONSTANT.findall(told))
        for header in self.headers:
            for entry in header.types:
                names = declared_types(entry.code)
                if (listed.intersection(names) or
                        constants.intersection(named_values(entry.code)) or
                        any(re.search(rf"\b{name}\b", code) for name in names)):
                    yield header, entry

    def codes_of(self, group, seen=()):
        """The codes that the comments name, also by naming a function that returns them."""
        found = set()
        if group in seen or not re.search(r"PKI_API int \w", group.code()):
            return found
        for clause in clauses(group.told()):
            found.update(codes_in(clause))
            if re.match("Returns? as ", clause) or "codes of " in clause:
                for name in self.functions.intersection(re.findall(r"\w+", clause)):
                    found |= self.codes_of(self.group_of[name], (*seen, group))
        return found

    def error_lines(self, group):
        codes = self.codes_of(group)
        lines = []
        for code, name, _, meaning in self.errors:
            if int(code) in codes and name not in ("OK", "STORE_ALL_ZEROS"):
                lines += [".TP", f"{roff.bold('PKI_' + name)} ({code})", *roff.filled(meaning)]
        return [".SH ERRORS", *lines] if lines else []

    def synopsis(self, group):
        lines = [".SH SYNOPSIS", ".nf", roff.bold(f"#include <{group.header.include}>"), ".PP"]
        for entry in group.entries:
            for prototype in prototypes(entry.code):
                lines += [roff.bold(line) for line in prototype]
        return lines + [".fi"]

    def description(self, group):
        """(DESCRIPTION, RETURN VALUE or nothing)."""
        lines, returns = [".SH DESCRIPTION"], []
        for text in group.intro:
            lines += self.words(text)
        for entry in group.entries:
            text = entry.comment
            if len(group.entries) > 1 and text and entry is not group.entries[0]:
                shown = ", ".join(name + "()" for name in entry.names())
                lines.append(f'.SS "{roff.name(shown)}"')
            match = RETURNS.search(text) if len(group.entries) == 1 else None
            if match and match.start() > 0:
                end = re.compile(r"\n[ ]*\n").search(text, match.start())
                stop = end.start() if end else len(text)
                returns = [".SH RETURN VALUE", *self.words(text[match.start():stop])]
                text = text[:match.start()] + text[stop:]
            if text.strip():
                lines += self.words(text)
        if len(lines) == 1:
            lines += self.words(sentence(group.title()))
        return lines, returns

    def function_page(self, group):
        names = group.names()
        description, returns = self.description(group)
        lines = self.name_lines(names, group.title())
        lines += self.synopsis(group) + description + returns + self.error_lines(group)
        types = list(self.types_in(group.code(), group.told()))
        if types:
            lines.append(".SH TYPES")
            for _, entry in types:
                lines += self.type_lines(entry)
        if group.header.about:
            lines.append(".SH NOTES")
            lines += self.words(f"What holds for all of `{group.header.include}`:")
            lines += self.words(group.header.about)
        mentioned = sorted(name for name in self.functions - set(names)
                           if "_" in name and re.search(rf"\b{name}\b", group.told()))
        also = [*mentioned, group.header.page_name, *(header.page_name for header, _ in types),
                "libpki_error", "libpki"]
        lines += self.see_also([(name, 3) for name in dict.fromkeys(also)])
        return self.page(names[0], lines)

    def error_table(self):
        lines = [".SH ERROR CODES"]
        for code, name, text, meaning in self.errors:
            lines += [".TP", roff.bold(f"{code} PKI_{name}"),
                      *roff.filled(meaning if name == "OK" else f'"{text}": {meaning}')]
        return lines

    def header_page(self, header):
        lines = [*self.name_lines([header.page_name], header.title), ".SH SYNOPSIS", ".nf",
                 roff.bold(f"#include <{header.include}>"), ".fi", ".SH DESCRIPTION"]
        lines += self.words(header.about or sentence(header.title))
        if header.groups:
            lines.append(".SH FUNCTIONS")
        for group in header.groups:
            shown = ", ".join(rf"\fB{name}\fP(3)" for name in group.names())
            lines += [".TP", shown, *roff.filled(group.title(), self.functions)]
        if header.types:
            lines.append(".SH TYPES")
        for entry in header.types:
            lines += self.type_lines(entry)
        if header.page_name == "libpki_error":
            lines += self.error_table()
        lines += self.see_also([("libpki", 3)])
        return self.page(header.page_name, lines)

    def overview(self, introduction, conventions, example):
        start = ("The quick start, `docs/quick-start.md`, goes from nothing to a verified TLS "
                 f"connection, step by step. `{self.documents}README.md` lists the other documents. "
                 "The example below is a host in its smallest form: it provisions one CA.")
        lines = [*self.name_lines(["libpki"], headline(introduction)), ".SH SYNOPSIS", ".nf",
                 roff.bold("#include <libpki/libpki.h>"), ".PP",
                 roff.bold("cc host.c $(pkg-config --cflags --libs libpki)"), ".fi",
                 ".SH DESCRIPTION", '.SS "Where to start"', *self.words(start),
                 '.SS "What there is"', *self.words(introduction), ".SH HEADERS"]
        for header in self.headers:
            lines += [".TP", f"{roff.bold(header.page_name)}(3)",
                      *roff.filled(f"{header.include}: {header.title}", self.functions)]
        lines += [".SH CONVENTIONS", *self.words(conventions)]
        lines += [".SH EXAMPLES", *roff.verbatim(example.splitlines())]
        lines += self.see_also([("libpki_init", 3), ("pkictl", 1), ("pkilab", 1)])
        return self.page("libpki", lines)

    def named_in(self, header):
        """The types, macros and values that a header's page is about."""
        names = [f"PKI_{name}" for _, name, _, _ in self.errors
                 if header.page_name == "libpki_error"]
        for entry in header.types:
            names += declared_types(entry.code)
            names += ["STACK"] if re.search(r"\bSTACK;", entry.code) else []
            names += [name for name in named_values(entry.code) if name != "PKI_ERROR"]
        return dict.fromkeys(names)

    def write(self, folder):
        """Every page; functions that share one are links to it, types and constants to their
        header's."""
        for header in self.headers:
            (folder / f"{header.page_name}.3").write_text(self.header_page(header))
            for group in header.groups:
                first, *others = group.names()
                (folder / f"{first}.3").write_text(self.function_page(group))
                for name in others:
                    (folder / f"{name}.3").symlink_to(f"{first}.3")
            for name in self.named_in(header):
                (folder / f"{name}.3").symlink_to(f"{header.page_name}.3")
