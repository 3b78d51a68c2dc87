#!/usr/bin/env bash
# Checks that the shared library exports exactly the committed list of names
# (abi/*.sym) and that the public headers declare exactly those names.
# Usage: check_exports.sh LIBRARY ABI_DIR INCLUDE_DIR...
set -euo pipefail
lib=$1 abi=$2
shift 2
headers=()
for dir in "$@"; do headers+=("$dir"/*.h); done
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
export LC_ALL=C

cat "$abi"/*.sym | grep -v '^[[:space:]]*$' | sort > "$tmp/committed"
sort -u "$tmp/committed" | cmp -s - "$tmp/committed" || {
  echo "abi/*.sym lists a name twice:"; uniq -d "$tmp/committed"; exit 1; }

# Defined dynamic symbols, without the version suffix.
nm -D --defined-only "$lib" | awk '$2 != "A" {print $3}' | sed 's/@.*//' | sort -u > "$tmp/exported"

# Names declared with VEPRA_API: the identifier before the first "(" of a
# function declaration, or the last identifier of a data declaration.
awk '
  /^[[:space:]]*VEPRA_API[[:space:]]/ { decl = $0; collecting = 1 }
  collecting && decl != $0 { decl = decl " " $0 }
  collecting && (decl ~ /[;{]/ || decl ~ /\(/) {
    if (match(decl, /[A-Za-z_][A-Za-z0-9_]*[[:space:]]*\(/)) {
      name = substr(decl, RSTART, RLENGTH); sub(/[[:space:]]*\($/, "", name)
      print name
    } else {
      sub(/[[:space:]]*(\[[^]]*\])?[[:space:]]*;.*$/, "", decl)
      n = split(decl, parts, /[^A-Za-z0-9_]+/); print parts[n]
    }
    collecting = 0
  }' "${headers[@]}" | sort -u > "$tmp/declared"

status=0
report() {  # report TITLE FILE_A FILE_B: names in A and not in B
  local extra
  extra=$(comm -23 "$2" "$3")
  if [ -n "$extra" ]; then echo "$1:"; echo "$extra" | sed 's/^/  /'; status=1; fi
}
report "exported but not in abi/*.sym" "$tmp/exported" "$tmp/committed"
report "in abi/*.sym but not exported" "$tmp/committed" "$tmp/exported"
report "declared in the headers but not in abi/*.sym" "$tmp/declared" "$tmp/committed"
report "in abi/*.sym but not declared in the headers" "$tmp/committed" "$tmp/declared"
[ $status -eq 0 ] && echo "$(wc -l < "$tmp/committed") exported names match the headers and abi/*.sym"
exit $status
