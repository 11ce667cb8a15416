#!/bin/sh
# The folders of src/ are namespaces stacked in layers: a folder includes
# only folders below it, so each one can be read, built and tested on top of
# what is beneath it. This prints the folder graph (an edge for every
# `#include "Other/..."` or `#include <Other/...>` of a file in src/<Folder>/)
# and fails on a circle.
#   layers.sh [ALLOW]   ALLOW: a file of folder pairs ("A B" a line, `#`
#                       comments) whose mutual includes are tolerated for now;
#                       a pair counts as one node, so any longer circle
#                       through it still fails.
# Exit 0: no circle. Exit 1: the first circle found, named on stderr as
# "circle: A -> B -> A". Exit 2: misuse.
set -eu
cd "$(dirname "$0")/.."
allow=${1:-/dev/null}
if [ ! -r "$allow" ]; then
  echo "layers.sh: cannot read the allow-list $allow" >&2
  exit 2
fi
# "FROM TO" a line, one line per include.
edges=$(for dir in src/*/; do
  from=$(basename "$dir")
  for f in "$dir"*; do
    [ -f "$f" ] || continue
    sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*["<]\([A-Za-z0-9_]*\)\/.*$/\1/p' "$f" |
      while read -r to; do
        if [ -d "src/$to" ] && [ "$to" != "$from" ]; then echo "$from $to"; fi
      done
  done
done | sort | uniq -c | awk '{ print $2, $3, $1 }')

printf '%s\n' "$edges" | awk -v allowfile="$allow" '
  # Union-find over the allowed pairs: each group is one node of the check,
  # named by its members joined with "+".
  function find(x) { while ((x in parent) && parent[x] != x) x = parent[x]; return x }
  function name(x,    g) { g = find(x); return (g in members) ? members[g] : x }
  BEGIN {
    while ((getline line < allowfile) > 0) {
      sub(/#.*/, "", line)
      m = 0
      n = split(line, w, /[ \t]+/)
      for (i = 1; i <= n; i++) if (w[i] != "") pair[++m] = w[i]
      if (m == 0) continue
      if (m != 2) { print "layers.sh: an allow line names two folders: " line > "/dev/stderr"; bad = 1; exit }
      for (i = 1; i <= 2; i++) if (!(pair[i] in parent)) { parent[pair[i]] = pair[i]; members[pair[i]] = pair[i] }
      a = find(pair[1]); b = find(pair[2])
      if (a != b) { parent[b] = a; members[a] = members[a] "+" members[b] }
      allowed[pair[1] " " pair[2]] = 1; allowed[pair[2] " " pair[1]] = 1
    }
  }
  NF == 3 {
    from = $1; to = $2
    out[from] = out[from] " " to "(" $3 ")"
    nodes[from] = 1; nodes[to] = 1
    if ((from " " to) in allowed) { used[from " " to] = 1; next }
    gf = name(from); gt = name(to)
    gnodes[gf] = 1; gnodes[gt] = 1
    if (gf == gt || ((gf " " gt) in seen)) next
    seen[gf " " gt] = 1; adj[gf] = adj[gf] " " gt
  }
  # Depth-first search; a node met again while it is still on the stack
  # closes a circle.
  function visit(v,    k, n, list) {
    colour[v] = 1; stack[++depth] = v
    n = split(adj[v], list, " ")
    for (k = 1; k <= n; k++) {
      if (colour[list[k]] == 1) { report(list[k]); return 1 }
      if (colour[list[k]] == 0 && visit(list[k])) return 1
    }
    colour[v] = 2; depth--
    return 0
  }
  function report(start,    i, s) {
    for (i = 1; stack[i] != start; i++) {}
    s = stack[i]
    for (i++; i <= depth; i++) s = s " -> " stack[i]
    circle = s " -> " start
  }
  END {
    if (bad) exit 2
    for (v in nodes) print v " ->" out[v] | "sort"
    close("sort")
    for (v in gnodes) if (!(v in colour) && visit(v)) break
    if (circle != "") { print "circle: " circle > "/dev/stderr"; exit 1 }
    for (p in used) {
      split(p, w, " ")
      if ((w[2] " " w[1]) in used && w[1] < w[2]) print "tolerated by the allow-list: " w[1] " <-> " w[2]
    }
  }'
