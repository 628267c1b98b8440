#!/usr/bin/env python3
"""Mutates the library's sources, one small change at a time, and runs the unit tests on each.

    make mutants [SEED=N] [COUNT=N|all] [JOBS=N] [FILES='libdatamorph_epp.cpp libdatamorph_main.cpp:350']

A mutant is killed when a unit test fails, crashes or hangs on it. Left out and counted are those that
do not compile, and those whose object code is that of the original or of another mutant. Those that
live and do nothing else than the original stand in tests/mutants/survivors.txt with the reason, and are
counted apart. The exit status is 1 when fewer than 95 % of the others die.

Everything happens in copies under build-mutants/ (or --work); the source tree is only read. With --build
the tests' objects of a build that is there are taken, and none is made.
"""

import argparse
import concurrent.futures
import hashlib
import os
import pathlib
import queue
import random
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
LIBRARY = ROOT / "infra/convert_libs/comps/libdatamorph"
TABLE = ROOT / "tests/mutants/survivors.txt"
LIMIT = 95.0  # percent that die

# The tests that speak of a source come first. What is not named here is main's and the shared header's.
FIRST_TESTS = {
    "epp": "epp_*",
    "ethpm": "ethpm_*:kept_key_*:circle_guard_*",
    "ike": "ike_*:main_test.*",
    "foo": "svi_*",
    "pixm": "pixm_*:circle_guard_*",
    "psshlpr": "psshlpr_*:svi_*",
    "svi": "svi_*",
    "vrrp": "vrrp_*",
    "vrrp_mgr": "vrrp_*",
    "vrrp_engine": "vrrp_*",
    "walk": "ethpm_*:kept_key_*:circle_guard_*:pixm_*:vrrp_*",
}

# ---- The mutations ------------------------------------------------------------------------------

TOKEN = re.compile(
    r"""(?P<comment>//[^\n]*|/\*.*?\*/)
      |(?P<directive>^[ ]*\#(?:[^\n]*\\\n)*[^\n]*)
      |(?P<text>"(?:[^"\\\n]|\\.)*")
      |(?P<char>'(?:[^'\\\n]|\\.)+')
      |(?P<number>\b(?:0[xX][0-9a-fA-F]+|[0-9]+)[uUlL]*\b)
      |(?P<name>[A-Za-z_]\w*)
      |(?P<operator><<=|>>=|->|::|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|[^\s\w])""",
    re.VERBOSE | re.DOTALL | re.MULTILINE,
)

# What stands between blanks in this code is an operation; what does not is a type's.
OPERATORS = {
    "<": ["<=", ">="],
    "<=": ["<", ">"],
    ">": [">=", "<="],
    ">=": [">", "<"],
    "==": ["!="],
    "!=": ["=="],
    "&&": ["||"],
    "||": ["&&"],
    "+": ["-"],
    "-": ["+"],
    "*": ["/"],
    "/": ["*"],
    "|": ["&"],
    "&": ["|"],
    "<<": [">>"],
    ">>": ["<<"],
    "+=": ["-="],
    "-=": ["+="],
    "*=": ["+="],
}
UNSPACED = {"++": ["--"], "--": ["++"]}
NOT_CONSTANTS = {"NULL", "FILE", "EOF"}
STATEMENT_WORDS = {"return", "if", "for", "while", "do", "switch", "case", "default", "using", "struct",
                   "class", "enum", "namespace", "extern", "template", "static_assert", "else", "public",
                   "private", "explicit", "typedef", "constexpr", "const", "inline", "static"}


class Token:
    def __init__(self, match):
        self.kind = match.lastgroup
        self.text = match.group()
        self.start = match.start()
        self.end = match.end()


class Mutant:
    def __init__(self, file, source, edits, change):
        self.file = file
        self.source = source
        self.edits = sorted(edits)  # (start, end, replacement), apart from each other
        self.line = source.count("\n", 0, self.edits[0][0]) + 1
        whole = source.splitlines()[self.line - 1]
        self.code = whole.strip()
        column = self.edits[0][0] - source.rfind("\n", 0, self.edits[0][0]) - (len(whole) - len(whole.lstrip()))
        self.change = f"{column}: {change}"  # where in the line of code, and what

    def changed_source(self):
        source = self.source
        for start, end, text in reversed(self.edits):
            source = source[:start] + text + source[end:]
        return source

    def where(self):
        return f"{self.file}:{self.line}: {self.code}   [{self.change}]"


