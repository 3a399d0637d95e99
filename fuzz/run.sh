#!/bin/bash
# make fuzz: each fuzzer for a while, from its seeds and what it found before. Stops at the first
# finding and leaves the input beside the corpora.
#
#   run.sh BUILD_DIR [SECONDS [NAME...]]     default: 60 seconds each, all of them
set -euo pipefail

build=${1:?usage: run.sh BUILD_DIR [SECONDS [NAME...]]}
seconds=${2:-60}
shift $(($# > 2 ? 2 : $#))
known=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/tests/data/fuzz
folder=$build/fuzz
names=("$@")
if [ $# -eq 0 ]; then
  for file in "$folder"/*.args; do
    names+=("$(basename "$file" .args)")
  done
fi

"$build/bin/make_seeds" "$folder/seeds"
for name in "${names[@]}"; do
  mapfile -t options <"$folder/$name.args"
  corpus=$folder/corpus/$name
  mkdir -p "$corpus"
  inputs=("$corpus" "$folder/seeds/$name")
  if [ -d "$known/$name" ]; then
    inputs+=("$known/$name")
  fi
  log=$folder/$name.log
  echo "fuzz: $name, $seconds s"
  if ! "$build/bin/$name" "${options[@]}" -artifact_prefix="$folder/$name-" \
    -max_total_time="$seconds" -print_final_stats=1 "${inputs[@]}" >"$log" 2>&1; then
    grep -vE '^#[0-9]+' "$log" | tail -n 60 >&2
    echo "fuzz: $name found something: $log" >&2
    exit 1
  fi
  grep -E '^(fuzz:|stat::(number_of_executed_units|new_units_added))' "$log" | sed 's/^/  /'
done
