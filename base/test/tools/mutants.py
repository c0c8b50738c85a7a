#!/usr/bin/env python3
"""Plants small faults in the library, one at a time, and sees whether the tests find them.

    mutants.py [--only PATTERN] [--wanted N] [--jobs N] [--list FILE] [--directory DIR]
    mutants.py --propose FILE...

The faults stand in mutants.txt. All of them are built in at once, each behind a switch that the
variable NIM_MUTANT sets (schemata.py), so that there is one build of them, and one with sanitizers for
those that only they can see ("build: sanitize"). A first run without a fault notes which test reaches
which of them; then each fault is switched on for the tests that reach it, until one of them fails, dies
or hangs. A fault that no test finds needs an explanation in the list ("equivalent: why nobody can
tell"). Ends with 0 when at least --wanted faults were found and the others are explained.

--propose prints candidates for a list out of sources, to choose from.
"""

import argparse
import concurrent.futures
import fnmatch
import json
import os
import pathlib
import resource
import shutil
import signal
import subprocess
import sys
import time

import schemata

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[2]
PROGRAMS = (
    "nim_test",
    "nimdb_test",
    "nimdb_book_test",
    "nimdb_exchange_test",
    "nimdb_model_test",
)
WANTED = 115
SEED = "1"  # what a test finds it finds again
GIB = 1 << 30
MOST_ON_DISK = 6 * GIB

SWITCHES = """\
// Which fault is on, and which have been reached.
#pragma once
#include <cstdlib>
inline unsigned char gMutantReached[%d];
inline int SwitchedOnMutant()
{
    static const int number = [] {
        const char* text = std::getenv("NIM_MUTANT");
        return text ? std::atoi(text) : 0;
    }();
    return number;
}
inline bool MutantOn(int number)
{
    gMutantReached[number] = 1;
    return SwitchedOnMutant() == number;
}
"""

LISTENER = """\
// Writes for each test how long it took and which faults it reached.
#include "%s"
class MutantMap : public testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo& test) override
    {
        const char* path = std::getenv("NIM_MUTANT_MAP");
        FILE* file = path ? std::fopen(path, "a") : nullptr;
        if (file == nullptr)
            return;
        std::fprintf(file, "%%s.%%s\\t%%d\\t%%d\\t", test.test_suite_name(), test.name(),
            static_cast<int>(test.result()->elapsed_time()), test.result()->Failed() ? 1 : 0);
        for (unsigned number = 0; number < sizeof gMutantReached; ++number) {
            if (gMutantReached[number])
                std::fprintf(file, " %%u", number);
            gMutantReached[number] = 0;
        }
        std::fprintf(file, "\\n");
        std::fclose(file);
    }
};
"""
INITIALISED = "testing::InitGoogleTest(&argc, argv);"


def say(text):
    print(f"{time.strftime('%H:%M:%S')} {text}", flush=True)


# ---- the build ----------------------------------------------------------------------------------


def write_if_changed(path, text):
    """A file that is as it was is not compiled again."""
    data = text.encode() if isinstance(text, str) else text
    if not path.exists() or path.read_bytes() != data:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(data)


def plant(mutants, directory):
    """A copy of the checkout with every fault in it."""
    source = directory / "source"
    switches = directory / "switches.h"
    write_if_changed(switches, SWITCHES % (len(mutants) + 1))
    write_if_changed(directory / "listener.h", LISTENER % switches)
    of_file = {}
    for mutant in mutants:
        of_file.setdefault(mutant.file, []).append(mutant)
    listed = subprocess.run(
        ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
        cwd=ROOT, capture_output=True, check=True,
    )  # fmt: skip
    names = {name for name in listed.stdout.decode().split("\0") if name and (ROOT / name).is_file()}
    unknown = set(of_file) - names
    if unknown:
        raise schemata.Wrong(f"there is no {', '.join(sorted(unknown))}")
    for name in names:
        data = (ROOT / name).read_bytes()
        if name in of_file:
            text = schemata.woven(data.decode(), of_file[name])
            data = f'#include "{switches}"\n#line 1 "{ROOT / name}"\n{text}'
        elif name == "base/test/support/main.cpp":
            text = data.decode()
            if text.count(INITIALISED) != 1:
                raise schemata.Wrong(f"{name} does not say {INITIALISED}")
            listening = "testing::UnitTest::GetInstance()->listeners().Append(new MutantMap);"
            text = text.replace(INITIALISED, INITIALISED + listening)
            data = text.replace("int main(", f'#include "{directory / "listener.h"}"\nint main(', 1)
        elif name == "CMakeLists.txt":
            data = data.decode().replace(" -Werror)", " -w)")  # both ways stand in one expression
        write_if_changed(source / name, data)
    for path in source.rglob("*"):
        if path.is_file() and path.relative_to(source).as_posix() not in names:
            path.unlink()


