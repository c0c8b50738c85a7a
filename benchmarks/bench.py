#!/usr/bin/env python3
"""Measures this library beside the databases that a user would pick instead, and beside what its
input and output costs bare. ./dev bench builds what is needed and calls this.

    bench.py [--quick] [--rounds N] [--sizes N,N] [--engines NAME,NAME] [--dir DIR] [--against DIR]
    bench.py --growth [--rounds N] [--sizes N,N]
    bench.py --instructions [--update | --against DIR]
"""

import argparse
import json
import os
import pathlib
import platform
import random
import shutil
import subprocess
import sys
import tempfile
import time

import figures
import pictures
import report
from programs import Failed, Programs, say

HERE = pathlib.Path(__file__).resolve().parent
BASELINE = HERE / "instructions.tsv"

# Not measured unless they are asked for by name: "memory" stores nothing, "sqlite-default" waits for
# the disk in every operation.
UNASKED = {"memory", "sqlite-default"}
TOO_SLOW_FOR_A_MILLION = {"tc-txn"}  # minutes

GROWTH_SIZES = (10_000, 100_000, 1_000_000, 5_000_000)
GROWTH_CASES = {
    "Databases by number of tables, each of 100 records": ("tables", (1, 10, 100)),
    "Records by number of fields, four of them indexed": ("fields", (6, 50, 150)),
    "Records by bytes of data": ("record", (64, 4096, 65_536, 1_048_576)),
    # Keys longer than 8152 bytes fit only among shorter ones: then every tenth is of that length.
    "Text keys by bytes": ("key", (18, 256, 2048, 8152, 8168)),
}


