#!/usr/bin/env python3
"""A bounded mutation run: what the test suite catches.

From a fixed seed, picks about MUTANTS mutants over the rooms of src/ in
proportion to their size, applies each alone to a copy of the tree (never to
the working tree), builds the copy incrementally, runs the suite with a time
limit, and prints killed / survived / timed out per room with each survivor.

    scripts/mutants.py [--mutants N] [--seed S] [--work DIR] [--limit SECONDS]
    scripts/mutants.py --only "src/x.cpp:12:negate condition" ...

--files REGEX picks the mutants only from the sources whose paths match:
one room, or the sources that one test file covers.

--only runs the named mutants alone, as a survivor list names them: what a
new test catches, or what a cut one let through. --tests REGEX runs only the
tests whose names match (ctest -R): what one test file still catches.

--matrix runs the whole suite on each mutant instead of stopping at the first
failure, prints the tests that killed it, and at the end the tests that
killed none and the mutants that one test alone killed: where cutting is
safe, and what a cut would let through. It takes about twice as long.
"""

import argparse
import collections
import filecmp
import os
import random
import re
import shutil
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# Each operator: a name, a pattern on one source line, and the replacement
# of its first group (or of the whole match when it has none).
COMPARISONS = {" == ": " != ", " != ": " == ", " < ": " >= ", " >= ": " < ",
               " > ": " <= ", " <= ": " > "}
BOUNDARIES = {" < ": " <= ", " <= ": " < ", " > ": " >= ", " >= ": " > "}


def flip_comparison(line):
    return [(m.start(), m.end(), COMPARISONS[m.group(0)], "flip" + m.group(0).rstrip())
            for m in re.finditer(r" (==|!=|<=|>=|<|>) ", line)]


def move_boundary(line):
    return [(m.start(), m.end(), BOUNDARIES[m.group(0)], "boundary" + m.group(0).rstrip())
            for m in re.finditer(r" (<=|>=|<|>) ", line)]


def negate_condition(line):
    m = re.match(r"^(\s*(?:\} else )?(?:if|while) \()(.*)(\) \{)$", line)
    if not m:
        return []
    return [(m.start(2), m.end(2), "!(" + m.group(2) + ")", "negate condition")]


def drop_call(line):
    # A statement that is a call alone: its result unused, its effect dropped.
    m = re.match(r"^(\s*)([A-Za-z_][\w:.\->]*\(.*\);)$", line)
    if not m or re.match(r"^\s*(return|delete|throw|case|goto)\b", line):
        return []
    return [(m.start(2), m.end(2), ";", "drop call")]


def other_boolean(line):
    found = []
    for m in re.finditer(r"\breturn (true|false);", line):
        other = "false" if m.group(1) == "true" else "true"
        found.append((m.start(1), m.end(1), other, "return " + other))
    return found


def empty_string(line):
    return [(m.start(1), m.end(1), '""', "return empty string")
            for m in re.finditer(r'\breturn ("[^"]+");', line)]


def change_limit(line):
    m = re.match(r"^\s*(?:static )?(?:const|constexpr)\s+[\w:]+(?: const)?\s+k[A-Z]\w*\s*=\s*"
                 r"([0-9][0-9 *]*[0-9]|[0-9]+);", line)
    if not m:
        return []
    return [(m.start(1), m.end(1), "(" + m.group(1) + ") / 2", "halve limit")]


OPERATORS = [flip_comparison, move_boundary, negate_condition, drop_call, other_boolean,
             empty_string, change_limit]


def room_of(path):
    parts = path.split("/")
    return parts[1] if len(parts) > 2 else "main"


def sources():
    listed = subprocess.run(["git", "ls-files", "src"], cwd=ROOT, check=True,
                            capture_output=True, text=True).stdout.split()
    return sorted(p for p in listed if p.endswith((".cpp", ".h")))