def build(directory, kind, jobs):
    """Builds the tests with all faults in directory/<kind>."""
    log = directory / f"{kind}.log"
    sanitize = "ON" if kind == "sanitize" else "OFF"
    commands = [
        ["cmake", "-G", "Ninja", "-S", directory / "source", "-B", directory / kind]
        + ["-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-g1 -O1", f"-DNIM_SANITIZE={sanitize}"]
        + ["-DNIM_EXAMPLES=OFF", "-DNIM_BENCHMARKS=OFF"],
        ["cmake", "--build", directory / kind, "--parallel", str(jobs), "--target", *PROGRAMS]
        + ["--", "-k", "0"],  # all that does not build, at once
    ]
    with log.open("w") as output:
        for command in commands:
            if subprocess.run(command, stdout=output, stderr=subprocess.STDOUT).returncode:
                print("\n".join(log.read_text().splitlines()[-40:]), file=sys.stderr)
                sys.exit(f"./dev mutants: the faults do not build, see above and {log}")


# ---- running tests ------------------------------------------------------------------------------


def limits():
    """No pictures of the dead; and a fault may make a program allocate without end."""
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_AS, (24 * GIB, 24 * GIB))


def limits_of_sanitizers():
    """They take addresses as if there were no end of them."""
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def room_taken(directory):
    """Bytes on the disk: files with holes are as long as they like."""
    taken = 0
    for path in directory.rglob("*"):
        try:
            taken += path.lstat().st_blocks * 512
        except OSError:  # it has gone meanwhile
            pass
    return taken


def output_of(child, directory, seconds):
    """(what it printed, whether it came to its end): within the time, and without writing for ever."""
    end = time.monotonic() + seconds
    while True:
        try:
            return child.communicate(timeout=min(5, seconds))[0], True
        except subprocess.TimeoutExpired:
            if time.monotonic() > end or room_taken(directory) > MOST_ON_DISK:
                os.killpg(child.pid, signal.SIGKILL)  # the session that was started for it
                return child.communicate()[0], False


class Runner:
    def __init__(self, directory, kind):
        self.programs = directory / kind / "base/test"
        self.limits = limits_of_sanitizers if kind == "sanitize" else limits
        self.scratch = directory / "scratch"
        shutil.rmtree(self.scratch, ignore_errors=True)
        self.scratch.mkdir()
        self.serial = iter(range(1, 1 << 30))

    def run(self, program, tests, seconds, variables):
        """(what happened, the test it happened in): "passed", "failed", "died" or "hung"."""
        place = self.scratch / str(next(self.serial))
        place.mkdir()
        running = place / "running"
        environment = {
            **{n: v for n, v in os.environ.items() if not n.startswith(("NIM_", "GTEST_"))},
            "TMPDIR": str(place),
            "NIM_TEST_RUNNING": str(running),
            "NIM_TEST_SEED": SEED,
            **variables,
        }
        flags = place / "flags"
        flags.write_text("--gtest_filter=" + ":".join(tests) + "\n")
        child = subprocess.Popen(
            [self.programs / program, "--gtest_brief=1", "--gtest_fail_fast", f"--gtest_flagfile={flags}"],
            cwd=place, env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            stdin=subprocess.DEVNULL, start_new_session=True, preexec_fn=self.limits, errors="replace",
        )  # fmt: skip
        output, ended = output_of(child, place, seconds)
        what = "hung" if not ended else "passed" if child.returncode == 0 else "failed"
        failed = [l for l in output.splitlines() if l.startswith("[  FAILED  ] ")]
        where = failed[0].split()[3].rstrip(",") if failed else ""
        if what != "passed" and running.exists():  # it did not come to its end
            what = "hung" if what == "hung" else "died"
            where = running.read_text().strip()
        shutil.rmtree(place, ignore_errors=True)
        return what, where