def tokens_of(source):
    """The tokens, without comments, directives, compile-time assertions and attributes."""
    tokens = [Token(match) for match in TOKEN.finditer(source)]
    tokens = [token for token in tokens if token.kind not in ("comment", "directive")]
    kept = []
    at = 0
    while at < len(tokens):
        if tokens[at].text in ("static_assert", "__attribute__"):
            at = closing(tokens, at + 1) + 1
            continue
        kept.append(tokens[at])
        at += 1
    return kept


def closing(tokens, at):
    """Where the bracket that opens at `at` closes."""
    depth = 0
    for here in range(at, len(tokens)):
        depth += tokens[here].text in "([{"
        depth -= tokens[here].text in ")]}"
        if depth == 0:
            return here
    raise ValueError(f"no end of the bracket at {tokens[at].start}")


def number_mutations(token):
    match = re.fullmatch(r"(0[xX][0-9a-fA-F]+|[0-9]+)([uUlL]*)", token.text)
    digits, suffix = match.groups()
    value = int(digits, 8 if re.fullmatch("0[0-9]+", digits) else 0)
    values = [1, 97] if value == 0 else [value + 1, value - 1, 0]
    for changed in dict.fromkeys(values):
        yield f"{changed}{suffix}"


def text_mutation(token):
    """The first character that is printed as it stands becomes another one."""
    body = token.text[1:-1]
    at = 0
    while at < len(body):
        special = re.compile(r"%[-+ #0-9.*]*(?:hh|h|ll|l|z)?[a-zA-Z%]|\\.").match(body, at)
        if special:
            at = special.end()
            continue
        other = body[at].swapcase() if body[at].isalpha() else ("#" if body[at] != "#" else "=")
        return f'"{body[:at]}{other}{body[at + 1:]}"'
    return '"#"' if not body else None


def leaf_mutations(source, tokens):
    """Constants, texts and operators: one token each."""
    for at, token in enumerate(tokens):
        after = tokens[at + 1].text if at + 1 < len(tokens) else ""
        before = tokens[at - 1].text if at > 0 else ""
        changes = []
        if token.kind == "number":
            changes = list(number_mutations(token))
        elif token.kind == "text" and before != "extern":
            changes = [text_mutation(token)]
        elif token.kind == "char" and len(token.text) == 3:
            changes = [f"'{chr(ord(token.text[1]) + 1)}'"]
        elif token.text in ("true", "false"):
            changes = ["false" if token.text == "true" else "true"]
        elif token.kind == "name" and re.fullmatch(r"[A-Z][A-Z0-9_]{2,}", token.text):
            if after not in ("(", "=", "*", "::") and token.text not in NOT_CONSTANTS and before not in ("enum", "struct"):
                changes = [f"static_cast<decltype({token.text})>({token.text} + 1)"]
        elif token.kind == "operator" and token.text in OPERATORS:
            if source[token.start - 1] in " \n" and source[token.end] in " \n" and before not in ("template", "operator"):
                changes = OPERATORS[token.text]
        elif token.text in UNSPACED:
            changes = UNSPACED[token.text]
        for changed in filter(None, changes):
            shown = "+ 1" if changed.startswith("static_cast") else changed
            yield [(token.start, token.end, changed)], f"{token.text} -> {shown}"


def negation(tokens, first, last):
    """The edits that negate the expression from `first` to before `last`; null where it is none."""
    if first >= last:
        return None
    return [(tokens[first].start, tokens[first].start, "!("), (tokens[last - 1].end, tokens[last - 1].end, ")")]


def condition_range(tokens, open_at, keyword):
    """From where to where the condition stands in the brackets of an if, while, switch or for."""
    close_at = closing(tokens, open_at)
    depth = 0
    ends = []
    for at in range(open_at, close_at):
        depth += tokens[at].text in "([{"
        depth -= tokens[at].text in ")]}"
        if tokens[at].text == ";" and depth == 1:
            ends.append(at)
    if keyword == "for":
        return (ends[0] + 1, ends[1]) if len(ends) == 2 else (0, 0)
    return (ends[-1] + 1 if ends else open_at + 1), close_at


