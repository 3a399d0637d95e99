#!/usr/bin/env python3
"""Makes a tool's completion for bash from what its --help says, and from the list of error codes.

    make_completion.py TOOL OUT_FILE
"""

import re
import sys
import textwrap
from pathlib import Path

import tool_help
from error_list import error_codes

TEMPLATE = """\
# bash completion for {tool}. Made from what its --help says: {children}.

# No blank behind a "NAME=" whose value is still to come.
_{tool}_open_end() {{
  if [[ ${{#COMPREPLY[@]}} -eq 1 && ${{COMPREPLY[0]}} == *= ]]; then
    compopt -o nospace 2>/dev/null
  fi
}}
{labels}
_{tool}() {{
  local current=${{COMP_WORDS[COMP_CWORD]}} previous=${{COMP_WORDS[COMP_CWORD - 1]}}
  local command={tool} words='' options='' word value i
  local at=$((COMP_CWORD - 1))
{options_given}  local arguments=()
  COMPREPLY=()

  # Bash takes "--option=value" for three words.
  if [[ $current == '=' ]]; then
    current=''
  elif [[ $previous == '=' ]] && ((COMP_CWORD >= 2)); then
    at=$((COMP_CWORD - 2))
    previous=${{COMP_WORDS[at]}}
  fi
{outer}
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${{COMP_WORDS[i]}}
    case "$command $word" in
{commands}
        command="$command $word"
        continue ;;
{with_value}
        value=$((i + 1))
        if [[ ${{COMP_WORDS[value]}} == '=' ]]; then
          value=$((i + 2))
        fi
        i=$value
{remember}        ;;
      *)
        if [[ $word != -* ]]; then
          arguments+=("$word")
        fi ;;
    esac
  done

{inner}  # An option's value. Where the values are not listed, bash offers file names.
  case "$command $previous" in
{values}
  esac

  case $command in
{words}
  esac
  if [[ $current == -* ]]; then
    words=$options
{arguments}  fi
  if [[ -n $words ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
  fi
}}

complete -o bashdefault -o default -F _{tool} {tool}
"""

# What a state keeps, asked of the tool: quick, and a missing state is not made. The labels are
# those that the tool makes; others would be for the shell to expand. No file is offered for one.
LABELS = r"""
# A word as the tool would get it, as far as that takes no expansion.
_TOOL_plain() {
  local word=${1//[\"\'\\]/}
  printf '%s' "${word/#\~\//$HOME/}"
}

# _TOOL_ask TOOL WORD...: what it prints about the state of the command line.
_TOOL_ask() {
  local state=()
  if [[ -n ${given[--state]:-} ]]; then
    state=(--state "$(_TOOL_plain "${given[--state]}")")
  fi
  "$(_TOOL_plain "$1")" "${@:2}" "${state[@]}" </dev/null 2>/dev/null
}

# _TOOL_labels KIND TOOL [KEY]: a line each. The certificates are those of KEY, or all.
_TOOL_labels() {
  case $1 in
    keys) _TOOL_ask "$2" key list | sed -n 's/^\([^ ]*\) (RSA .*/\1/p' ;;
    certs) _TOOL_ask "$2" key list |
      sed -n "${3:+/^$3 (/,/^[^ ]/}s/^  \([^ ][^ ]*\) .*/\1/p" | sort -u ;;
    cas) _TOOL_ask "$2" state dump |
      sed -n '/^ *<CAS_START/,/^ *<CAS_END/s/^      <LABEL [^>]*>  "\(.*\)"$/\1/p' ;;
  esac
}

_TOOL_offer_labels() {
  local label key
  key=$(_TOOL_plain "${given[--key]:-${arguments[0]:-}}")
  compopt +o bashdefault +o default 2>/dev/null
  if [[ ! $key =~ ^[A-Za-z0-9._@+-]+$ ]]; then
    key=''
  fi
  while read -r label; do
    if [[ $label =~ ^[A-Za-z0-9][A-Za-z0-9._@+-]*$ && $label == "$current"* ]]; then
      COMPREPLY+=("$label")
    fi
  done < <(_TOOL_labels "$1" "${COMP_WORDS[0]}" "$key")
}

_TOOL_offer_codes() {
  compopt +o bashdefault +o default 2>/dev/null
  mapfile -t COMPREPLY < <(compgen -W 'CODES' -- "$current")
}
"""