class Reach:
    """Which tests reach which faults, and how long they take."""

    def __init__(self):
        self.seconds = {}  # (program, test): seconds
        self.tests = {}  # number: [(program, test)]

    def note(self, runner, directory, jobs):
        shards = [(program, shard) for program in PROGRAMS for shard in range(4)]
        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            for problem in pool.map(lambda s: self._note(runner, directory, *s), shards):
                if problem:
                    raise schemata.Wrong(f"without any fault {problem}")

    def _note(self, runner, directory, program, shard):
        path = directory / f"map.{program}.{shard}"
        path.unlink(missing_ok=True)
        variables = {
            "NIM_MUTANT_MAP": str(path),
            "GTEST_TOTAL_SHARDS": "4",
            "GTEST_SHARD_INDEX": str(shard),
        }
        what, where = runner.run(program, ["*"], 3600, variables)
        if what != "passed":
            return f"{program} {what}, in {where}"
        for line in path.read_text().splitlines() if path.exists() else []:
            test, milliseconds, _, numbers = line.split("\t")
            self.seconds[(program, test)] = int(milliseconds) / 1000
            for number in numbers.split():
                self.tests.setdefault(int(number), []).append((program, test))
        return None


# ---- the hunt -----------------------------------------------------------------------------------

# Seconds of tests in one go: what is quick and near comes first, and mostly finds it.
PORTIONS = (1, 10, 1 << 30)


def portions(reach, mutant, remembered):
    """[(program, tests, seconds they take)] in the order in which they are tried."""
    tests = reach.tests.get(mutant.number, [])
    if remembered in tests:
        yield remembered[0], [remembered[1]], reach.seconds[remembered]
    room = pathlib.PurePath(mutant.file).stem.replace("_", "")
    ordered = sorted(tests, key=lambda t: (room not in t[1].lower(), reach.seconds[t]))
    for allowed in PORTIONS:
        taken, spent = [], 0
        while ordered and (spent < allowed or not taken):
            taken.append(ordered.pop(0))
            spent += reach.seconds[taken[-1]]
        for program in PROGRAMS:
            own = [test for name, test in taken if name == program]
            if own:
                yield program, own, sum(reach.seconds[(program, test)] for test in own)


def hunt(runner, reach, mutant, remembered):
    """(status, program, test): "killed" with what happened, "survived", or "never reached"."""
    if not reach.tests.get(mutant.number):
        return "never reached", "", ""
    for program, tests, seconds in portions(reach, mutant, remembered):
        limit = 60 + 20 * seconds  # a busy machine is no fault
        what, where = runner.run(program, tests, limit, {"NIM_MUTANT": str(mutant.number)})
        if what != "passed":
            return what, program, where
    return "survived", "", ""


def hunt_in(directory, kind, mutants, killers, jobs, results, tests):
    """Tries faults in one of the builds: `results` and the numbers of `tests` that reach them grow."""
    say(f"building the tests ({kind})")
    build(directory, kind, jobs)
    runner, reach = Runner(directory, kind), Reach()
    say("running the tests without a fault, to see which of them reach what")
    reach.note(runner, directory, jobs)
    say(f"trying {len(mutants)} faults")
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        running = {pool.submit(hunt, runner, reach, m, killers.get(m)): m for m in mutants}
        for number, done in enumerate(concurrent.futures.as_completed(running), 1):
            mutant, result = running[done], done.result()
            results[mutant.id] = result
            tests[mutant.id] = len(reach.tests.get(mutant.number, []))
            if result[1]:
                killers.set(mutant, *result[1:])
            say(f"{number} of {len(mutants)}: {mutant.id} {' '.join(result)}")