def candidates(path):
    """Every mutation site of a file: (path, line number, start, end, text, what)."""
    found = []
    with open(os.path.join(ROOT, path), encoding="utf-8", errors="surrogateescape") as f:
        lines = f.read().split("\n")
    in_comment = False
    for number, line in enumerate(lines, 1):
        stripped = line.strip()
        if in_comment or stripped.startswith("/*"):
            in_comment = "*/" not in stripped
            continue
        if stripped.startswith(("//", "#")) or "QLOG(" in line or not stripped:
            continue
        for operator in OPERATORS:
            for start, end, text, what in operator(line):
                found.append((path, number, start, end, text, what))
    return found


def non_blank_lines(path):
    with open(os.path.join(ROOT, path), encoding="utf-8", errors="surrogateescape") as f:
        return sum(1 for line in f if line.strip())


def pick(count, seed, files=None):
    """About count mutants over the rooms, in proportion to their size; with
    files, only from the sources whose paths match that pattern."""
    rng = random.Random(seed)
    by_room = collections.defaultdict(list)
    size = collections.Counter()
    for path in sources():
        if files and not re.search(files, path):
            continue
        room = room_of(path)
        size[room] += non_blank_lines(path)
        by_room[room].extend(candidates(path))
    total = sum(size.values())
    picked = []
    for room in sorted(by_room):
        share = max(1, round(count * size[room] / total))
        sites = by_room[room]
        picked.extend(rng.sample(sites, min(share, len(sites))))
    return picked


def named(names):
    """The mutants that survivor lines ("src/x.cpp:12: drop call") name."""
    wanted = set(name.replace(": ", ":") for name in names)
    return [m for path in sources() for m in candidates(path)
            if "%s:%d:%s" % (m[0], m[1], m[5]) in wanted]


def copy_tree(work):
    """The copy of the tracked files under work; files that are already the
    same stay untouched, so that an earlier run's build stays incremental.
    A file copied gets the time of the copy, not its source's: a mutant left
    behind by a run that was killed was built after the source was last
    changed, and its objects would otherwise look newer than the original."""
    tree = os.path.join(work, "tree")
    listed = subprocess.run(["git", "ls-files"], cwd=ROOT, check=True, capture_output=True,
                            text=True).stdout.split("\n")
    for path in filter(None, listed):
        source, target = os.path.join(ROOT, path), os.path.join(tree, path)
        if os.path.lexists(target) and filecmp.cmp(source, target, shallow=False):
            continue
        os.makedirs(os.path.dirname(target), exist_ok=True)
        if os.path.lexists(target):
            os.remove(target)
        shutil.copy(source, target, follow_symlinks=False)
    return tree


def run(command, cwd, limit):
    """Exit status of command, or None when it ran over limit seconds."""
    try:
        return subprocess.run(command, cwd=cwd, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, timeout=limit,
                              start_new_session=True).returncode
    except subprocess.TimeoutExpired:
        return None


def build(tree, limit):
    return run(["cmake", "--build", "build", "-j", "2"], tree, limit)


def ctest_output(arguments, tree, limit):
    """ctest's exit status and standard output, or (None, "") past limit seconds."""
    try:
        done = subprocess.run(["ctest", "--test-dir", "build"] + arguments, cwd=tree,
                              capture_output=True, text=True, timeout=limit,
                              start_new_session=True)
        return done.returncode, done.stdout
    except subprocess.TimeoutExpired:
        return None, ""


def test(tree, limit, whole=False, only=None):
    """The suite's exit status (None past limit seconds) and the names of the
    tests that failed; it stops at the first failure unless whole. With only,
    just the tests whose names match that pattern run."""
    stop = [] if whole else ["--stop-on-failure"]
    chosen = ["-R", only] if only else []
    status, output = ctest_output(["-j", "2", "--timeout", "120"] + stop + chosen, tree, limit)
    failed = output.partition("The following tests FAILED:")[2]
    return status, re.findall(r"^\s*\d+ - (\S+)", failed, re.M)


def all_tests(tree, only=None):
    _, output = ctest_output(["-N"] + (["-R", only] if only else []), tree, 600)
    return re.findall(r"^\s*Test\s+#\d+: (\S+)", output, re.M)


