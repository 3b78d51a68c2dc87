#!/usr/bin/env bash
# Checks the stack frames of the library's functions, as written by
# -fstack-usage next to its objects: fails when a frame exceeds the limit.
#
#   check_stack.sh OBJECT_DIR LIMIT_BYTES [ALLOWED_FUNCTION_PATTERN...]
#
# A function whose "file:line:column:name" matches one of the extended
# regular expressions given after the limit is reported but allowed.
set -euo pipefail
dir=$1
limit=$2
shift 2
mapfile -t files < <(find "$dir" -name '*.su' | sort)
if [ ${#files[@]} -eq 0 ]; then
  echo "no stack usage files under $dir (built without -fstack-usage?)" >&2
  exit 1
fi
# One line per function: bytes, then where and what it is.
frames=$(cat "${files[@]}" | awk -F '\t' '{ print $2 "\t" $1 "\t" $3 }' | sort -rn)
largest=$(head -1 <<< "$frames")
echo "largest frame: ${largest%%$'\t'*} bytes in $(cut -f2 <<< "$largest") ($(cut -f3 <<< "$largest"))"
status=0
while IFS=$'\t' read -r bytes where kind; do
  [ "$bytes" -gt "$limit" ] || break
  allowed=no
  for pattern in "$@"; do
    if grep -Eq -- "$pattern" <<< "$where"; then allowed=yes; fi
  done
  if [ $allowed = yes ]; then
    echo "allowed for now: $bytes bytes in $where ($kind)"
  else
    echo "FRAME TOO LARGE: $bytes bytes (limit $limit) in $where ($kind)"
    status=1
  fi
done <<< "$frames"
exit $status
