#!/usr/bin/env python3
"""The src/ lines and branches a run covered, as sets, to tell what one test
alone reaches that the rest of the suite does not.

  scripts/coverage-sets.py collect OUT.pkl [DIR...]   (default build/coverage)
  scripts/coverage-sets.py diff A.pkl B.pkl           what A covers and B not

A run: delete the .gcda files under build/coverage, run the tests (a binary
with --gtest_filter, or ctest), then collect. Branches are (file, line,
index) with a count above zero, as gcov -b reports them.
"""
import glob, json, os, pickle, subprocess, sys

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), '..'))


def collect(out, dirs):
    lines, branches = set(), set()
    bydir = {}
    for top in dirs or [os.path.join(ROOT, 'build/coverage')]:
        for g in glob.glob(os.path.join(top, '**/*.gcda'), recursive=True):
            bydir.setdefault(os.path.dirname(g), []).append(g)
    for d, gs in bydir.items():
        r = subprocess.run(['gcov', '-b', '--json-format', '--stdout', '-o', d] + gs,
                           cwd=d, capture_output=True)
        for chunk in r.stdout.decode(errors='replace').splitlines():
            try:
                j = json.loads(chunk)
            except ValueError:
                continue
            cwd = j.get('current_working_directory', d)
            for f in j.get('files', []):
                fn = os.path.relpath(os.path.normpath(os.path.join(cwd, f['file'])), ROOT)
                if not fn.startswith('src/'):
                    continue
                for l in f['lines']:
                    if l['count'] > 0:
                        lines.add((fn, l['line_number']))
                    for i, b in enumerate(l.get('branches', [])):
                        if b['count'] > 0:
                            branches.add((fn, l['line_number'], i))
    with open(out, 'wb') as fh:
        pickle.dump({'lines': lines, 'branches': branches}, fh)
    print(f'{out}: {len(lines)} lines, {len(branches)} branches')


def diff(a, b):
    A, B = (pickle.load(open(p, 'rb')) for p in (a, b))
    for kind in ('lines', 'branches'):
        only = sorted(A[kind] - B[kind])
        print(f'{kind}: {len(only)} of {len(A[kind])} only in {a}')
        for x in only:
            print('  ', *x)


if __name__ == '__main__':
    if len(sys.argv) >= 3 and sys.argv[1] == 'collect':
        collect(sys.argv[2], sys.argv[3:])
    elif len(sys.argv) == 4 and sys.argv[1] == 'diff':
        diff(sys.argv[2], sys.argv[3])
    else:
        sys.exit(__doc__)