def condition_mutations(tokens):
    """Conditions of statements and of choices, as a whole, become their opposite."""
    for at, token in enumerate(tokens):
        if token.text in ("if", "while", "for") and tokens[at + 1].text == "(":
            edits = negation(tokens, *condition_range(tokens, at + 1, token.text))
            if edits:
                yield edits, "condition negated"
        elif token.text == "?":
            first = at
            depth = 0
            while first > 0:
                before = tokens[first - 1].text
                depth += before in ")]}"
                depth -= before in "([{"
                if depth < 0 or (depth == 0 and before in (";", ",", "=", "return", "?", ":", "{", "}")):
                    break
                first -= 1
            yield negation(tokens, first, at), "condition negated"


def statements(tokens):
    """The plain statements: (first token, token of the semicolon, its kind), in order."""
    at = 0
    while at < len(tokens):
        before = tokens[at - 1].text if at > 0 else ";"
        if before not in (";", "{", "}", ":") or tokens[at].text in "{}":
            at += 1
            continue
        end = at
        depth = 0
        while end < len(tokens):
            text = tokens[end].text
            if depth == 0 and text in (";", "{", "}"):
                break
            depth += text in "(["
            depth -= text in ")]"
            end += 1
        if end < len(tokens) and tokens[end].text == ";" and end > at:
            kind = statement_kind(tokens, at, end)
            if kind:
                yield at, end, kind
        at = max(end, at + 1)


def statement_kind(tokens, at, end):
    words = [token.text for token in tokens[at:end]]
    if words[0] == "return":
        return "return"
    if words in (["break"], ["continue"]):
        return "jump"
    if words[0] in STATEMENT_WORDS:
        return None
    path = 1 if words[0] == "*" else 0  # what is assigned to or called: a.b->c[d]
    if path >= len(words) or not re.match(r"[A-Za-z_]", words[path]):
        return "step" if words[0] in ("++", "--") else None
    path += 1
    while path < len(words):
        if words[path] in (".", "->", "::"):
            path += 2
        elif words[path] == "[":
            path = closing(tokens, at + path) - at + 1
        else:
            break
    if path < len(words) and words[path] == "(" and closing(tokens, at + path) == end - 1 and words[0] != "*":
        return "call"
    if path < len(words) and words[path] in ("=", "+=", "-=", "*="):
        return "assigned call" if words[-1] == ")" else "assignment"
    return None


def lines_only(text):
    return "\n" * text.count("\n")


def statement_mutations(source, tokens):
    """Statements go, neighbours change places, returned values become none."""
    previous = None
    for first, end, kind in statements(tokens):
        start, stop = tokens[first].start, tokens[end].end
        if kind == "return":
            if end > first + 1:
                yield [(tokens[first + 1].start, tokens[end].start, "{}" + lines_only(source[tokens[first + 1].start:tokens[end].start]))], "returns {}"
            previous = None
            continue
        yield [(start, stop, ";" + lines_only(source[start:stop]))], "statement removed"
        if "call" not in kind:
            previous = None
            continue
        if previous is not None and tokens[first - 1].end == previous[1]:
            yield [(previous[0], previous[1], source[start:stop]), (start, stop, source[previous[0]:previous[1]])], "changes places with the next"
        previous = (start, stop)


def mutants_of(path):
    source = path.read_text()
    tokens = tokens_of(source)
    found = []
    for edits, change in leaf_mutations(source, tokens):
        found.append(Mutant(path.name, source, edits, change))
    for edits, change in condition_mutations(tokens):
        found.append(Mutant(path.name, source, edits, change))
    for edits, change in statement_mutations(source, tokens):
        found.append(Mutant(path.name, source, edits, change))
    return sorted(found, key=lambda mutant: (mutant.edits, mutant.change))


# ---- The unit tests on a mutant -----------------------------------------------------------------


def run(command, cwd, timeout=None, env=None):
    """The exit status; none after the time, when all that it started is ended."""
    process = subprocess.Popen(command, cwd=cwd, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL, start_new_session=True)
    try:
        return process.wait(timeout)
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        process.wait()
        return None