def print_matrix(tree, killers, only):
    """Tests that killed no mutant, and mutants that one test alone killed."""
    killing = set(name for _, names in killers for name in names)
    print("\ntests that killed no mutant:")
    for name in all_tests(tree, only):
        if name not in killing:
            print("  " + name)
    print("\nmutants that one test alone killed:")
    for mutant, names in killers:
        if len(names) == 1:
            print("  %s by %s" % (mutant, names[0]))


def mutate(tree, mutant):
    path, number, start, end, text, _ = mutant
    full = os.path.join(tree, path)
    with open(full, encoding="utf-8", errors="surrogateescape") as f:
        original = f.read()
    lines = original.split("\n")
    line = lines[number - 1]
    lines[number - 1] = line[:start] + text + line[end:]
    with open(full, "w", encoding="utf-8", errors="surrogateescape") as f:
        f.write("\n".join(lines))
    return full, original


def restore(full, original):
    with open(full, "w", encoding="utf-8", errors="surrogateescape") as f:
        f.write(original)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--mutants", type=int, default=80)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--work", default=os.path.join(ROOT, "build-mutants"))
    parser.add_argument("--limit", type=int, default=600,
                        help="seconds for each mutant's build and suite")
    parser.add_argument("--only", nargs="+", metavar="PATH:LINE:CHANGE")
    parser.add_argument("--files", metavar="REGEX",
                        help="pick mutants only from the sources whose paths match")
    parser.add_argument("--tests", metavar="REGEX",
                        help="run only the tests whose names match")
    parser.add_argument("--matrix", action="store_true",
                        help="run the whole suite on each mutant and say which tests kill it")
    args = parser.parse_args()

    mutants = named(args.only) if args.only else pick(args.mutants, args.seed, args.files)
    tree = copy_tree(args.work)
    print("%d mutants, seed %d; building the unmutated copy in %s" % (len(mutants), args.seed, tree))
    sys.stdout.flush()
    configure = ["cmake", "-S", ".", "-B", "build", "-DQUORVIA_CORE_SHARED=ON"]
    if run(configure, tree, 600) != 0 or build(tree, 3600) != 0 or test(tree, 3600, only=args.tests)[0] != 0:
        print("the unmutated copy does not build or pass its suite: no mutants run")
        return 1

    results = collections.defaultdict(collections.Counter)
    survivors = []
    # (label, tests) per killed mutant, in order; two mutants of one line
    # share a label, so it is no key.
    killers = []
    for index, mutant in enumerate(mutants, 1):
        path, number, _, _, _, what = mutant
        label = "%s:%d: %s" % (path, number, what)
        started = time.time()
        failed = []
        full, original = mutate(tree, mutant)
        try:
            built = build(tree, args.limit)
            left = args.limit - (time.time() - started)
            if built is None:
                outcome = "timed out"
            elif built != 0:
                outcome = "unbuildable"
            else:
                status, failed = test(tree, max(1, left), args.matrix, args.tests)
                outcome = "timed out" if status is None else "killed" if status else "survived"
                if args.matrix and failed:
                    killers.append((label, failed))
        finally:
            restore(full, original)
        results[room_of(path)][outcome] += 1
        if outcome == "survived":
            survivors.append(label)
        print("%3d/%d %-12s %s (%.0f s)" % (index, len(mutants), outcome, label,
                                           time.time() - started))
        if args.matrix and failed:
            print("          by " + " ".join(failed))
        sys.stdout.flush()
    # The copy is left as it was before the mutants: build it back.
    build(tree, 3600)

    columns = ["killed", "survived", "timed out", "unbuildable"]
    print("\n%-14s %8s %8s %10s %12s" % ("room", *columns))
    totals = collections.Counter()
    for room in sorted(results):
        totals.update(results[room])
        print("%-14s %8d %8d %10d %12d" % (room, *(results[room][c] for c in columns)))
    print("%-14s %8d %8d %10d %12d" % ("all", *(totals[c] for c in columns)))
    if survivors:
        print("\nsurvivors:")
        for survivor in survivors:
            print("  " + survivor)
    if args.matrix:
        print_matrix(tree, killers, args.tests)
    return 0


if __name__ == "__main__":
    sys.exit(main())
