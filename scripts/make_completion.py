#!/usr/bin/env python3
"""Makes a tool's completion for bash from what its --help says.

    make_completion.py TOOL OUT_FILE
"""

import sys
from pathlib import Path

import tool_help

TEMPLATE = """\
# bash completion for {tool}. Made from what its --help says: {children}.

# No blank behind a "NAME=" whose value is still to come.
_{tool}_open_end() {{
  if [[ ${{#COMPREPLY[@]}} -eq 1 && ${{COMPREPLY[0]}} == *= ]]; then
    compopt -o nospace 2>/dev/null
  fi
}}

_{tool}() {{
  local current=${{COMP_WORDS[COMP_CWORD]}} previous=${{COMP_WORDS[COMP_CWORD - 1]}}
  local command={tool} words='' options='' i
  COMPREPLY=()

  # Bash takes "--option=value" for three words.
  if [[ $current == '=' ]]; then
    current=''
  elif [[ $previous == '=' ]] && ((COMP_CWORD >= 2)); then
    previous=${{COMP_WORDS[COMP_CWORD - 2]}}
  fi

  for ((i = 1; i < COMP_CWORD; i++)); do
    case "$command ${{COMP_WORDS[i]}}" in
{commands}
        command="$command ${{COMP_WORDS[i]}}" ;;
    esac
  done

  # An option's value. Where the values are not listed, bash offers file names.
  case "$command $previous" in
{values}
  esac

  case $command in
{words}
  esac
  if [[ $current == -* ]]; then
    words=$options
  fi
  if [[ -n $words ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
  fi
}}

complete -o bashdefault -o default -F _{tool} {tool}
"""


def pattern(texts, indent):
    return " | \\\n".join(f"{indent}'{text}'" for text in texts) + ")"


def with_inherited(command, parents):
    """Its options, and those that may also be given in front of it."""
    found = {}
    for owner in [*parents, command]:
        for item in owner.options():
            if "--json" in item.flags() and not command.has_json():
                continue
            if owner is command or "--version" not in item.flags():
                found.update((flag, item) for flag in item.flags())
    return found


def takes_value(item):
    """Must a value follow? One in square brackets may be left out."""
    return bool(item.value()) and not item.value().startswith("[")


def walk(command, parents):
    yield command, with_inherited(command, parents)
    for child in command.children:
        yield from walk(child, [*parents, command])


def completion(tool):
    commands, words, free, listed = [], [], [], []
    for command, options in walk(tool, []):
        name = command.name()
        if command is not tool:
            commands.append(name)
        children = " ".join(child.words[-1] for child in command.children)
        words.append(f"    '{name}')\n      words='{children}'\n"
                     f"      options='{' '.join(sorted(options))}' ;;")
        for flag, item in options.items():
            choices = command.choices(item)
            if choices:
                listed.append(f"""    '{name} {flag}')
      mapfile -t COMPREPLY < <(compgen -W '{" ".join(choices)}' -- "$current")
      _{tool.name()}_open_end
      return ;;""")
            elif takes_value(item):
                free.append(f"{name} {flag}")
    values = listed + ([pattern(free, " " * 4) + "\n      return ;;"] if free else [])
    children = ", ".join(child.words[-1] for child in tool.children)
    return TEMPLATE.format(tool=tool.name(), children=children, words="\n".join(words),
                           commands=pattern(commands, " " * 6), values="\n".join(values))


def main():
    if len(sys.argv) != 3:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    program, out = sys.argv[1], Path(sys.argv[2])
    out.parent.mkdir(parents=True, exist_ok=True)
    out.write_text(completion(tool_help.read_tool(program, [Path(program).name])))
    return 0


if __name__ == "__main__":
    sys.exit(main())