class TestProgram:
    """How the unit tests are compiled and linked, as the build does it."""

    def __init__(self, work, build):
        self.work = work
        self.build = build or work / "build"
        flags = ["-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O0", "-DCMAKE_C_FLAGS_DEBUG=-O0",
                 "-DDATAMORPH_LAB=OFF", "-DDATAMORPH_BENCH=OFF", "-DDATAMORPH_TESTS=ON"]
        if build is None:
            subprocess.run(["cmake", "-S", ROOT, "-B", self.build, "-G", "Ninja", *flags], check=True, stdout=subprocess.DEVNULL)
        subprocess.run(["ninja", "-C", self.build, "unit_test"], check=True, stdout=subprocess.DEVNULL)
        self.compile = {}  # of a source or an object
        listed = subprocess.run(["ninja", "-C", self.build, "-t", "commands", "unit_test"], check=True, capture_output=True, text=True)
        for line in listed.stdout.splitlines():
            for part in line.split(" && "):
                words = shlex.split(part)
                if "-MD" in words:  # the build's own notes of what it used
                    at = words.index("-MD")
                    del words[at:at + 5]
                if "-c" in words:
                    self.compile[words[words.index("-o") + 1]] = words
                elif "tests/unit/unit_test" in words and "-o" in words:
                    self.link = words
        self.library_objects = {pathlib.Path(name).name.removesuffix(".o"): name for name in self.link
                                if "/datamorph_objects.dir/" in name}
        if not any(word.startswith(str(LIBRARY)) for source in self.library_objects
                   for word in self.compile[self.library_objects[source]]):
            sys.exit(f"mutants: {self.build} is not a build of this tree")
        self.test_objects = {pathlib.Path(name).name.removesuffix(".o"): name for name in self.link
                             if "/unit_test.dir/" in name}

    def library_command(self, source):
        """Compiles src/`source` in a worker's folder. Optimized, so that what is the same is the same."""
        words = self.compile[self.library_objects[source]]
        words = [word.replace(str(LIBRARY), "src") for word in words if word not in ("-O0", "-Werror")]
        words[words.index("-o") + 1] = f"{source}.o"
        return words + ["-O1", "-w"]

    def test_command(self, source, worker):
        words = [word.replace(f"-I{LIBRARY}", f"-I{worker}/src") for word in self.compile[self.test_objects[source]]]
        words[words.index("-o") + 1] = str(worker / f"{source}.o")
        return words + ["-w"]

    def link_command(self, worker, objects):
        """With a worker's library objects, and its own of these test sources."""
        changed = {name: str(worker / f"{source}.o") for source, name in self.library_objects.items()}
        changed.update({self.test_objects[source]: str(worker / f"{source}.o") for source in objects})
        changed["tests/unit/unit_test"] = str(worker / "unit_test")
        faster = ["-fuse-ld=lld"] if shutil.which("ld.lld") else []
        return [changed.get(word, word) for word in self.link] + faster


def includers(header):
    """The library's sources that a header reaches, and the test sources that it does."""
    def reaches(path, seen):
        for name in re.findall(r'#include "([^"]+)"', path.read_text()):
            for folder in (path.parent, LIBRARY):
                if (folder / name).is_file() and name not in seen:
                    seen.add(name)
                    reaches(folder / name, seen)
        return seen

    library = [path.name for path in sorted(LIBRARY.glob("*.cpp")) if header in reaches(path, set())]
    tests = [path.name for path in sorted((ROOT / "tests/unit").glob("*.cpp")) if header in reaches(path, set())]
    return library, tests