def arguments():
    parser = argparse.ArgumentParser(
        prog="./dev bench",
        description="Measures this library beside other databases, and beside bare input and output.",
        epilog="Results: report.txt, report.json and report.svg in build/bench; with --growth,"
        " growth.txt, growth.json and growth.svg.",
    )
    what = parser.add_mutually_exclusive_group()
    what.add_argument(
        "--growth",
        action="store_true",
        help="this library alone, 10,000 to 5,000,000 records, and many tables, many fields, long"
        " records, long keys",
    )
    what.add_argument(
        "--instructions",
        action="store_true",
        help="instructions an operation, against the baseline; fails when one grew by more than 3 %%",
    )
    parser.add_argument(
        "--update", action="store_true", help="with --instructions: write the baseline anew"
    )
    parser.add_argument("--quick", action="store_true", help="100,000 records, one round")
    parser.add_argument("--rounds", type=int, help="how often each engine runs (3)")
    parser.add_argument("--sizes", help="numbers of records, with commas (100000,1000000)")
    parser.add_argument(
        "--engines",
        help="names, with commas (all whose finished operations survive the death of the process)",
    )
    parser.add_argument(
        "--dir",
        default="build/bench",
        help="where the measured files go for the time of the run: on the disk that is to be"
        " measured (%(default)s)",
    )
    parser.add_argument(
        "--against",
        metavar="DIR",
        help="another checkout of this library, or a build of one: one more engine in the same rounds,"
        " and the ratio of new to old for all that was measured; with --instructions the counts of both",
    )
    parser.add_argument("--build", default="build/linux-bench/benchmarks", help=argparse.SUPPRESS)
    parser.add_argument("--results", default="build/bench", help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.update and not options.instructions:
        parser.error("--update goes with --instructions")
    if options.against and (options.growth or options.update):
        parser.error("--against goes neither with --growth nor with --update")
    options.sizes = sorted(int(n) for n in options.sizes.split(",")) if options.sizes else None
    options.rounds = options.rounds or (1 if options.quick else 3)
    if options.rounds < 1 or any(n < 1000 for n in options.sizes or []):
        parser.error("at least one round, and 1,000 records")
    return options


def machine():
    processor = platform.processor()
    for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            processor = line.split(":", 1)[1].strip()
            break
    return {
        "date": time.strftime("%Y-%m-%d %H:%M"),
        "processor": processor,
        "processors": os.cpu_count(),
        "system": platform.platform(),
        "load_before": os.getloadavg()[0],
    }


def machine_text(facts):
    return (
        f"{facts['date']}, {facts['processors']} x {facts['processor']}, {facts['system']}, "
        f"load {facts['load_before']:.1f} before\n"
    )


def write_results(options, name, text, data, draw):
    """The same as text, as JSON and, by draw(path), as a picture."""
    results = pathlib.Path(options.results)
    (results / f"{name}.txt").write_text(text)
    (results / f"{name}.json").write_text(json.dumps(data, indent=1) + "\n")
    print()
    print(text)
    written = [f"{name}.txt", f"{name}.json"]
    if pictures.can_draw():
        draw(results / f"{name}.svg")
        written.append(f"{name}.svg")
    else:
        say("no picture: this Python has no matplotlib (python3-matplotlib)")
    say(f"written to {results}: {', '.join(written)}")


# ---- beside the others --------------------------------------------------------------------------


def limits(records):
    """What the yardstick does at a size: operations enough for a stable figure, and an end to an engine
    that takes too long."""
    if records < 1_000_000:
        return ["--changes", min(records, 50_000), "--limit", 40]
    return ["--changes", 100_000, "--deletes", 100_000, "--limit", 180]


def choose_engines(options, programs):
    """(names, those whose operations survive)."""
    known = programs.engines()
    names = [name for name in known if name not in UNASKED]
    if options.engines:
        names = options.engines.split(",")
    if options.against:
        known.update(programs.engines_before(options.against))
        twins = [figures.before(name) for name in names if figures.is_ours(name)]
        names += [name for name in twins if name in known]
    unknown = [n for n in names if n not in known]
    if unknown:
        raise Failed(f"no engine {', '.join(unknown)}; there are {', '.join(known)}")
    say("killing each in the middle of its work, to see which of them lose what they had finished")
    surviving = {name for name in names if programs.survives(name)}
    losing = [name for name in names if name not in surviving]
    lost = [name for name in losing if figures.is_ours(name)]
    if lost:
        raise Failed(f"{', '.join(lost)} loses finished operations when the process dies")
    if losing:
        say(f"these lose them: {', '.join(losing)}")
    if not options.engines:
        names = [name for name in names if name in surviving or figures.is_before(name)]
    return {name: known[name] for name in names}, surviving


def measure_round(programs, samples, engines, records, failures):
    """Every engine once, and the bare figures, in random order."""
    order = list(engines) + [figures.FLOOR]
    random.shuffle(order)
    for name in order:
        if name == figures.FLOOR:
            samples.add_floor_lines(programs.floor(records))
        elif records < 1_000_000 or name not in TOO_SLOW_FOR_A_MILLION:
            try:
                samples.add_peer_lines(programs.engine(name, records, limits(records)))
            except Failed as failure:
                if figures.is_ours(name):
                    raise
                failures.append(str(failure))
                say(str(failure))


WALKS = ("walk", "walk-unmapped", "walk-updating")


def measure_walk(programs, records):
    """With mappings; without; without, and with IndxUpdateTable in between."""
    programs.case("make", records, "walk")
    results = [programs.case(name, records, "walk") for name in WALKS]
    shutil.rmtree(programs.data / "walk")
    return results


def compare(options, programs):
    facts = machine()
    sizes = options.sizes or ([100_000] if options.quick else [100_000, 1_000_000])
    engines, surviving = choose_engines(options, programs)
    samples, failures = figures.Samples(), []
    for number in range(options.rounds):
        say(f"round {number + 1} of {options.rounds}")
        for records in sizes:
            measure_round(programs, samples, engines, records, failures)
    ten_tables = programs.case("tables", 10)["open_database_us"]
    walks = measure_walk(programs, max(sizes))

    comparisons = [figures.Comparison(samples, records, surviving) for records in sizes]
    changes = {records: figures.change_rows(samples, records) for records in sizes}
    goals = figures.Goals(comparisons[-1], ten_tables)
    text = "\n".join(
        ["# This library beside other databases and beside bare input and output", ""]
        + [machine_text(facts) + f"{options.rounds} rounds"]
        + ["; ".join(f"{n} {v}" for n, v in engines.items() if not figures.is_ours(n)), ""]
        + [report.comparison_text(comparison) for comparison in comparisons]
        + [report.changes_text(rows, records) for records, rows in changes.items()]
        + [report.COMPARISON_NOTES, ""]
        + [report.goals_text(goals, comparisons[-1].records)]
        + [report.memory_text(max(sizes), *walks)]
        + [f"Failed: {failure}" for failure in failures]
    )
    data = {
        "machine": facts,
        "rounds": options.rounds,
        "engines": {n: {"version": v, "survives": n in surviving} for n, v in engines.items()},
        "samples": samples.summary(),
        "ratios": {
            comparison.records: {
                engine: [comparison.row(engine, phase) for phase in figures.WORKS]
                for engine in engines
                if figures.is_ours(engine)
            }
            for comparison in comparisons
        },
        "against": options.against,
        "changes": changes,
        "goals": goals.results,
        "open_ten_tables_us": ten_tables,
        "walk": dict(zip(WALKS, walks)),
        "failures": failures,
    }
    write_results(
        options, "report", text, data, lambda path: pictures.draw_comparison(comparisons[-1], path)
    )


# ---- growth -------------------------------------------------------------------------------------


def measure_growth(options, programs):
    facts = machine()
    sizes = options.sizes or list(GROWTH_SIZES)
    samples = figures.Samples()
    for number in range(options.rounds):
        say(f"round {number + 1} of {options.rounds}")
        for records in sizes:
            wanted = ["--levels", "--changes", 50_000, "--deletes", min(records // 2, 100_000)]
            output = programs.engine(figures.OURS, records, wanted + ["--limit", 3600])
            samples.add_peer_lines(output)
            samples.add_floor_lines(programs.floor(records))
    cases = {}
    for title, (name, amounts) in GROWTH_CASES.items():
        say(title)
        cases[title] = [(amount, programs.case(name, amount)) for amount in amounts]

    rows = [
        figures.growth_row(samples, phase, sizes[0], records)
        for phase in figures.WORKS
        for records in sizes
    ]
    heading = "# Cost of an operation as tables grow\n\n" + machine_text(facts)
    heading += f"{options.rounds} rounds\n"
    text = "\n".join([heading, report.growth_text(rows), report.cases_text(cases)])
    data = {
        "machine": facts,
        "rounds": options.rounds,
        "samples": samples.summary(),
        "growth": rows,
        "cases": cases,
    }
    write_results(
        options, "growth", text, data, lambda path: pictures.draw_growth(samples, sizes, rows, path)
    )


# ---- instruction counts -------------------------------------------------------------------------

COUNTED_RECORDS = 20_000
COUNTED_OPERATIONS = 2_000
# The C library copies and compares with what the processor has; counts are of the plainest form, so
# that they are the same on every x86-64, and so that a block copied byte by byte in one instruction
# is not counted as one for each byte.
PLAIN_PROCESSOR = "glibc.cpu.hwcaps=" + ",".join(
    "-" + feature
    for feature in (
        "AVX2",
        "AVX_Fast_Unaligned_Load",
        "AVX512F",
        "AVX512VL",
        "AVX512BW",
        "SSSE3",
        "SSE4_1",
        "SSE4_2",
        "ERMS",
        "FSRM",
    )
)


def compiler(build):
    """What the build was compiled with, in its own words."""
    cache = (pathlib.Path(build).parent / "CMakeCache.txt").read_text().splitlines()
    path = next(l.split("=", 1)[1] for l in cache if l.startswith("CMAKE_CXX_COMPILER:"))
    version = subprocess.run([path, "--version"], capture_output=True, text=True, check=True)
    return version.stdout.splitlines()[0]


def count_instructions(programs, results, surroundings, program="nimdb_instructions"):
    """The counts of one run, in an environment that nobody's variables get into."""
    environment = {"PATH": os.environ["PATH"], "GLIBC_TUNABLES": PLAIN_PROCESSOR, **surroundings}
    texts = programs.instructions(
        COUNTED_RECORDS, COUNTED_OPERATIONS, results / "callgrind", environment, program
    )
    return dict(found for found in map(figures.counts_in_dump, texts) if found)


def check_instructions(options, programs):
    """0; 1 when a count grew, or two runs differ."""
    results = pathlib.Path(options.results).resolve()
    say("counting twice, the second time with the stack elsewhere: a minute")
    counts = count_instructions(programs, results, {})
    again = count_instructions(programs, results, {"MOVE_THE_STACK": "x" * 1000})
    difference = figures.largest_difference(counts, again)
    say(f"the two runs differ by {difference * 100:.5f} % at most")
    if difference > figures.UNREPEATABLE:
        say("that is too much: something in the work depends on more than the code")
        return 1
    if options.against:
        return compare_instructions(options, programs, results, counts)
    remarks = [
        "Instructions an operation, counted under callgrind; ./dev bench --instructions compares",
        "with them, and with --update writes them anew.",
        f"{COUNTED_RECORDS} records, {COUNTED_OPERATIONS} operations each",
        f"compiler: {compiler(options.build)}",
    ]
    if options.update:
        BASELINE.write_text(figures.format_baseline(counts, remarks))
        say(f"written: {BASELINE}")
    baseline, written = figures.parse_baseline(BASELINE.read_text())
    rows = figures.compare_counts(baseline, counts)
    print(report.counts_text(rows))
    if written != remarks:
        say("the baseline was counted otherwise: " + "; ".join(set(written) - set(remarks)))
    return verdict(rows)


def compare_instructions(options, programs, results, counts):
    """Beside another state of this library; 1 when a count is higher now."""
    say(f"counting those of {options.against}")
    old = count_instructions(programs, results, {}, "nimdb_instructions_against")
    rows = figures.compare_counts(old, counts)
    print(report.counts_text(rows, "before"))
    return verdict(rows)


def verdict(rows):
    """Says which counts grew; 1 when one did."""
    findings = [name for name, _, _, _, finding in rows if finding]
    if findings:
        say(f"grew by more than {figures.GROWN:.0%}: {', '.join(findings)}")
        return 1
    say(f"nothing grew by more than {figures.GROWN:.0%}")
    return 0


def main():
    options = arguments()
    results = pathlib.Path(options.results)
    results.mkdir(parents=True, exist_ok=True)
    pathlib.Path(options.dir).mkdir(parents=True, exist_ok=True)
    data = tempfile.mkdtemp(prefix="nimdb-bench.", dir=options.dir)
    programs = Programs(options.build, data, results / "log.txt")
    try:
        if options.instructions:
            return check_instructions(options, programs)
        if options.growth:
            measure_growth(options, programs)
        else:
            compare(options, programs)
    except Failed as failure:
        print(f"./dev bench: {failure}", file=sys.stderr)
        return 1
    finally:
        shutil.rmtree(data, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
