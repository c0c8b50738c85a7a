"""What the benchmark computes from what its programs print: medians, ratios, goals. No input or
output here; figures_test.py holds it to numbers worked out by hand."""

import statistics
from collections import defaultdict

OURS = "nimdb"
FLOOR = "floor"

# The columns of the tables: phase as bench_peers prints it, and how a reader calls it.
WORKS = {
    "insert": "insert",
    "find_name": "find by name",
    "find_hash": "find by 32-byte id",
    "walk_name": "walk by name",
    "modify": "modify",
    "delete": "delete",
}
OPEN = "open"

# What the input and output costs bare, by the way an engine of this library reads and writes; finds
# and walks with the descent in memory and the decoding.
FLOOR_OF_WAY = {
    "pread + pwrite": {
        "insert": "insert: a  pread + pwrite",
        "find_name": "find: descent + 1 pread of 256 + decode",
        "find_hash": "find: descent + 1 pread of 256 + decode",
        "walk_name": "walk: 1 pread of 256 + decode",
        "modify": "modify: a  pread + pwrite",
        "delete": "delete: a  pread + pwrite",
    },
    "copied out of a mapping + pwrite": {
        "insert": "insert: b  memcpy from map + pwrite",
        "find_name": "find: descent + memcpy from map + decode",
        "find_hash": "find: descent + memcpy from map + decode",
        "walk_name": "walk: memcpy from map + decode",
        "modify": "modify: b  memcpy from map + pwrite",
        "delete": "delete: b  memcpy from map + pwrite",
    },
    "used in place in a mapping + pwrite": {
        "insert": "insert: b' pointer into map + pwrite",
        "find_name": "find: descent + decode straight from map",
        "find_hash": "find: descent + decode straight from map",
        "walk_name": "walk: decode straight from map",
        "modify": "modify: b' pointer into map + pwrite",
        "delete": "delete: b' pointer into map + pwrite",
    },
}
THROUGH_MAPPING = "copied through a shared mapping"
FLOOR_OF_WAY[THROUGH_MAPPING] = {
    "insert": "insert: c  memcpy from map + memcpy to map",
    "find_name": "find: descent + decode straight from map",
    "find_hash": "find: descent + decode straight from map",
    "walk_name": "walk: decode straight from map",
    "modify": "modify: c  memcpy from map + memcpy to map",
    "delete": "delete: c  memcpy from map + memcpy to map",
}
COPIED = "copied out of a mapping + pwrite"
IN_PLACE = "used in place in a mapping + pwrite"
# An engine that stores through a mapping too, where the library offers that switch.
STORING = "nimdb-mapped-writes"
WAY_OF_ENGINE = {OURS: IN_PLACE, "nimdb-unmapped": "pread + pwrite", STORING: THROUGH_MAPPING}


STORES_NOTHING = {"memory"}  # no database at all


# Another state of this library beside this one: no peer, and no part of the goals.
BEFORE = "before:"


def is_ours(engine):
    return engine == OURS or engine.startswith(OURS + "-")


def before(engine):
    """The name of an engine of the other state of this library."""
    return BEFORE + engine


def without_before(engine):
    return engine.removeprefix(BEFORE)


def is_before(engine):
    return engine.startswith(BEFORE)


def renamed(text, name):
    """What bench_peers printed, as of an engine of another name."""
    return "".join(
        "\t".join([name, *line.split("\t")[1:]]) for line in text.splitlines(keepends=True)
    )


class Samples:
    """Every value that was measured, by engine, number of records and phase."""

    def __init__(self):
        self.values = defaultdict(list)
        self.cut = set()

    def add(self, engine, records, phase, value):
        if phase.endswith("!cut"):  # ended by the time limit: the value is of fewer operations
            phase = phase[: -len("!cut")]
            self.cut.add((engine, records, phase))
        self.values[(engine, records, phase)].append(value)

    def add_peer_lines(self, text):
        """Takes what bench_peers printed."""
        for line in text.splitlines():
            engine, _, records, phase, operations, _, _, value = line.split("\t")
            if operations != "0":  # else the time was up before the phase began
                self.add(engine, int(records), phase, float(value))

    def add_floor_lines(self, text):
        """Takes what floor printed."""
        for line in text.splitlines():
            _, records, scenario, value = line.split("\t")
            self.add(FLOOR, int(records), scenario, float(value))

    def median(self, engine, records, phase):
        """None where nothing was measured."""
        values = self.values.get((engine, records, phase))
        return statistics.median(values) if values else None

    def engines(self, records):
        """This library's first; without the floor."""
        found = {e for e, n, _ in self.values if n == records and e != FLOOR}
        return sorted(found, key=lambda engine: (not is_ours(engine), not is_before(engine), engine))

    def sizes(self):
        return sorted({n for _, n, _ in self.values})

    def summary(self):
        """For the JSON: median, least and most of everything."""
        return [
            {
                "engine": engine,
                "records": records,
                "phase": phase,
                "median": statistics.median(values),
                "min": min(values),
                "max": max(values),
                "rounds": len(values),
                "cut": (engine, records, phase) in self.cut,
            }
            for (engine, records, phase), values in sorted(self.values.items())
        ]