class Killers:
    """The test that found a fault the last time, by the fault itself."""

    def __init__(self, path):
        self.path = path
        self.known = json.loads(path.read_text()) if path.exists() else {}

    @staticmethod
    def key(mutant):
        return "\n".join((mutant.file, mutant.function, mutant.old, mutant.new))

    def get(self, mutant):
        return tuple(self.known.get(self.key(mutant), ("", "")))

    def set(self, mutant, program, test):
        self.known[self.key(mutant)] = (program, test)
        self.path.write_text(json.dumps(self.known, indent=1) + "\n")


# ---- the report ---------------------------------------------------------------------------------


def describe(mutant, result, tests):
    """What became of a fault that so many tests reach."""
    status, program, test = result
    where = f"{mutant.id}  {mutant.function}: {mutant.kind}: {mutant.old} -> {mutant.new or 'nothing'}"
    if status in ("survived", "never reached"):
        seen = f"survived {tests} tests that reach it" if tests else "NEVER REACHED by a test"
        return f"{where}\n    {seen}; " + (
            f"explained: {mutant.equivalent}" if mutant.equivalent else "NOT EXPLAINED"
        )
    remark = "; its explanation is WRONG" if mutant.equivalent else ""
    return f"{where}\n    {status}: {program} {test}{remark}"


def conclude(mutants, results, tests, directory, wanted):
    """Prints the report; 0 when it is good enough."""
    lines = [describe(mutant, results[mutant.id], tests[mutant.id]) for mutant in mutants]
    (directory / "report.txt").write_text("\n".join(lines) + "\n")
    alive = [m for m in mutants if results[m.id][0] in ("survived", "never reached")]
    wrong = [m for m in mutants if m not in alive and m.equivalent]
    unexplained = [m for m in alive if not m.equivalent]
    print()
    for mutant in alive + wrong:
        print(describe(mutant, results[mutant.id], tests[mutant.id]))
    killed = len(mutants) - len(alive)
    print(
        f"{len(mutants)} faults: {killed} found ({wanted} wanted), {len(alive)} not found,"
        f" {len(alive) - len(unexplained)} of them explained; all in {directory / 'report.txt'}"
    )
    return 0 if killed >= wanted and not unexplained and not wrong else 1


def arguments():
    parser = argparse.ArgumentParser(prog="./dev mutants", description=__doc__.split("\n")[0])
    parser.add_argument("--propose", nargs="+", metavar="FILE", help="print candidates out of sources")
    parser.add_argument("--only", metavar="PATTERN", help='ids of faults, as in "serial-*"')
    parser.add_argument(
        "--wanted", type=int, help=f"how many have to be found ({WANTED}; with --only none)"
    )
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="faults at a time")
    parser.add_argument("--list", default=HERE / "mutants.txt", type=pathlib.Path, help="of faults")
    parser.add_argument("--directory", default=ROOT / "build/mutants", type=pathlib.Path)
    options = parser.parse_args()
    if options.wanted is None:
        options.wanted = 0 if options.only else WANTED
    return options


def main():
    options = arguments()
    if options.propose:
        for name in options.propose:
            file = pathlib.Path(name).resolve().relative_to(ROOT).as_posix()
            for mutant in schemata.propose(file, (ROOT / file).read_text()):
                print(mutant.text())
        return 0
    directory = options.directory.resolve()
    directory.mkdir(parents=True, exist_ok=True)
    mutants = schemata.parse_list(options.list.read_text())
    say(f"planting {len(mutants)} faults")
    plant(mutants, directory)
    if options.only:
        mutants = [m for m in mutants if fnmatch.fnmatch(m.id, options.only)]
    killers, results, tests = Killers(directory / "killers.json"), {}, {}
    for kind in schemata.BUILDS:
        own = [m for m in mutants if (m.build or schemata.BUILDS[0]) == kind]
        if own:
            hunt_in(directory, kind, own, killers, options.jobs, results, tests)
    return conclude(mutants, results, tests, directory, options.wanted)


if __name__ == "__main__":
    try:
        sys.exit(main())
    except schemata.Wrong as wrong:
        sys.exit(f"./dev mutants: {wrong}")
