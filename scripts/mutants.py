#!/usr/bin/env python3
"""Mutation testing of the libraries' code: see docs/mutation-testing.md.

Lists every mutation site of the chosen source files in a fixed order, picks a reproducible
sample, and for each mutant writes the mutated file, rebuilds build-mutants incrementally, runs
the unit tests with a time limit and restores the file. The original text is kept in
build-mutants/backup while a mutant is applied, so that an interrupted run is undone by the next.
"""

import argparse
import difflib
import fnmatch
import glob
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), ".."))
DEFAULT_FILES = ["pal/*.cpp", "devices/*.cpp"]
# The stand-in of the companion library and the examples are not the libraries' code.
NEVER = ["crosscutting/*", "examples/*", "tests/*", "bench/*", "fuzz/*"]
EXCLUDED_LABELS = "stress|package|install|bench|format|fault"

LOGGING = re.compile(r"\b(q(C)?(Debug|Info|Warning|Critical|Fatal)|Q_ASSERT(_X)?|Q_UNREACHABLE)\b")
RELATIONAL = [(" == ", " != "), (" != ", " == "), (" < ", " <= "), (" <= ", " < "), (" > ", " >= "),
              (" >= ", " > "), (" && ", " || "), (" || ", " && ")]
INTEGER = re.compile(r"(?<![\w.])(\d+)(?![\w.'])")
CONDITION = re.compile(r"\b(if|while)\s*\(")
RETURN = re.compile(r"^(\s*)return\s+(.+);\s*$")
# An expression statement that starts with a call, a member access or an assignment, not a declaration.
STATEMENT = re.compile(r"^\s*(emit\s+)?[A-Za-z_][\w:]*(\s*(\(|->|\.|\[|\+\+|--)|\s+[-+*/|&^]?=\s)")
KEYWORDS = ("return", "if", "while", "for", "switch", "case", "delete", "else", "do", "break", "continue")


def mask(line):
    """The line with the insides of string and character literals and any comment blanked."""
    out, quote, i = [], None, 0
    while i < len(line):
        c = line[i]
        if quote:
            if c == "\\":
                out.append("__")
                i += 2
                continue
            out.append(c if c == quote else "_")
            if c == quote:
                quote = None
        elif c in "\"'":
            quote = c
            out.append(c)
        elif line.startswith("//", i):
            break
        else:
            out.append(c)
        i += 1
    return "".join(out).ljust(len(line))


def closing_paren(text, start):
    depth = 0
    for i in range(start, len(text)):
        if text[i] == "(":
            depth += 1
        elif text[i] == ")":
            depth -= 1
            if depth == 0:
                return i
    return -1


def sites(lines):
    """(line index, column, operator, replacement line) of every mutation of one file, in order."""
    result = []
    in_comment = False
    in_logging = False
    for n, raw in enumerate(lines):
        line = raw.rstrip("\n")
        stripped = line.strip()
        if in_comment:
            if "*/" in stripped:
                in_comment = False
            continue
        if stripped.startswith("/*"):
            in_comment = "*/" not in stripped
            continue
        if not stripped or stripped.startswith(("//", "#", "*")):
            continue
        code = mask(line)
        if in_logging or LOGGING.search(code):
            # A log statement may continue over several lines; all of it is left alone.
            in_logging = not code.rstrip().endswith(";")
            continue
        found = []
        for old, new in RELATIONAL:
            for m in re.finditer(re.escape(old), code):
                found.append((m.start(), "relational", line[:m.start()] + new + line[m.end():]))
        for m in CONDITION.finditer(code):
            open_at = m.end() - 1
            close_at = closing_paren(code, open_at)
            if close_at > 0:
                inner = line[open_at + 1:close_at]
                found.append((m.start(), "negate", line[:open_at + 1] + "!(" + inner + ")" + line[close_at:]))
        for m in INTEGER.finditer(code):
            value = int(m.group(1))
            found.append((m.start(), "constant+1", line[:m.start()] + str(value + 1) + line[m.end():]))
            if value > 0:
                found.append((m.start(), "constant-1", line[:m.start()] + str(value - 1) + line[m.end():]))
        ret = RETURN.match(code)
        if ret:
            indent, value = ret.group(1), line[ret.start(2):ret.end(2)].strip()
            if value in ("true", "false"):
                found.append((len(indent), "return", indent + "return " + ("false" if value == "true" else "true") + ";"))
            elif value not in ("{}", "nullptr"):
                found.append((len(indent), "return", indent + "return {};"))
        first = stripped.split("(")[0].split()[0] if stripped.split() else ""
        if (STATEMENT.match(code) and code.rstrip().endswith(";") and first not in KEYWORDS
                and code.count("(") == code.count(")") and not stripped.startswith("}")):
            found.append((0, "remove", line[:len(line) - len(line.lstrip())] + ";"))
        for col, op, new in sorted(found, key=lambda f: (f[0], f[1])):
            if new != line:
                result.append((n, col, op, new))
    return result