def ratio(ours, theirs):
    """Below 1: this library is faster. None where one of them was not measured."""
    return ours / theirs if ours is not None and theirs else None


class Comparison:
    """This library beside the others at one number of records. `surviving`: the engines whose finished
    operations survive the death of the process; the others do less work and win nothing."""

    def __init__(self, samples, records, surviving):
        self.samples = samples
        self.records = records
        self.surviving = surviving

    def time(self, engine, phase):
        return self.samples.median(engine, self.records, phase)

    def fastest(self, phase, wanted):
        """(engine, time) of the fastest engine that survives, did all of the work, and for which
        wanted(engine); (None, None) without one. For finds and walks, which have nothing to lose,
        those are peers, too, that do not survive."""
        reads = phase in ("find_name", "find_hash", "walk_name")
        times = [
            (self.time(engine, phase), engine)
            for engine in self.samples.engines(self.records)
            if (engine in self.surviving or (reads and engine not in STORES_NOTHING))
            if not is_ours(engine) and not is_before(engine) and wanted(engine)
            if (engine, self.records, phase) not in self.samples.cut
        ]
        times = [(time, engine) for time, engine in times if time is not None]
        return tuple(reversed(min(times))) if times else (None, None)

    def fastest_peer(self, phase):
        return self.fastest(phase, lambda engine: True)

    def fastest_of(self, phase, family):
        """The fastest mode of a database: "sqlite" stands for "sqlite-wal", "sqlite-off", ..."""
        return self.fastest(phase, lambda e: e == family or e.startswith(family + "-"))

    def floor(self, phase, way):
        scenario = FLOOR_OF_WAY[way].get(phase)
        return self.time(FLOOR, scenario) if scenario else None

    def row(self, engine, phase):
        """One line of the table of ratios."""
        ours = self.time(engine, phase)
        peer, peer_time = self.fastest_peer(phase)
        sqlite, sqlite_time = self.fastest_of(phase, "sqlite")
        floor = self.floor(phase, WAY_OF_ENGINE[engine])
        return {
            "work": phase,
            "time": ours,
            "peer": peer,
            "peer_time": peer_time,
            "peer_ratio": ratio(ours, peer_time),
            "sqlite": sqlite,
            "sqlite_time": sqlite_time,
            "sqlite_ratio": ratio(ours, sqlite_time),
            "floor": floor,
            "floor_ratio": ratio(ours, floor),
        }


def change_rows(samples, records):
    """Every line that was measured of this library and of its other state: (engine, phase, before, now,
    now by before, least by least)."""
    rows = []
    for engine, size, phase in samples.values:
        old = samples.values.get((before(engine), records, phase))
        if size != records or not is_ours(engine) or not old:
            continue
        new = samples.values[(engine, records, phase)]
        was, now = statistics.median(old), statistics.median(new)
        rows.append((engine, phase, was, now, ratio(now, was), ratio(min(new), min(old))))
    return rows


# ---- goals --------------------------------------------------------------------------------------

AT_LEAST, AIM = "at least", "aim"


