#!/bin/sh
# The code blocks of docs/getting-started.md are copies of marked parts of
# the files under examples/: a line `<!-- from FILE [NAME] -->` is followed
# by a fenced block holding the lines of FILE between its two `[NAME]` marker
# lines (`// [NAME]` or `# [NAME]`). The examples are what the test command
# builds and runs, so the guide shows code that works.
#   doc-snippets.sh          checks every block; exits 1 naming a stale one
#   doc-snippets.sh update   rewrites the blocks from the examples
set -eu
cd "$(dirname "$0")/.."
doc=docs/getting-started.md
mode=${1:-check}
snippet() {  # FILE NAME: the lines between the two markers
  awk -v name="[$2]" '
    { t = $0; sub(/^[ \t]*(\/\/|#)[ \t]*/, "", t) }
    t == name { inside = !inside; found++; next }
    inside { print }
    END { if (found != 2) { print "no pair of markers " name > "/dev/stderr"; exit 1 } }' "$1"
}
out=$(mktemp)
trap 'rm -f "$out" "$out.want" "$out.have"' EXIT
stale=0
# Walk the doc: copy it, replacing each marked block with its snippet.
exec 3< "$doc"
while IFS= read -r line <&3; do
  printf '%s\n' "$line" >> "$out"
  case "$line" in
    '<!-- from '*' ['*'] -->')
      file=$(printf '%s' "$line" | sed 's/^<!-- from \([^ ]*\) \[.*$/\1/')
      name=$(printf '%s' "$line" | sed 's/^.*\[\(.*\)\] -->$/\1/')
      IFS= read -r fence <&3
      printf '%s\n' "$fence" >> "$out"
      : > "$out.have"
      while IFS= read -r l <&3 && [ "$l" != '```' ]; do printf '%s\n' "$l" >> "$out.have"; done
      snippet "$file" "$name" > "$out.want"
      cat "$out.want" >> "$out"
      printf '%s\n' '```' >> "$out"
      if ! cmp -s "$out.want" "$out.have"; then
        echo "doc-snippets: $doc: the block from $file [$name] differs from the file" >&2
        stale=1
      fi
      ;;
  esac
done
exec 3<&-
if [ "$mode" = update ]; then
  cp "$out" "$doc"
  exit 0
fi
exit $stale