class Worker:
    """A folder with the library's sources and objects, in which one mutant at a time is made."""

    def __init__(self, program, number, scratch):
        self.program = program
        self.folder = program.work / f"worker-{number}"
        shutil.rmtree(self.folder, ignore_errors=True)
        shutil.copytree(LIBRARY, self.folder / "src")
        self.scratch = scratch / str(number)
        self.scratch.mkdir()
        self.original = {}
        for source in program.library_objects:
            if run(program.library_command(source), self.folder) != 0:
                sys.exit(f"mutants: {source} does not compile as it stands")
            self.original[source] = (self.folder / f"{source}.o").read_bytes()

    def tests(self, filter_, timeout):
        status = run([str(self.folder / "unit_test"), f"--gtest_filter={filter_}", "--gtest_fail_fast", "--gtest_brief=1"],
                     self.folder, timeout, dict(os.environ, TMPDIR=str(self.scratch)))
        if status is None:
            for left in self.scratch.iterdir():
                shutil.rmtree(left, ignore_errors=True)
        return "hangs" if status is None else "fails" if status != 0 else None

    def linked(self, tests=()):
        return run(self.program.link_command(self.folder, tests), self.program.build) == 0

    def outcome(self, mutant, seen, timeout):
        """What became of a mutant: a word, and what killed it."""
        header = mutant.file.endswith(".h")
        sources, tests = includers(mutant.file) if header else ([mutant.file], [])
        tests = [source for source in tests if source in self.program.test_objects]  # added to the tree since
        path = self.folder / "src" / mutant.file
        path.write_text(mutant.changed_source())
        try:
            for source in sources:
                if run(self.program.library_command(source), self.folder, 120) != 0:
                    return "does not compile"
            objects = {source: (self.folder / f"{source}.o").read_bytes() for source in sources}
            if all(objects[source] == self.original[source] for source in sources):
                return "same code"
            digest = hashlib.sha256(b"".join(name.encode() + objects[name] for name in sorted(objects))).digest()
            if seen.setdefault((mutant.file, digest), mutant) is not mutant:
                return "same code as another"
            return self.run_tests(mutant, tests, timeout)
        finally:
            path.write_text(mutant.source)
            for source in sources:
                (self.folder / f"{source}.o").write_bytes(self.original[source])

    def run_tests(self, mutant, tests, timeout):
        if not self.linked():
            return "does not compile"
        stem = mutant.file.removeprefix("libdatamorph_").removesuffix(".cpp").removesuffix(".h")
        others = ":".join(filter_ for name, filter_ in FIRST_TESTS.items() if name != "ike")
        first = FIRST_TESTS.get(stem, f"*-{others}")
        killed = self.tests(first, timeout) or self.tests("*", timeout)
        if killed is None and tests:  # those that hold code of the header themselves
            for source in tests:
                if run(self.program.test_command(source, self.folder), self.program.build, 300) != 0:
                    return "killed"  # a test's assertion at compile time
            killed = self.tests("*", timeout) if self.linked(tests) else "fails"
        return "killed" if killed else "lives"


# ---- The run ------------------------------------------------------------------------------------


def chosen(mutants, count, seed):
    """A sample in which every source has its share, and at least one mutant."""
    if count is None or count >= len(mutants):
        return mutants
    by_file = {}
    for mutant in mutants:
        by_file.setdefault(mutant.file, []).append(mutant)
    picked = []
    for file in sorted(by_file):
        share = max(1, round(count * len(by_file[file]) / len(mutants)))
        picked += random.Random(f"{seed} {file}").sample(by_file[file], min(share, len(by_file[file])))
    return picked


def wanted(mutants, files):
    if not files:
        return mutants
    names = [name.partition(":") for name in files.split()]
    found = [mutant for mutant in mutants
             if any(mutant.file == name and line in ("", str(mutant.line)) for name, _, line in names)]
    if not found:
        sys.exit(f"mutants: no mutant in {files}")
    return found


def known_survivors():
    """[(pattern of "file @@ line of code @@ change", reason, line of the table)]"""
    known = []
    for number, line in enumerate(TABLE.read_text().splitlines(), 1):
        if not line or line.startswith("#"):
            continue
        fields = [field.strip() for field in line.split(" @@ ")]
        if len(fields) != 4 or not all(fields):
            sys.exit(f"mutants: {TABLE}:{number}: wants 'file @@ line of code @@ change @@ reason'")
        pattern = " @@ ".join(fields[:3])
        known.append((re.compile(".*".join(re.escape(part) for part in pattern.split("<any>"))), fields[3], number))
    return known


def reason_of(mutant, known):
    text = f"{mutant.file} @@ {mutant.code} @@ {mutant.change}"
    return next((reason for pattern, reason, _ in known if pattern.fullmatch(text)), None)