# What the text of an option or argument says about the label that it takes.
LABEL_KINDS = [(re.compile(r"[Ll]abel of (?:its|the) key\b|\bkey's label"), "keys"),
               (re.compile(r"\bCA's label"), "cas"),
               (re.compile(r"^Its own label|label for the certificate"), "certs")]
# Here it is a new one.
NEW_LABELS = {"pkictl key generate"}


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


def offer(tool, command, item):
    """The call that offers what an option or an argument takes, or nothing for a file."""
    if "N|NAME" in item.form:
        return f"_{tool.name()}_offer_codes"
    kinds = [kind for text, kind in LABEL_KINDS if text.search(item.text)]
    if not kinds:
        return ""
    kind = "new" if command.name() in NEW_LABELS else kinds[0]
    return f"_{tool.name()}_offer_labels {kind}"


def walk(command, parents):
    yield command, with_inherited(command, parents)
    for child in command.children:
        yield from walk(child, [*parents, command])


def option_values(tool):
    """(cases for what an option takes, all that take something)."""
    cases, free, taking = [], [], []
    for command, options in walk(tool, []):
        for flag, item in options.items():
            name = f"{command.name()} {flag}"
            choices, offered = command.choices(item), offer(tool, command, item)
            if choices:
                cases.append(f"""    '{name}')
      mapfile -t COMPREPLY < <(compgen -W '{" ".join(choices)}' -- "$current")
      _{tool.name()}_open_end
      return ;;""")
            elif takes_value(item) and offered:
                cases.append(f"    '{name}')\n      {offered}\n      return ;;")
            elif takes_value(item):
                free.append(name)
            if choices or takes_value(item):
                taking.append(name)
    return cases + ([pattern(free, " " * 4) + "\n      return ;;"] if free else []), taking


# In "--option name=value" previous is the name, and outer the option.
OUTER = """\
  local outer=''
  if ((at >= 1 && at < COMP_CWORD)); then
    outer=${COMP_WORDS[at - 1]}
    if [[ $outer == '=' ]] && ((at >= 2)); then
      outer=${COMP_WORDS[at - 2]}
    fi
  fi
"""


def inner_cases(tool):
    """The parts of the template for options that take "NAME=VALUE"; none where there is no list."""
    cases = {}
    for command, options in walk(tool, []):
        for flag, item in options.items():
            for name, values in command.inner_choices(item).items():
                place = f"{command.name()} {flag} {name}"
                cases.setdefault(" ".join(values), []).append(place)
    if not cases:
        return {"outer": "", "inner": ""}
    lines = [f"""{pattern(places, " " * 4)}
      mapfile -t COMPREPLY < <(compgen -W '{values}' -- "$current")
      return ;;""" for values, places in cases.items()]
    body = "\n".join(['  case "$command $outer $previous" in', *lines, "  esac\n\n"])
    return {"outer": OUTER, "inner": body}


def argument_cases(tool):
    """What stands in the place of an argument, by how many are in front of it."""
    cases = []
    for command in tool.all():
        for number, item in enumerate(command.arguments()):
            offered = offer(tool, command, item)
            if offered:
                cases.append(f"      '{command.name()} {number}')\n        {offered} ;;")
    if not cases:
        return ""
    return "\n".join(['  else\n    case "$command ${#arguments[@]}" in', *cases, "    esac\n"])


def asking(tool, has_labels):
    """The parts of the template that only a tool with a state has."""
    if not has_labels:
        return {"labels": "", "options_given": "", "remember": ""}
    codes = " ".join(f"PKI_{name}" for _, name, _, _ in error_codes())
    codes = "\n".join(textwrap.wrap(codes, 90))
    return {"labels": LABELS.replace("TOOL_", f"{tool.name()}_").replace("CODES", codes),
            "options_given": "  local -A given=()\n",
            "remember": "        given[$word]=${COMP_WORDS[value]:-}\n"}


def completion(tool):
    commands = [command.name() for command in tool.all() if command is not tool]
    words = []
    for command, options in walk(tool, []):
        children = " ".join(child.words[-1] for child in command.children)
        words.append(f"    '{command.name()}')\n      words='{children}'\n"
                     f"      options='{' '.join(sorted(options))}' ;;")
    values, taking = option_values(tool)
    arguments = argument_cases(tool)
    return TEMPLATE.format(tool=tool.name(), words="\n".join(words), values="\n".join(values),
                           children=", ".join(child.words[-1] for child in tool.children),
                           commands=pattern(commands, " " * 6), arguments=arguments,
                           with_value=pattern(taking, " " * 6), **inner_cases(tool),
                           **asking(tool, bool(arguments)))


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
