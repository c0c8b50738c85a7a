"""Draws the benchmark's pictures, with matplotlib where it is installed."""

from figures import FLOOR, FLOOR_OF_WAY, IN_PLACE, OURS, WORKS, is_ours

try:
    import matplotlib

    matplotlib.use("svg")
    import matplotlib.pyplot as pyplot
except ImportError:
    pyplot = None

OUR_COLOUR, PEER_COLOUR, FLOOR_COLOUR = "#1f5fa8", "#b9c2cc", "#5c5c5c"
LEVEL_COLOUR = "#c0561a"


def can_draw():
    return pyplot is not None


def _axes(title):
    """Six drawings on one sheet, one for each work."""
    figure, axes = pyplot.subplots(2, 3, figsize=(15, 9), layout="constrained")
    figure.suptitle(title)
    return figure, dict(zip(WORKS, axes.flat))


def _save(figure, path):
    figure.savefig(path, format="svg", metadata={"Date": None})
    pyplot.close(figure)


def draw_comparison(comparison, path):
    """Every engine's time for every work, fastest on top."""
    figure, axes = _axes(
        f"microseconds an operation, {comparison.records:,} records (shorter is faster)"
    )
    for phase, ax in axes.items():
        bars = [
            (comparison.time(engine, phase), engine, OUR_COLOUR if is_ours(engine) else PEER_COLOUR)
            for engine in comparison.samples.engines(comparison.records)
        ]
        bars.append((comparison.floor(phase, IN_PLACE), "bare", FLOOR_COLOUR))
        bars = sorted((bar for bar in bars if bar[0] is not None), reverse=True)
        names = [
            name if name == "bare" or name in comparison.surviving else name + " (loses)"
            for _, name, _ in bars
        ]
        drawn = ax.barh(names, [time for time, _, _ in bars], color=[c for _, _, c in bars])
        ax.bar_label(drawn, fmt="%.2f", padding=2, fontsize=8)
        ax.margins(x=0.15)
        ax.set_title(WORKS[phase])
        ax.tick_params(labelsize=8)
    _save(figure, path)


def draw_growth(samples, sizes, rows, path):
    """Every work's time against the number of records, beside the bare time and beside what the levels
    of the tree alone would make of the time at the smallest size."""
    figure, axes = _axes("microseconds an operation against the number of records")
    for phase, ax in axes.items():

        def curve(engine, name, **how):
            points = [(n, samples.median(engine, n, name)) for n in sizes]
            points = [(n, time) for n, time in points if time is not None]
            if points:
                ax.plot(*zip(*points), marker="o", **how)

        curve(OURS, phase, color=OUR_COLOUR, label=OURS)
        curve(FLOOR, FLOOR_OF_WAY[IN_PLACE][phase], color=FLOOR_COLOUR, label="bare " + IN_PLACE)
        start = samples.median(OURS, sizes[0], phase)
        levels = {row["records"]: row["levels_factor"] for row in rows if row["work"] == phase}
        if start is not None and None not in levels.values():
            ax.plot(
                sizes,
                [start * levels[n] for n in sizes],
                color=LEVEL_COLOUR,
                linestyle="--",
                label="the smallest size's cost, times levels",
            )
        ax.set_xscale("log")
        ax.set_ylim(bottom=0)
        ax.set_xlabel("records")
        ax.set_title(WORKS[phase])
        ax.legend(fontsize=8)
    _save(figure, path)
