#!/bin/sh
# A new user's path, on a build that is already made (default: build/default;
# it builds only the library and the tool if they are out of date):
#   0. the code blocks of docs/getting-started.md are those of examples/;
#   1. install into a scratch prefix; the installed flowtable starts with no
#      LD_LIBRARY_PATH (its RUNPATH is relative to itself);
#   2. only the public headers are installed, and each header an agent
#      includes compiles alone against them;
#   3. examples/ is configured against the installed package (find_package),
#      built, and run: a reader agent, a shadow agent and a writer agent as
#      three processes that must agree; the writer is stopped by SIGTERM and restarted, and
#      must adopt the rows it left; a reader built with pkg-config checks
#      them again; a reader told to expect other rows must fail;
#   4. the tool looks at the result (ls, check);
#   5. cpack makes the Debian package; its contents are listed and checked,
#      and the flowtable unpacked from it with dpkg -x starts without
#      LD_LIBRARY_PATH.
# Exits non-zero at the first failure, saying which.
set -eu
cd "$(dirname "$0")/.."
src=$(pwd)
build=$(cd "${1:-build/default}" && pwd)
scratch=$(mktemp -d "${TMPDIR:-/tmp}/flowtables-install-XXXXXX")
writer=""
cleanup() {
  if [ -n "$writer" ]; then kill "$writer" 2>/dev/null || true; fi
  rm -rf "$scratch"
}
trap cleanup EXIT
fail() { echo "check-install: FAILED: $*" >&2; exit 1; }
step() { echo "== check-install: $*"; }
flows=2000
kept=1800  # the writer removes every tenth flow (examples/Flows.h)

step "the guide's code blocks are the examples' code"
scripts/doc-snippets.sh || fail "docs/getting-started.md is out of step with examples/"

step "install into $scratch/prefix"
cmake --build "$build" --target flowtables flowtable -j2 > "$scratch/build.log" ||
  { cat "$scratch/build.log"; fail "building the library and the tool"; }
prefix=$scratch/prefix
cmake --install "$build" --prefix "$prefix" > /dev/null
env -u LD_LIBRARY_PATH "$prefix/bin/flowtable" --help > /dev/null ||
  fail "the installed flowtable does not start without LD_LIBRARY_PATH"
runpath=$(readelf -d "$prefix/bin/flowtable" | sed -n 's/.*(RUNPATH).*\[\(.*\)\]/\1/p')
[ "$runpath" = '$ORIGIN/../lib' ] || fail "the installed flowtable's RUNPATH is '$runpath'"

step "public headers"
inc=$prefix/include/flowtables
want=$(sed -n '/^set(FLOWTABLES_PUBLIC_HEADERS/,/^)/p' cmake/PublicHeaders.cmake | grep -c '\.h$')
want=$((want + $(sed -n '/^set(FLOWTABLES_AGENT_HEADERS/,/^)/p' cmake/PublicHeaders.cmake |
  grep -c '\.h$')))
got=$(find "$inc" -name '*.h' | wc -l)
[ "$got" -eq "$want" ] || fail "$got headers installed, the list has $want"
[ ! -e "$inc/Rusk/RuskWire.h" ] || fail "a private header (Rusk/RuskWire.h) was installed"
fmt_cflags=$(pkg-config --cflags fmt)
for h in $(sed -n '/^set(FLOWTABLES_AGENT_HEADERS/,/^)/p' cmake/PublicHeaders.cmake | grep '\.h$'); do
  echo "#include <$h>" | g++ -std=c++20 -fsyntax-only -x c++ - -I"$inc" $fmt_cflags ||
    fail "<$h> does not compile alone against the installed headers"
done

step "examples against the installed package"
ex=$scratch/examples
cmake -S examples -B "$ex" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  > "$scratch/examples.log" || { cat "$scratch/examples.log"; fail "configuring examples/"; }
cmake --build "$ex" -j2 > "$scratch/examples.log" 2>&1 ||
  { cat "$scratch/examples.log"; fail "building examples/"; }
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
# shellcheck disable=SC2046
g++ -std=c++20 -O1 -o "$ex/reader-agent-pc" examples/reader_agent.cpp \
  $(pkg-config --cflags --libs flowtables) || fail "building the reader with pkg-config"

