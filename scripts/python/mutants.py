"""Puts small faults into the library, one at a time, and asks whether the tests notice."""

import argparse
import json
import os
import random
import sys
from collections import Counter, defaultdict
from multiprocessing import Pool
from pathlib import Path

import reach
import sites
import sources
from workshop import Workshop

PROJECT = Path(__file__).resolve().parents[2]
FOLDER = PROJECT / "build" / "mutants"
EQUIVALENT = Path(__file__).with_name("equivalent.txt")
LEAST_IN_ROOM = 10
GOAL = 0.95
# Those that reach little else come first, and one of each suite in turn: what they do not notice, the
# others hardly do, and they are a thousand where connections are made. With --again all are run.
MOST_TESTS = 300


def show(text):
    print(f"\r{text[:100]:<100}", end="", file=sys.stderr, flush=True)


def equivalents():
    """Those that change nothing anybody can see: {key: reason}."""
    lines = (line.split(maxsplit=1) for line in EQUIVALENT.read_text().splitlines())
    return {words[0]: words[1] for words in lines if len(words) == 2 and words[0] != "#"}


def find(root, with_headers):
    """All mutants of the library of which a folder has the sources."""
    os.chdir(root)
    files = sorted(root.glob("src/**/*.cpp"))
    if with_headers:
        files += sorted(root.glob("src/**/*.h"))
    names = [str(file.relative_to(root)) for file in files]
    flags = sources.compiler_flags()
    with Pool() as pool:
        found = pool.starmap(sites.find, [(name, flags) for name in names])
    return [mutant for mutants in found for mutant in mutants]


def choose(mutants, count, seed):
    """Some of them at random, from each room by its size, in a random order in which any more
    follow as a reserve for those that do not compile."""
    order = random.Random(seed)
    rooms = defaultdict(list)
    for mutant in mutants:
        rooms[mutant.room].append(mutant)
    wanted = {r: max(LEAST_IN_ROOM, round(count * len(m) / len(mutants))) for r, m in rooms.items()}
    return [(wanted[room], order.sample(rooms[room], len(rooms[room]))) for room in sorted(rooms)]


class Trial:
    """Mutants under test, and what came of them."""

    def __init__(self, workshop, tests_that_reach):
        self.workshop = workshop
        self.reach = tests_that_reach
        self.tests = {test.name: test for test in workshop.tests()}
        self.killers = defaultdict(Counter)  # of the functions that had mutants before

    def _tests_for(self, mutant):
        """Those that have killed others of the function come first."""
        killers = self.killers[mutant.file, mutant.function]
        names = self.reach.tests(mutant.file, mutant.line)
        return [self.tests[name] for name in sorted(names, key=lambda name: -killers[name])]

    def run(self, mutant, with_all_tests):
        """@return what came of it, as it stands in the report; None if it does not compile"""
        tests = self._tests_for(mutant)[: None if with_all_tests else MOST_TESTS]
        content = self.workshop.read(mutant.file)
        try:
            self.workshop.write(mutant.file, mutant.apply(content))
            return self._test(mutant, tests) if self.workshop.build_for(tests) else None
        finally:
            self.workshop.write(mutant.file, content)

    def _test(self, mutant, tests):
        for number, test in enumerate(tests, 1):
            # One that fails by chance does not do so twice.
            if not self.workshop.passes(test) and not self.workshop.passes(test):
                self.killers[mutant.file, mutant.function][test.name] += 1
                return {"result": "killed", "by": test.name, "tests": number}
        return {"result": "survived", "tests": len(tests)}


def load(path):
    return json.loads(path.read_text()) if path.exists() else {}


def report(results):
    """Prints what came of the mutants. @return whether the tests are good enough"""
    rooms = defaultdict(Counter)
    for entry in results.values():
        rooms[entry["file"].split("/")[1]][entry["result"]] += 1
    kinds = ("killed", "survived", "equivalent")
    print(f"\n{'room':<12}" + "".join(f"{kind:>12}" for kind in kinds))
    for room in sorted(rooms):
        print(f"{room:<12}" + "".join(f"{rooms[room][kind]:>12}" for kind in kinds))
    total = sum(rooms.values(), Counter())
    print(f"{'all':<12}" + "".join(f"{total[kind]:>12}" for kind in kinds))
    for kind in ("survived", "equivalent"):
        for key, entry in results.items():
            if entry["result"] == kind:
                reason = entry.get("reason") or f"{entry['tests']} tests do not notice"
                print(f"\n{kind} {key}: {entry['file']}:{entry['line']}, {entry['change']}; {reason}")
                print(f"    {entry['source']}")
    judged = total["killed"] + total["survived"]
    share = total["killed"] / judged if judged else 0  # nothing tried is nothing shown
    print(f"\n{total['killed']} of {judged} noticed, {share:.1%}; {total['equivalent']} equivalent")
    return share >= GOAL


def main():
    parser = argparse.ArgumentParser(prog="scripts/mutants")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--count", type=int, default=220)
    parser.add_argument("--headers", action="store_true")
    parser.add_argument("--again", nargs="+", metavar="KEY", default=[])
    options = parser.parse_args()

    FOLDER.mkdir(parents=True, exist_ok=True)
    workshop = Workshop(PROJECT, FOLDER)
    show("building")
    workshop.prepare()
    try:
        tests_that_reach = reach.measure(workshop, FOLDER / "reach.json", show)
        trial = Trial(workshop, tests_that_reach)
        show("looking for places")
        mutants = find(workshop.root, options.headers)
        if options.again:
            wanted = [m for m in mutants if m.key in options.again]
            if unknown := set(options.again) - {m.key for m in wanted}:
                raise SystemExit(f"scripts/mutants: no fault has the key {', '.join(sorted(unknown))}")
            chosen = [(len(wanted), wanted)]
        else:
            chosen = choose(mutants, options.count, options.seed)
        results = try_all(trial, chosen, set(options.again))
    finally:
        workshop.stop_wine()
    return 0 if report(results) else 1


def try_all(trial, chosen, again):
    """Tries as many of each room as are wanted. What is known of the same sources is not tried anew,
    but for those that are asked for by name."""
    path = FOLDER / "results.json"
    known = load(path)
    if known.get("sources") != trial.workshop.sources:
        known = {"sources": trial.workshop.sources, "mutants": {}}
    reasons = equivalents()
    results = {}
    for wanted, mutants in chosen:
        tried = 0
        for mutant in mutants:
            if tried == wanted:
                break
            entry = known["mutants"].get(mutant.key)
            if mutant.key in reasons:
                entry = {"result": "equivalent", "reason": reasons[mutant.key]}
            elif entry is None or mutant.key in again:
                show(f"{len(results)} tried; {mutant.file}:{mutant.line} {mutant.change}")
                entry = trial.run(mutant, mutant.key in again) or {"result": "refused by the compiler"}
            entry |= {"file": mutant.file, "line": mutant.line, "change": mutant.change,
                      "source": mutant.source}
            known["mutants"][mutant.key] = entry
            path.write_text(json.dumps(known, indent=1))
            if entry["result"] != "refused by the compiler":
                results[mutant.key] = entry
                tried += 1
    return results


if __name__ == "__main__":
    sys.exit(main())
