"""Runs the benchmark's programs, one at a time."""

import os
import pathlib
import shutil
import subprocess
import time

import figures


class Failed(Exception):
    """A program found a wrong result, or did not come to its end."""


def say(text):
    print(f"{time.strftime('%H:%M:%S')} {text}", flush=True)


class Programs:
    """`build`: the folder of the benchmark's programs; `data`: where their files go; `log`: what they
    say on their standard error."""

    def __init__(self, build, data, log):
        self.build = pathlib.Path(build)
        self.data = pathlib.Path(data)
        self.log = pathlib.Path(log)
        self.log.write_text("")

    def run(self, command, environment=None):
        """The standard output; Failed when the program fails."""
        command = [str(part) for part in command]
        os.sync()  # nobody pays for what the one before has not yet written
        start = time.monotonic()
        done = subprocess.run(
            command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=environment
        )
        with self.log.open("a") as log:
            log.write(f"== {' '.join(command)}: status {done.returncode}\n{done.stderr}")
        if done.returncode:
            raise Failed(f"{' '.join(command)}: status {done.returncode}: {done.stderr[-300:]}")
        return done.stdout, time.monotonic() - start

    def engines(self):
        """{name: version} of the engines that were built in."""
        listed, _ = self.run([self.build / "peers/bench_peers", "--list"])
        return dict(line.split("\t") for line in listed.splitlines())

    def engines_before(self, directory):
        """{name: version} of the engines of the other state of this library, in `directory`."""
        listed, _ = self.run([self.build / "bench_peers_against", "--list"])
        names = (line.split("\t")[0] for line in listed.splitlines())
        return {figures.before(name): directory for name in names}

    def _engine(self, name):
        """The start of the command that runs an engine."""
        own = figures.without_before(name)
        program = "peers/bench_peers" if own == name else "bench_peers_against"
        return [self.build / program, "--engine", own, "--dir", self.data / name]

    def engine(self, name, records, options):
        """What it printed, under the name that it has here."""
        output, seconds = self.run(
            self._engine(name) + ["--n", records, "--no-batch"] + options
        )
        say(f"{name}, {records:,} records: {seconds:.0f} s")
        return figures.renamed(output, name)

    def survives(self, name, records=2000):
        """Whether every finished operation is there after the death of the process."""
        try:
            self.run(self._engine(name) + ["--n", records, "--crash", "--verify"])
            return True
        except Failed:
            return False
        finally:
            shutil.rmtree(self.data / name, ignore_errors=True)

    def floor(self, records):
        directory = self.data / "floor"
        directory.mkdir(exist_ok=True)
        output, seconds = self.run([self.build / "peers/floor", directory, records])
        say(f"bare input and output, {records:,} records: {seconds:.0f} s")
        return output

    def case(self, name, amount, directory="case"):
        """{what: value} of one of nimdb_cases."""
        output, _ = self.run([self.build / "nimdb_cases", name, amount, self.data / directory])
        pairs = (line.split("\t") for line in output.splitlines())
        return {what: float(value) for what, value in pairs}

    def instructions(self, records, operations, dumps, environment, program="nimdb_instructions"):
        """The texts of callgrind's dumps."""
        for old in dumps.parent.glob(dumps.name + "*"):
            old.unlink()
        callgrind = ["valgrind", "--tool=callgrind", "--instr-atstart=no"]
        self.run(
            callgrind
            + [f"--callgrind-out-file={dumps}", self.build / program]
            + [records, operations, self.data / "instructions"],
            environment,
        )
        numbered = dumps.parent.glob(dumps.name + ".*")
        return [path.read_text() for path in sorted(numbered, key=lambda p: int(p.suffix[1:]))]
