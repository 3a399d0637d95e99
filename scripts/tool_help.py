"""What a tool's --help says about it and each of its subcommands."""

import re
import subprocess
from dataclasses import dataclass, field

# An entry is "  NAME   text", or the name on a line of its own if it is long.
TEXT_COLUMN = 30
CHOICES = re.compile(r":\{([^}]*)\}")
# The title of a list of what an option takes, in the text below the options.
VALUES = re.compile(r"Values of (--[\w-]+)")
# "good, revoked or unknown", at the begin of a text.
LISTED = re.compile(r"[\w-]+(?:, [\w-]+)* or [\w-]+")


@dataclass
class Item:
    """A row of a list: an option, an argument, a subcommand."""
    form: str
    text: str

    def flags(self):
        """The names of an option, or nothing."""
        return self.form.split()[0].split(",") if self.form.startswith("-") else []

    def value(self):
        """What stands behind an option's name: its value's type, or nothing."""
        rest = self.form.partition(" ")[2]
        return re.sub(r"\s*(REQUIRED|\(with .*\))", "", rest).strip()

    def choices(self):
        match = CHOICES.search(self.form)
        return match.group(1).split(",") if match else []


@dataclass
class Group:
    title: str
    items: list


@dataclass
class Command:
    words: list
    description: str
    usage: str
    groups: list
    footer: list
    examples: list
    children: list = field(default_factory=list)

    def name(self):
        return " ".join(self.words)

    def page_name(self):
        return "-".join(self.words)

    def options(self):
        return [item for group in self.groups for item in group.items if item.flags()]

    def arguments(self):
        return [item for group in self.groups if group.title == "Positionals"
                for item in group.items]

    def choices(self, item):
        """What an option takes, where that is listed. "NAME=VALUE" is left at "NAME="."""
        found = item.choices()
        for group in self.groups:
            title = VALUES.match(group.title)
            if title and title.group(1) in item.flags():
                found += [re.sub(r"(?<==).*", "", row.form) for row in group.items]
        return found

    def inner_choices(self, item):
        """What may stand behind a "NAME=" of such a list, by name, where its text begins with that
        or that of another one of the same kind does."""
        rows = [row for group in self.groups for row in group.items
                if (title := VALUES.match(group.title)) and title.group(1) in item.flags()]
        own, kinds = {}, {}
        for name, _, kind in (row.form.partition("=") for row in rows):
            kinds[name] = kind
        for row in rows:
            if found := LISTED.match(re.sub(r" \([^)]*\)", "", row.text)):
                words = re.split(", | or ", found.group(0))
                own[row.form.partition("=")[0]] = [word for word in words if word != "any"]
        named = {kinds[name]: words for name, words in own.items() if kinds[name] != "N"}
        return {name: own.get(name) or named.get(kind)
                for name, kind in kinds.items() if kind and (name in own or kind in named)}

    def has_json(self):
        return not any("there is no JSON" in line for block in self.footer for line in block)

    def all(self):
        yield self
        for child in self.children:
            yield from child.all()


def read_item(lines):
    """The first row of `lines`, which loses it."""
    line = lines.pop(0)
    if len(line) > TEXT_COLUMN and line[TEXT_COLUMN - 2:TEXT_COLUMN] == "  ":
        form, text = line[:TEXT_COLUMN], line[TEXT_COLUMN:]
    else:
        form, text = line, ""
    more = " " * TEXT_COLUMN
    while lines and lines[0].startswith(more):
        text += " " + lines.pop(0)
    return Item(form.strip(), " ".join(text.split()))


def read_block(block):
    """A group, or the lines of a text."""
    title, *lines = block
    if not title.endswith(":") or not lines or not all(line.startswith("  ") for line in lines):
        return block
    if title == "Examples:":
        return Group("Examples", lines)
    group = Group(title[:-1], [])
    while lines:
        group.items.append(read_item(lines))
    return group


def parse(words, text):
    description, _, rest = text.partition("\nUsage: ")
    if not rest:
        raise ValueError(f"'{' '.join(words)} --help' has no usage")
    usage, _, rest = rest.partition("\n")
    command = Command(words, " ".join(description.split()), usage.strip(), [], [], [])
    for block in re.split(r"\n\s*\n", rest.strip("\n")):
        lines = [line.rstrip() for line in block.splitlines() if line.strip()]
        found = read_block(lines) if lines else None
        if isinstance(found, Group) and found.title == "Examples":
            command.examples += [line.removeprefix("  ") for line in found.items]
        elif isinstance(found, Group):
            command.groups.append(found)
        elif found:
            command.footer.append(found)
    return command


def read_tool(program, words):
    """The command that `words` name, and all below it."""
    result = subprocess.run([program, *words[1:], "--help"], check=True, text=True,
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
    command = parse(words, result.stdout)
    for group in command.groups:
        if group.title == "Subcommands":
            command.children = [read_tool(program, words + [item.form]) for item in group.items]
    return command