root=$scratch/root
mkdir -p "$root"
# Waits until the writer logging to $1 serves (it then stops on SIGTERM).
serving() {
  i=0
  while ! grep -q "^writer: serving" "$1" 2>/dev/null; do
    kill -0 "$writer" 2>/dev/null || fail "the writer died before serving: $(cat "$1")"
    i=$((i + 1))
    [ $i -lt 600 ] || fail "the writer did not serve within 60 s"
    sleep 0.1
  done
}
# The reader and the shadow first: they wait on the tables until the writer
# has made them.
"$ex/reader-agent" "$root" $flows 60 & reader=$!
"$ex/shadow-agent" "$root" $flows 60 & shadow=$!
"$ex/writer-agent" "$root" $flows > "$scratch/writer1.out" & writer=$!
wait $reader || fail "the reader did not find what the writer wrote (exit $?)"
wait $shadow || fail "the shadow's copy did not come to what the writer wrote (exit $?)"
serving "$scratch/writer1.out"
kill -TERM $writer
wait $writer || fail "the writer did not stop cleanly on SIGTERM (exit $?)"
writer=""
# A reader that expects other rows must say so: it checks, it does not just pass.
if "$ex/reader-agent" "$root" $((flows + 1)) 1 2> "$scratch/wrong.err"; then
  fail "a reader expecting flow $flows, never written, exited 0"
fi
grep -q "config row of flow $flows present: 0" "$scratch/wrong.err" ||
  { cat "$scratch/wrong.err"; fail "the reader's complaint names no difference"; }
# The restart: the writer adopts the rows it left, then writes them again.
"$ex/writer-agent" "$root" $flows --expect-rows $kept > "$scratch/writer2.out" & writer=$!
serving "$scratch/writer2.out"
LD_LIBRARY_PATH="$prefix/lib" "$ex/reader-agent-pc" "$root" $flows 60 ||
  fail "after the writer's restart the reader did not find its rows"
kill -TERM $writer
wait $writer || fail "the restarted writer failed (exit $?)"
writer=""

step "the tool on the result"
"$prefix/bin/flowtable" --root "$root" ls > "$scratch/ls.out" || fail "flowtable ls"
grep -q "^offload/config/hoIpFlowConfig .* $kept " "$scratch/ls.out" ||
  { cat "$scratch/ls.out"; fail "flowtable ls does not show $kept config rows"; }
"$prefix/bin/flowtable" --root "$root" check offload/status/hoIpFlowStatus | grep -qx OK ||
  fail "flowtable check of the status table"

step "Debian package"
cpack --config "$build/CPackConfig.cmake" -G DEB -B "$scratch/deb" > "$scratch/cpack.log" ||
  { cat "$scratch/cpack.log"; fail "cpack -G DEB"; }
deb=$(ls "$scratch"/deb/*.deb)
dpkg-deb -c "$deb" | awk '{print $6}' > "$scratch/contents"
for f in ./usr/bin/flowtable ./usr/lib/libflowtables.so.0 ./usr/lib/pkgconfig/flowtables.pc \
  ./usr/lib/cmake/flowtables/flowtablesConfig.cmake ./usr/include/flowtables/FlowTracking/Factories.h; do
  grep -qx "$f" "$scratch/contents" || fail "the package lacks $f"
done
if grep -q '^\./usr/include/flowtables/Rusk/RuskWire\.h$' "$scratch/contents"; then
  fail "the package has a private header"
fi
dpkg-deb -f "$deb" Depends | grep -q libfmt9 || fail "the package does not depend on libfmt9"
dpkg -x "$deb" "$scratch/debroot"
env -u LD_LIBRARY_PATH "$scratch/debroot/usr/bin/flowtable" --help > /dev/null ||
  fail "the packaged flowtable does not start from the unpacked tree"
step "passed ($(basename "$deb"))"