def expect_rows_that_match(mutants, known):
    """A row of the table that no mutant matches is of code that is gone."""
    texts = [f"{mutant.file} @@ {mutant.code} @@ {mutant.change}" for mutant in mutants]
    for pattern, _, number in known:
        if not any(pattern.fullmatch(text) for text in texts):
            sys.exit(f"mutants: {TABLE}:{number}: no mutant is like this row")


def run_all(mutants, jobs, work, build):
    program = TestProgram(work, build)
    shared = pathlib.Path("/dev/shm")
    with tempfile.TemporaryDirectory(prefix="mutants-", dir=shared if os.access(shared, os.W_OK) else work) as scratch:
        workers = queue.Queue()
        pool = [Worker(program, number, pathlib.Path(scratch)) for number in range(jobs)]
        started = time.monotonic()
        if not pool[0].linked() or pool[0].tests("*", 600):
            sys.exit("mutants: the unit tests fail on the library as it stands")
        timeout = 30 + 5 * (time.monotonic() - started)
        for worker in pool:
            workers.put(worker)
        seen = {}

        def one(mutant):
            worker = workers.get()
            try:
                return worker.outcome(mutant, seen, timeout)
            finally:
                workers.put(worker)

        outcomes = []
        with concurrent.futures.ThreadPoolExecutor(jobs) as executor:
            for mutant, outcome in zip(mutants, executor.map(one, mutants)):
                outcomes.append((mutant, outcome))
                if outcome == "lives":
                    print(f"lives: {mutant.where()}", file=sys.stderr, flush=True)
                if len(outcomes) % 100 == 0:
                    print(f"{len(outcomes)} of {len(mutants)}", file=sys.stderr, flush=True)
        return outcomes


def report(all_mutants, outcomes, seed, seconds):
    known = known_survivors()
    count = {}
    for _, outcome in outcomes:
        count[outcome] = count.get(outcome, 0) + 1
    lives = [mutant for mutant, outcome in outcomes if outcome == "lives"]
    explained = [mutant for mutant in lives if reason_of(mutant, known)]
    unexplained = [mutant for mutant in lives if not reason_of(mutant, known)]
    killed = count.get("killed", 0)
    held = killed + len(unexplained)
    percent = 100.0 * killed / held if held else 0.0
    for mutant in explained:
        print(f"lives, the same behaviour: {mutant.where()}\n    {reason_of(mutant, known)}")
    for mutant in unexplained:
        print(f"lives: {mutant.where()}")
    print(f"mutants: {len(all_mutants)} in all, {len(outcomes)} taken, seed {seed}, {seconds:.0f} s")
    print(f"left out: {count.get('does not compile', 0)} do not compile, {count.get('same code', 0)} are the same code, "
          f"{count.get('same code as another', 0)} the same as another mutant's, {len(explained)} live by the table")
    print(f"run: {held}, killed: {killed}, alive: {len(unexplained)}: {percent:.2f} % died, at least {LIMIT:.0f} % must")
    return 0 if held > 0 and percent >= LIMIT else 1


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--count", default="300", help="how many, or all")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--files", default="", help="names, or names with a line")
    parser.add_argument("--work", type=pathlib.Path, default=ROOT / "build-mutants", help="the folder for the copies")
    parser.add_argument("--build", type=pathlib.Path, help="a build that holds the unit tests")
    parser.add_argument("--list", action="store_true", help="print the mutants and run none")
    arguments = parser.parse_args()
    known = known_survivors()
    mutants = []
    for path in sorted([*LIBRARY.glob("*.cpp"), *LIBRARY.glob("libdatamorph_*.h")]):
        mutants += mutants_of(path)
    expect_rows_that_match(mutants, known)
    count = None if arguments.count == "all" else int(arguments.count)
    taken = chosen(wanted(mutants, arguments.files), count, arguments.seed)
    if arguments.list:
        for mutant in taken:
            print(mutant.where())
        print(f"mutants: {len(taken)} of {len(mutants)}")
        return 0
    arguments.work.mkdir(parents=True, exist_ok=True)
    started = time.monotonic()
    build = arguments.build.resolve() if arguments.build else None
    outcomes = run_all(taken, arguments.jobs, arguments.work.resolve(), build)
    return report(mutants, outcomes, arguments.seed, time.monotonic() - started)


if __name__ == "__main__":
    sys.exit(main())
