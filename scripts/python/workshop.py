"""A copy of the project in which sources are changed, built and tested."""

import json
import os
import signal
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path

PROGRAMS = ("unit_tests", "pipe_unit_tests", "system_tests", "standard_tests")
# These have the library's sources in them; the others load the library, and find it as it is then.
UNIT_TESTS = ("unit_tests", "pipe_unit_tests")
ALSO_NEEDED = ("stand_in_winscard", "stand_in_winscard_incomplete", "victim")
# A test that takes longer does not end. None takes more than a few seconds on an idle machine.
PATIENCE = 40


@dataclass(frozen=True)
class Test:
    name: str
    command: tuple
    folder: str

    @property
    def program(self):
        return Path(self.command[1]).stem


class Workshop:
    """The copy, as it is at a commit, and a build of it that counts the lines reached."""

    def __init__(self, project, folder):
        self.root = folder / "tree"
        self.build_folder = self.root / "build" / "coverage"
        self.log = folder / "build.log"
        self.environment = os.environ | {"TEZ_WINEPREFIX": str(folder / "wine")}
        if not self.root.exists():
            self._git(project, "worktree", "prune")
            self._git(project, "worktree", "add", "--detach", str(self.root))
        commit = self._git(project, "rev-parse", "HEAD")
        self._git(self.root, "checkout", "--force", "--detach", commit)
        self.sources = self._git(self.root, "rev-parse", "HEAD:src", "HEAD:tests").split()

    @staticmethod
    def _git(folder, *arguments):
        return subprocess.run(
            ["git", "-C", folder, *arguments], check=True, capture_output=True, text=True
        ).stdout.strip()

    def prepare(self):
        """Builds everything as it is, and lets tests run."""
        # What a fault leaves unused is no reason to refuse it; linking takes longest, of symbols.
        self._run("cmake", "--preset", "coverage", "-DCMAKE_CXX_FLAGS=-w",
                  "-DCMAKE_EXE_LINKER_FLAGS=-s", "-DCMAKE_SHARED_LINKER_FLAGS=-s")
        if not self.build(*PROGRAMS, *ALSO_NEEDED):
            raise RuntimeError(f"the project does not build: see {self.log}")
        self.start_wine()
        self._run("ctest", "--test-dir", self.build_folder, "-R", "^PlaceSystemLibrary$")

    def _run(self, *command):
        return subprocess.run(
            command, cwd=self.root, env=self.environment, check=True, capture_output=True, text=True
        ).stdout

    def build_for(self, tests):
        """Builds the library, and what else these tests need of a changed one. @return as build"""
        return self.build("winscard", *{t.program for t in tests}.intersection(UNIT_TESTS))

    def build(self, *targets):
        """@return whether it compiles"""
        with self.log.open("w") as log:
            return subprocess.run(
                ["cmake", "--build", self.build_folder, "--target", *targets],
                cwd=self.root, env=self.environment, stdout=log, stderr=log,
            ).returncode == 0

    def start_wine(self):
        subprocess.run([self.root / "scripts/in-wine", "--start"], env=self.environment, check=True)

    def stop_wine(self):
        subprocess.run([self.root / "scripts/in-wine", "--stop"], env=self.environment)

    def tests(self):
        """The tests of the library, each a process of its own."""
        listing = self._run("ctest", "--test-dir", self.build_folder, "--show-only=json-v1")
        for test in json.loads(listing)["tests"]:
            command = test.get("command", [])
            if len(command) > 1 and Path(command[1]).stem in PROGRAMS:
                properties = {p["name"]: p["value"] for p in test["properties"]}
                yield Test(test["name"], tuple(command), properties["WORKING_DIRECTORY"])

    def passes(self, test):
        """Runs a test. @return whether it passed"""
        process = subprocess.Popen(
            test.command, cwd=test.folder, env=self.environment, start_new_session=True,
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
        )
        try:
            return process.wait(PATIENCE) == 0
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
            # What the test started ends with Wine's server.
            self.stop_wine()
            time.sleep(1)
            self.start_wine()
            return False

    def write(self, file, content):
        (self.root / file).write_bytes(content)

    def read(self, file):
        return (self.root / file).read_bytes()
