#!/usr/bin/env python3
"""Branch coverage of the library by its unit tests alone, which is the short form of scripts/coverage.sh.

    scripts/library_coverage.py --build BUILD [--work FOLDER]

Only the library is compiled anew, with counters; the tests' objects are those of a build that is there.
The exit status is 1 when a test fails or a branch is left out, as scripts/coverage.sh counts them.
"""

import argparse
import concurrent.futures
import os
import pathlib
import re
import shutil
import subprocess
import sys

from mutants import LIBRARY, ROOT, TestProgram

COUNTERS = ROOT / "tests/coverage/counters.c"
FLAGS = ["--coverage", "-O0", "-fprofile-update=prefer-atomic", "-U_FORTIFY_SOURCE", "-w"]
WRAPS = ["open", "close", "_exit", "_Exit"]


def compile_library(program, work):
    """The objects, by the names that the build has for them."""
    objects = {}
    commands = []
    for source, name in program.library_objects.items():
        objects[name] = str(work / f"{source}.o")
        words = [word for word in program.compile[name] if word != "-Werror"]
        words[words.index("-o") + 1] = objects[name]
        commands.append(words + FLAGS)
    commands.append(["gcc", "-O1", "-fPIC", f'-DCOVERAGE_BUILD="{work}"', "-c", str(COUNTERS), "-o", str(work / "counters.o")])
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as executor:
        list(executor.map(lambda words: subprocess.run(words, cwd=program.build, check=True), commands))
    return objects


def link(program, work, objects):
    """The library's objects come first: of code that the tests have as well, theirs counts nothing."""
    first = next(at for at, word in enumerate(program.link) if word.endswith(".o"))
    words = [word for word in program.link if word not in objects]
    words[first:first] = [*objects.values(), str(work / "counters.o")]
    words[words.index("-o") + 1] = str(work / "unit_test")
    subprocess.run(words + ["--coverage"] + [f"-Wl,--wrap={name}" for name in WRAPS], cwd=program.build, check=True)


def run_tests(work):
    (work / "counters.lock").write_bytes(b"")
    for notes in work.glob("*.gcno"):  # an empty file of counters is a new one to who writes it
        counters = notes.with_suffix(".gcda")
        counters.write_bytes(b"")
        counters.chmod(0o666)
    return subprocess.run([work / "unit_test", "--gtest_brief=1"], cwd=work, stdin=subprocess.DEVNULL).returncode


def covered(work):
    report = work / "library.txt"
    status = subprocess.run(
        ["gcovr", "--root", ROOT, "--object-directory", work, "--filter", f"{LIBRARY.relative_to(ROOT)}/", "--branches",
         "--gcov-executable", ROOT / "tests/coverage/gcov_without_unwinding.sh", "--exclude-throw-branches",
         "--exclude-unreachable-branches", "--txt", report, "--fail-under-branch", "100", work], cwd=ROOT).returncode
    text = report.read_text()
    total = re.search(r"^TOTAL +(\d+) +(\d+)", text, re.MULTILINE)
    if status != 0 or total is None or total[1] == "0":
        print(text)
        status = status or 1
    print(f"library: {total[2]} of {total[1]} branches by the unit tests alone, all wanted" if total else "library: nothing counted")
    return status


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=pathlib.Path, required=True, help="a build that holds the unit tests")
    parser.add_argument("--work", type=pathlib.Path, default=ROOT / "build-coverage-short")
    arguments = parser.parse_args()
    work = arguments.work.resolve()
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir(parents=True)
    program = TestProgram(work, arguments.build.resolve())
    link(program, work, compile_library(program, work))
    failed = run_tests(work)
    return covered(work) or (1 if failed else 0)


if __name__ == "__main__":
    sys.exit(main())
