"""Which tests reach which lines of src/."""

import json
import os
import subprocess
from collections import Counter, defaultdict

# What a condition decides stands in the lines behind it.
NEIGHBOURS = 4


class Reach:
    """For each line the tests that run it, those first that run one of the next lines as few others
    do, and of these one of each suite in turn, as tests of one suite see much the same."""

    def __init__(self, lines_of_tests):
        """@param lines_of_tests for the name of each test the lines, as {file: [line, ...]}"""
        size = {t: sum(map(len, files.values())) for t, files in lines_of_tests.items()}
        self._tests = defaultdict(list)
        for test in sorted(lines_of_tests, key=size.get):
            for file, lines in lines_of_tests[test].items():
                for line in lines:
                    self._tests[file, line].append(test)

    def tests(self, file, line):
        line = self._counted(file, line)
        tests = self._tests.get((file, line), [])
        fewest = dict.fromkeys(tests, len(tests))
        for neighbour in range(line + 1, line + 1 + NEIGHBOURS):
            others = self._tests.get((file, neighbour), [])
            for test in fewest.keys() & set(others):
                fewest[test] = min(fewest[test], len(others))
        suites = Counter()
        turn = {}
        for test in tests:
            suite = test.split(".")[0]
            turn[test] = suites[suite]
            suites[suite] += 1
        return sorted(tests, key=lambda test: (fewest[test], turn[test]))

    def _counted(self, file, line):
        """The line itself, or if it is not counted, as happens in statements of several lines, the
        nearest one that is."""
        near = [line, *(line + sign * n for n in range(1, 1 + NEIGHBOURS) for sign in (1, -1))]
        return next((other for other in near if (file, other) in self._tests), line)


def _lines(workshop, counts):
    """The lines of src/ that have been run since the counts were cleared."""
    reached = defaultdict(set)
    output = subprocess.run(
        ["x86_64-w64-mingw32-gcov-posix", "--json-format", "--stdout", "--relative-only",
         "--source-prefix", workshop.root, *counts],
        cwd=workshop.root, check=True, capture_output=True, text=True,
    ).stdout
    for document in output.splitlines():
        for file in json.loads(document)["files"]:
            name = os.path.relpath(file["file"], workshop.root)
            if name.startswith("src/"):
                run = (line["line_number"] for line in file["lines"] if line["count"] > 0)
                reached[name].update(run)
    return {file: sorted(lines) for file, lines in reached.items() if lines}


def measure(workshop, cache, show):
    """Runs each test by itself, once for the sources as they are.

    @param cache the file that keeps what was measured
    @param show called with a line on the progress
    """
    if cache.exists():
        known = json.loads(cache.read_text())
        if known["sources"] == workshop.sources:
            return Reach(known["lines"])
    tests = list(workshop.tests())
    lines = {}
    for number, test in enumerate(tests):
        show(f"reach: test {number} of {len(tests)}")
        for count in workshop.build_folder.rglob("*.gcda"):
            count.unlink()
        if not workshop.passes(test):
            raise RuntimeError(f"{test.name} fails without any fault")
        lines[test.name] = _lines(workshop, workshop.build_folder.glob("src/**/*.gcda"))
    if not any(lines.values()):
        raise RuntimeError("the tests reach nothing: are the lines counted?")
    cache.write_text(json.dumps({"sources": workshop.sources, "lines": lines}))
    return Reach(lines)
