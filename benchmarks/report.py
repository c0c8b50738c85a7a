"""The benchmark's tables as text."""

from figures import GROWN, OPEN, WORKS, is_ours


def table(head, rows):
    """Columns as wide as they must be; the first is text, the others are numbers."""
    cells = [head] + rows
    widths = [max(len(row[column]) for row in cells) for column in range(len(head))]
    lines = []
    for row in cells:
        parts = [row[0].ljust(widths[0])]
        parts += [cell.rjust(width) for cell, width in zip(row[1:], widths[1:])]
        lines.append("  ".join(parts).rstrip())
    lines.insert(1, "-" * max(map(len, lines)))
    return "\n".join(lines)


def number(value, digits=2):
    return "-" if value is None else f"{value:,.{digits}f}"


def ratio_table(comparison, engine):
    """An engine of this library beside the fastest of the others, one line a work."""
    rows = []
    for phase in WORKS:
        row = comparison.row(engine, phase)
        rows.append(
            [WORKS[phase], number(row["time"])]
            + [row["peer"] or "-", number(row["peer_time"]), number(row["peer_ratio"])]
            + [row["sqlite"] or "-", number(row["sqlite_time"]), number(row["sqlite_ratio"])]
            + [number(row["floor"]), number(row["floor_ratio"])]
        )
    head = [engine, "us", "fastest peer", "us", "ratio", "fastest SQLite", "us", "ratio"]
    return table(head + ["bare", "ratio"], rows)


def engine_table(comparison):
    """Everything that was measured of every engine."""
    samples, records = comparison.samples, comparison.records
    rows = []
    for engine in samples.engines(records):
        times = []
        for phase in WORKS:
            cut = (engine, records, phase) in samples.cut
            times.append(number(comparison.time(engine, phase)) + ("*" if cut else ""))
        open_us = comparison.time(engine, OPEN)
        rows.append(
            [engine + ("" if engine in comparison.surviving else " (loses)")]
            + times
            + [number(open_us / 1000 if open_us is not None else None, 3)]
            + [number(comparison.time(engine, "bytes_per_record"), 0)]
            + [number(comparison.time(engine, "peak_anon_MiB"), 0)]
            + [number(comparison.time(engine, "peak_rss_MiB"), 0)]
        )
    head = ["us an operation", *WORKS.values(), "open ms", "bytes/record", "anon MiB", "RSS MiB"]
    return table(head, rows)


def comparison_text(comparison):
    parts = [f"## {comparison.records:,} records", ""]
    for engine in comparison.samples.engines(comparison.records):
        if is_ours(engine):
            parts += [ratio_table(comparison, engine), ""]
    parts += [engine_table(comparison), ""]
    return "\n".join(parts)


def changes_text(rows, records):
    """This library beside another state of it; nothing without one."""
    if not rows:
        return ""
    cells = [
        [f"{engine}: {WORKS.get(phase, phase)}", number(was, 3), number(now, 3)]
        + [number(change, 3), number(least, 3)]
        for engine, phase, was, now, change, least in rows
    ]
    return "\n".join(
        [
            f"## Now and before, {records:,} records",
            "",
            table(["", "before", "now", "ratio", "of the least"], cells),
            "",
            "Medians of the rounds, and now by before: above 1 it takes more now. Of the least: the best",
            "round by the best round, which other work on the machine disturbs least.",
            "",
        ]
    )


COMPARISON_NOTES = """\
Medians of the rounds. Ratio: this library's time by the other's; below 1 this library is faster.
Fastest peer: of the databases whose finished operations survive the death of the process, for finds
and walks of all; those that lose them say so. Bare: the input and output alone, done the way the library does it (a mapping
used in place and positioned writes; nimdb-unmapped: positioned reads), for finds and walks with a
descent in memory and the decoding. Anon: most memory that is no file's; RSS: most resident, mapped
files included. A star: ended by the time limit, the figure is of fewer operations. Differences
below 25 % mean nothing on a machine that does other work as well."""


def goals_text(goals, records):
    rows = []
    for result in goals.results:
        said = {True: "met", False: "NOT MET", None: "not measured"}[result["met"]]
        reached = f"{number(result['ratio'])} of {result['limit']:g}" if result["ratio"] else "-"
        rows.append([f"{result['work']}: {result['goal']}", result["level"], reached, said])
    counted = [r for r in goals.results if r["met"] is not None]
    met = sum(r["met"] for r in counted)
    title = f"## Goals, at {records:,} records (they are meant for 1,000,000)"
    return "\n".join(
        [title, "", table(["goal", "level", "ratio", "in this run"], rows), ""]
        + [f"{met} of {len(counted)} met, {len(goals.results) - len(counted)} not measured.", ""]
    )


def memory_text(records, walk, unmapped, updating):
    return "\n".join(
        [
            f"## Memory of a walk over {records:,} records that changes nothing",
            "",
            table(
                ["", "us a record", "before MiB", "peak MiB"],
                [
                    ["walk by name, every record decoded"] + _walk_cells(walk),
                    ["the same without mappings"] + _walk_cells(unmapped),
                    ["and with IndxUpdateTable after every 10,000"] + _walk_cells(updating),
                ],
            ),
            "",
            "Anonymous memory of a process that does nothing else. Nodes are read in place where files",
            "are mapped. Elsewhere every block that was touched is kept; IndxUpdateTable on the",
            "unchanged table lets go of them.",
            "",
        ]
    )


def _walk_cells(walk):
    return [number(walk[k]) for k in ("walk_us", "anon_before_MiB", "anon_peak_MiB")]


def growth_text(rows):
    cells = [
        [
            f"{WORKS[row['work']]}, {row['records']:,}",
            number(row["time"]),
            number(row["factor"]),
            number(row["levels"]),
            number(row["levels_factor"]),
            number(row["bare"]),
            number(row["bare_factor"]),
        ]
        for row in rows
    ]
    head = ["work, records", "us", "times the first", "levels", "times the first", "bare us"]
    return "\n".join(
        [
            "## Growth",
            "",
            table(head + ["times the first"], cells),
            "",
            "Levels: of the tree that the work descends, or the mean of all four. A step of a walk",
            "descends none. What the bare figures grow by is the machine's: caches that no longer",
            "hold everything, pages to be written back.",
            "",
        ]
    )


def cases_text(cases):
    """`cases`: {title: [(amount, {what: value})]}."""
    parts = []
    for title, runs in cases.items():
        names = list(dict.fromkeys(name for _, values in runs for name in values))
        rows = [[f"{amount:,}"] + [number(values.get(n)) for n in names] for amount, values in runs]
        parts += [f"## {title}", "", table([""] + names, rows), ""]
    return "\n".join(parts)


def counts_text(rows, first="baseline"):
    """`first`: what the counts are compared with."""
    cells = []
    for name, before, now, change, finding in rows:
        said = "GREW" if finding else "fell" if change < -GROWN else ""
        if before is None or now is None:
            said = "NOT IN THE BASELINE" if before is None else "NOT COUNTED"
        percent = "-" if change is None else f"{change * 100:+.1f} %"
        cells.append([name, number(before, 0), number(now, 0), percent, said])
    return table(["instructions an operation", first, "now", "change", ""], cells)