class Goals:
    """Whether this library reached what it is meant to reach; ratios within one run."""

    def __init__(self, comparison, open_ten_tables_us=None):
        self.comparison = comparison
        self.results = []
        self._insert()
        self._read()
        self._change()
        self._below(
            AT_LEAST, OPEN, "below 1 ms with ten tables", ratio(open_ten_tables_us, 1000)
        )

    def _result(self, level, work, wanted, reached, limit, met):
        self.results.append(
            {"level": level, "work": work, "goal": wanted, "limit": limit, "ratio": reached, "met": met}
        )

    def _below(self, level, work, wanted, reached):
        self._result(level, work, wanted, reached, 1, None if reached is None else reached < 1)

    def _faster_than(self, level, phase, family, called, engine=OURS):
        peer, time = self.comparison.fastest_of(phase, family)
        wanted = f"faster than {called}" + (f" ({peer})" if peer and peer != family else "")
        reached = ratio(self.comparison.time(engine, phase), time)
        self._below(level, WORKS[phase], wanted, reached)

    def _faster_than_mode(self, level, phase, mode, called):
        reached = ratio(self.comparison.time(OURS, phase), self.comparison.time(mode, phase))
        self._below(level, WORKS[phase], f"faster than {called}", reached)

    def _near_floor(self, level, phase, way, engine=OURS):
        reached = ratio(self.comparison.time(engine, phase), self.comparison.floor(phase, way))
        met = None if reached is None else reached <= 1.2
        self._result(level, WORKS[phase], f"at most 1.2 x bare, {way}", reached, 1.2, met)

    def _insert(self):
        self._faster_than(AT_LEAST, "insert", "sqlite", "SQLite in every mode")
        self._faster_than_mode(AT_LEAST, "insert", "lmdb", "LMDB without write map")
        self._near_floor(AT_LEAST, "insert", COPIED)
        self._near_floor(AIM, "insert", IN_PLACE)
        self._near_floor(AIM, "insert", THROUGH_MAPPING, STORING)
        self._faster_than(AIM, "insert", "leveldb", "LevelDB, storing through a mapping", STORING)

    def _read(self):
        for phase in ("find_name", "find_hash"):
            self._faster_than(AT_LEAST, phase, "sqlite", "SQLite")
            self._faster_than(AT_LEAST, phase, "leveldb", "LevelDB")
            self._faster_than(AT_LEAST, phase, "bdb", "Berkeley DB")
            self._faster_than(AIM, phase, "lmdb", "LMDB")
        self._faster_than(AT_LEAST, "walk_name", "sqlite", "SQLite")
        self._faster_than(AIM, "walk_name", "lmdb", "LMDB")

    def _change(self):
        for phase in ("modify", "delete"):
            self._faster_than(AT_LEAST, phase, "sqlite", "SQLite")
            self._near_floor(AIM, phase, WAY_OF_ENGINE[OURS])
            self._faster_than_mode(AIM, phase, "lmdb", "LMDB without write map")


# ---- growth -------------------------------------------------------------------------------------

# The tree (by the name of its field) whose levels each work goes through; None: all four.
TREE_OF_WORK = {
    "insert": None,
    "find_name": "Name",
    "find_hash": "Hash",
    "walk_name": None,  # a step goes through no level: its cost is not to grow at all
    "modify": None,
    "delete": None,
}
TREES = ("Id", "Name", "Size", "Hash")


def growth_row(samples, phase, smallest, records):
    """What an operation costs beside what it cost at the smallest size; levels and bare cost the
    same way."""

    def factor(engine, name):
        return ratio(
            samples.median(engine, records, name), samples.median(engine, smallest, name)
        )

    def levels(size):
        trees = TREES if TREE_OF_WORK[phase] is None else (TREE_OF_WORK[phase],)
        counts = [samples.median(OURS, size, "levels_" + tree) for tree in trees]
        return None if None in counts else sum(counts) / len(counts)

    return {
        "work": phase,
        "records": records,
        "time": samples.median(OURS, records, phase),
        "factor": factor(OURS, phase),
        "levels": levels(records),
        "levels_factor": 1.0 if phase == "walk_name" else ratio(levels(records), levels(smallest)),
        "bare": samples.median(FLOOR, records, FLOOR_OF_WAY[IN_PLACE][phase]),
        "bare_factor": factor(FLOOR, FLOOR_OF_WAY[IN_PLACE][phase]),
    }


# ---- instruction counts -------------------------------------------------------------------------

GROWN = 0.03  # a count that rose by more than this is a finding
UNREPEATABLE = 0.001


def counts_in_dump(text):
    """(name, instructions an operation) of one of callgrind's dumps that the program asked for, whose
    label is "name operations"; None of the dump that callgrind makes at the end."""
    label, total = None, None
    for line in text.splitlines():
        if line.startswith("desc: Trigger: Client Request: "):
            label = line.split(": ", 3)[3]
        elif line.startswith("totals: "):
            total = int(line.split()[1])
    if label is None or total is None:
        return None
    name, operations = label.rsplit(" ", 1)
    return name, total / int(operations)


def largest_difference(one, other):
    """Of two runs' counts, as a part of the count."""
    if one.keys() != other.keys():
        raise ValueError("the runs did not count the same work")
    return max(abs(one[name] - other[name]) / one[name] for name in one)


def format_baseline(counts, remarks):
    lines = [f"# {remark}" for remark in remarks]
    lines += [f"{name}\t{count:.1f}" for name, count in counts.items()]
    return "\n".join(lines) + "\n"


def parse_baseline(text):
    """(counts, remarks) of a baseline file."""
    counts, remarks = {}, []
    for line in text.splitlines():
        if line.startswith("# "):
            remarks.append(line[2:])
        elif line:
            name, count = line.split("\t")
            counts[name] = float(count)
    return counts, remarks


def compare_counts(baseline, counts):
    """For every work counted or expected: baseline, count, change as a part of the baseline, and
    whether that is a finding. Work that only one side knows is one."""
    rows = []
    for name in list(baseline) + [n for n in counts if n not in baseline]:
        before, now = baseline.get(name), counts.get(name)
        known = before is not None and now is not None
        change = (now - before) / before if known else None
        rows.append((name, before, now, change, not known or change > GROWN))
    return rows