def source_files(patterns):
    files = set()
    for pattern in patterns:
        for path in glob.glob(os.path.join(ROOT, pattern)):
            rel = os.path.relpath(path, ROOT)
            if rel.endswith(".cpp") and not any(fnmatch.fnmatch(rel, p) for p in NEVER):
                files.add(rel)
    return sorted(files)


class Run:
    def __init__(self, args):
        self.args = args
        self.build = os.path.join(ROOT, args.build_dir)
        self.backup = os.path.join(self.build, "backup")

    def restore_leftovers(self):
        """Puts back any file that an interrupted earlier run left mutated."""
        if not os.path.isdir(self.backup):
            return
        for dirpath, _, names in os.walk(self.backup):
            for name in names:
                saved = os.path.join(dirpath, name)
                rel = os.path.relpath(saved, self.backup)
                # A new modification time, so that builds made from the mutant are made again.
                shutil.copyfile(saved, os.path.join(ROOT, rel))
                os.remove(saved)
                print(f"restored {rel} from an interrupted run", flush=True)

    def command(self, cmd, limit):
        """(exit code or None on time-out, output, seconds); the whole process group goes on time-out."""
        start = time.monotonic()
        proc = subprocess.Popen(cmd, cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                text=True, errors="replace", start_new_session=True)
        try:
            out, _ = proc.communicate(timeout=limit)
            return proc.returncode, out, time.monotonic() - start
        except subprocess.TimeoutExpired:
            os.killpg(proc.pid, signal.SIGKILL)
            out, _ = proc.communicate()
            return None, out, time.monotonic() - start
        except BaseException:
            os.killpg(proc.pid, signal.SIGKILL)
            proc.wait()
            raise

    def configure(self):
        os.environ.setdefault("CCACHE_BASEDIR", os.path.dirname(ROOT))
        os.environ.setdefault("CCACHE_NOHASHDIR", "1")
        # Optimised a little and without debug information: fast to rebuild and to run. Without
        # warnings, since a mutant that leaves a parameter unused is still a mutant to test. Test
        # programs are not relinked when only the library changed.
        cmd = ["cmake", "-S", ".", "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
               "-DCMAKE_CXX_FLAGS_RELEASE=-O1 -DNDEBUG -w", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON"]
        if shutil.which("ccache"):
            cmd.append("-DCMAKE_CXX_COMPILER_LAUNCHER=ccache")
        code, out, _ = self.command(cmd, 600)
        if code != 0:
            sys.exit("configuring build-mutants failed:\n" + out)

    def build_and_test(self, test_limit):
        code, out, build_time = self.command(["cmake", "--build", self.build, "--parallel", str(self.args.jobs)],
                                             self.args.build_timeout)
        if code != 0:
            return "build failed", out, build_time, 0
        code, out, test_time = self.command(
            ["ctest", "--test-dir", self.build, "-LE", EXCLUDED_LABELS, "--stop-on-failure",
             "--parallel", str(self.args.jobs), "--output-on-failure"], test_limit)
        if code is None or re.search(r"\(Timeout\)", out):
            return "timed out", out, build_time, test_time
        return ("killed" if code != 0 else "survived"), out, build_time, test_time

    def apply(self, rel, lines, n, new):
        saved = os.path.join(self.backup, rel)
        os.makedirs(os.path.dirname(saved), exist_ok=True)
        shutil.copy2(os.path.join(ROOT, rel), saved)
        mutated = list(lines)
        mutated[n] = new + "\n"
        with open(os.path.join(ROOT, rel), "w") as f:
            f.writelines(mutated)

    def restore(self, rel, lines):
        with open(os.path.join(ROOT, rel), "w") as f:
            f.writelines(lines)
        saved = os.path.join(self.backup, rel)
        if os.path.exists(saved):
            os.remove(saved)


def interrupted(signum, frame):
    raise KeyboardInterrupt()


def main():
    parser = argparse.ArgumentParser(prog="run-mutants.sh", description=__doc__.splitlines()[0])
    parser.add_argument("--max", type=int, default=0, help="test at most N mutants (a sample; 0: all)")
    parser.add_argument("--seed", type=int, default=1, help="seed of the sample (default 1)")
    parser.add_argument("--files", action="append", metavar="GLOB",
                        help="source files to mutate, relative to the top directory (repeatable; "
                             "default: pal/*.cpp and devices/*.cpp)")
    parser.add_argument("--list", action="store_true", help="only list the chosen mutants")
    parser.add_argument("--jobs", type=int, default=2, help="parallel build and test jobs (default 2)")
    parser.add_argument("--build-dir", default="build-mutants", help="build directory (default build-mutants)")
    parser.add_argument("--build-timeout", type=int, default=900, help="seconds per build (default 900)")
    parser.add_argument("--timeout", type=int, default=0,
                        help="seconds per test run (default: three times the unmutated run, at least 30)")
    args = parser.parse_args()

    run = Run(args)
    # First, so that a file left mutated by a run that was killed is not read as the source.
    run.restore_leftovers()
    files = source_files(args.files or DEFAULT_FILES)
    if not files:
        sys.exit("no source file matches")
    texts = {}
    candidates = []
    for rel in files:
        with open(os.path.join(ROOT, rel)) as f:
            texts[rel] = f.readlines()
        candidates += [(rel,) + s for s in sites(texts[rel])]
    chosen = list(range(len(candidates)))
    if args.max and args.max < len(candidates):
        chosen = sorted(random.Random(args.seed).sample(chosen, args.max))
    print(f"{len(candidates)} mutants in {len(files)} files; testing {len(chosen)} "
          f"(--max {args.max} --seed {args.seed})", flush=True)
    if args.list:
        signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # "| head" ends the listing quietly
        for i in chosen:
            rel, n, col, op, new = candidates[i]
            print(f"#{i} {rel}:{n + 1}:{col + 1} {op}: {new.strip()}")
        return 0

    # Ctrl-C and termination end the run through the same path that restores the file.
    signal.signal(signal.SIGINT, interrupted)
    signal.signal(signal.SIGTERM, interrupted)
    signal.signal(signal.SIGHUP, interrupted)
    os.makedirs(run.build, exist_ok=True)
    run.configure()
    verdict, out, build_time, test_time = run.build_and_test(args.timeout or 3600)
    if verdict != "survived":
        sys.exit(f"the unmutated code does not pass its tests ({verdict}):\n{out[-4000:]}")
    test_limit = args.timeout or max(30, int(3 * test_time))
    print(f"unmutated tests: {test_time:.0f} s; time limit per test run {test_limit} s", flush=True)

    results = []
    started = time.monotonic()
    try:
        for k, i in enumerate(chosen, 1):
            rel, n, col, op, new = candidates[i]
            run.apply(rel, texts[rel], n, new)
            try:
                verdict, out, build_time, test_time = run.build_and_test(test_limit)
            finally:
                run.restore(rel, texts[rel])
            results.append((i, verdict))
            # Which tests caught it: a kill by a single timing-sensitive test is worth a second look.
            failed = re.findall(r"^\s*\d+ - (\S+) \(", out.split("The following tests FAILED:")[-1], re.M)
            by = f" by {', '.join(failed)}" if verdict == "killed" and failed else ""
            print(f"[{k}/{len(chosen)}] #{i} {rel}:{n + 1} {op}: {verdict}{by} "
                  f"(build {build_time:.0f} s, tests {test_time:.0f} s)", flush=True)
    except KeyboardInterrupt:
        print("interrupted; the source files are restored", flush=True)
    elapsed = time.monotonic() - started

    per_file = {}
    for i, verdict in results:
        per_file.setdefault(candidates[i][0], {}).setdefault(verdict, 0)
        per_file[candidates[i][0]][verdict] += 1
    kinds = ["killed", "survived", "timed out", "build failed"]

    def score(counts):
        tested = counts.get("killed", 0) + counts.get("timed out", 0) + counts.get("survived", 0)
        return f"{100.0 * (tested - counts.get('survived', 0)) / tested:5.1f}%" if tested else "    -"

    print("\n%-34s %7s %9s %10s %13s %7s" % ("file", "killed", "survived", "timed out", "build failed", "score"))
    total = {}
    for rel in sorted(per_file):
        counts = per_file[rel]
        for kind in kinds:
            total[kind] = total.get(kind, 0) + counts.get(kind, 0)
        print("%-34s %7d %9d %10d %13d %7s" % ((rel,) + tuple(counts.get(k, 0) for k in kinds) + (score(counts),)))
    print("%-34s %7d %9d %10d %13d %7s" % (("total",) + tuple(total.get(k, 0) for k in kinds) + (score(total),)))
    if results:
        print(f"{len(results)} mutants in {elapsed / 60:.1f} min, {elapsed / len(results):.0f} s each")

    survivors = [i for i, verdict in results if verdict == "survived"]
    if survivors:
        print("\nSurviving mutants:")
    for i in survivors:
        rel, n, col, op, new = candidates[i]
        mutated = list(texts[rel])
        mutated[n] = new + "\n"
        print(f"\n#{i} {op}")
        sys.stdout.writelines(difflib.unified_diff(texts[rel], mutated, "a/" + rel, "b/" + rel, n=1))
    return 0


if __name__ == "__main__":
    sys.exit(main())
