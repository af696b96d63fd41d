"""Plants faults and counts who notices them: see scripts/mutate.sh."""
import argparse
import os
import random
import re
import shutil
import subprocess
import sys
from collections import Counter
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
SOURCES = [f"{room}/*.{kind}" for room in ("elasticsearch", "server", "http", "search", "src", "inc", "extension",
                                         "functions")
           for kind in ("cpp", "h")]
PATIENCE = 400  # seconds for a run of the tests; a fault may make them hang
# Neither what measures or does not concern the module, as for a module under sanitizers, nor the documentation.
SQL_TESTS = ["tests/sql", "-m", "not unsanitized", "--ignore=tests/sql/test_documentation.py"]

SWAPS = {"==": "!=", "!=": "==", "<=": "<", ">=": ">", "<": "<=", ">": ">=", "&&": "||", "||": "&&", "+": "-", "-": "+",
         "++": "--", "--": "++", "+=": "-=", "-=": "+=", "true": "false", "false": "true", "|=": "&=", "|": "&"}
TOKEN = re.compile(r"(?<= )(==|!=|<=|>=|<|>|&&|\|\||\+=|-=|\|=|\+|-|\|)(?= )|\+\+|--|\b(?:true|false)\b")
NUMBER = re.compile(r"(?<![\w.\"'])\d+(?![\w.\"'])")
CONDITION = re.compile(r"\bif \((.*)\)( \{)?$")
STATEMENT = re.compile(r"^\s+(?!return|break|using|throw|const|static|auto|constexpr|case|default)"
                       r"[\w.:>\-\[\]()*]+(\(.*\)| [+|-]?= .*|\+\+|--);$")


def faults_of(line):
    """What can be made of a line of code, as (kind, faulty line)."""
    if re.match(r"\s*(//|#|\*|/\*|template|namespace|class|struct|enum|using)", line):
        return
    code = line.split(" // ")[0].rstrip()
    for found in TOKEN.finditer(code):
        if code[:found.start()].count('"') % 2 == 0:
            yield "operator", code[:found.start()] + SWAPS[found[0]] + code[found.end():]
    for found in NUMBER.finditer(code):
        if code[:found.start()].count('"') % 2 == 0:
            yield "constant", f"{code[:found.start()]}{int(found[0]) + 1}{code[found.end():]}"
    condition = CONDITION.search(code)
    if condition and "constexpr" not in code and condition[1].count("(") == condition[1].count(")"):
        yield "condition", f"{code[:condition.start()]}if (!({condition[1]})){condition[2] or ''}"
    if STATEMENT.match(code):
        yield "statement left out", re.match(r"\s*", code)[0] + ";"


def all_faults(paths):
    for path in paths:
        for number, line in enumerate((ROOT / path).read_text(encoding="utf-8").split("\n"), 1):
            for kind, faulty in faults_of(line):
                yield path, number, kind, line, faulty


class Copy:
    """A copy of the tree with a build of its own."""

    def __init__(self, folder):
        self.tree, self.build = folder / "tree", folder / "tree/build/mutate"
        listed = subprocess.check_output(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                                         cwd=ROOT).decode().split("\0")
        for name in filter(None, listed):
            target = self.tree / name
            target.parent.mkdir(parents=True, exist_ok=True)
            if (ROOT / name).exists() and not (target.exists() and target.read_bytes() == (ROOT / name).read_bytes()):
                shutil.copy(ROOT / name, target)
        self.call("cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                  "-DWARNINGS_AS_ERRORS=ON")

    def call(self, *command, **environment):
        """Whether a command succeeds within the time it has."""
        with open(self.tree / "build/log", "ab") as log:
            try:
                return subprocess.run([str(part) for part in command], cwd=self.tree, stdout=log, stderr=log,
                                      timeout=PATIENCE, env={**os.environ, **environment}, check=False).returncode == 0
            except subprocess.TimeoutExpired:
                return False

    def who_notices(self):
        """The first of the compiler, the unit tests and the SQL tests that fails; None when nobody does."""
        if not self.call("cmake", "--build", self.build):
            return "the compiler"
        if not self.call("ctest", "--test-dir", self.build, "--stop-on-failure"):
            return "the unit tests"
        if not self.call("/usr/bin/python3", "-B", "-m", "pytest", "-q", "-x", "-p", "no:cacheprovider", *SQL_TESTS,
                         VELTRANE_MODULE=str(self.build / "libVeltranePgFdw3_0.so"), VELTRANE_FAILURES="1"):
            return "the SQL tests"
        return None

    def try_fault(self, path, number, faulty):
        target = self.tree / path
        lines = (ROOT / path).read_text(encoding="utf-8").split("\n")
        lines[number - 1] = faulty
        target.write_text("\n".join(lines), encoding="utf-8")
        try:
            return self.who_notices()
        finally:
            shutil.copyfile(ROOT / path, target)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--seed", type=int, default=0)
    parser.add_argument("--count", type=int, default=20)
    parser.add_argument("files", nargs="*")
    options = parser.parse_args()
    files = options.files or sorted(str(path.relative_to(ROOT)) for glob in SOURCES for path in ROOT.glob(glob))
    faults = list(all_faults(files))
    chosen = random.Random(options.seed).sample(faults, min(options.count, len(faults)))
    folder = ROOT / f"build/mutate/{options.seed}"
    (folder / "tree/build").mkdir(parents=True, exist_ok=True)
    copy = Copy(folder)
    if copy.who_notices():
        sys.exit(f"The tests fail without a fault: see {folder}/tree/build/log")
    noticed = Counter()
    for path, number, kind, line, faulty in chosen:
        notice = copy.try_fault(path, number, faulty)
        noticed[notice or "nobody"] += 1
        print(f"{notice or 'SURVIVED'}: {path}:{number}: {kind}: {line.strip()}  ->  {faulty.strip()}", flush=True)
    print(f"{len(chosen)} faults of {len(faults)}; noticed by " +
          ", ".join(f"{who}: {count}" for who, count in sorted(noticed.items())))


if __name__ == "__main__":
    main()
