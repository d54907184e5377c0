"""Draws what script/bench has measured: draw.py TABLE PICTURE.

On the left the downloads, on the right ten minutes of idling; a side that is not in the table is left out.
"""
import csv
import sys

import matplotlib

matplotlib.use("agg")
from matplotlib import pyplot, ticker  # noqa: E402

# Colours that the colour-blind tell apart; besides, marks of different shapes, side by side at each size.
LAUNCHER, LAUNCHER_LIGHT = "#0072B2", "#56B4E9"
OTHERS, OTHERS_LIGHT = "#8C8C8C", "#C8C8C8"
MARKS = {
    "launcher": ({"color": LAUNCHER, "marker": "o"}, 0.94),
    "curl": ({"color": "#E69F00", "marker": "s"}, 1),
    "curl, sync, mv": ({"color": "#009E73", "marker": "^"}, 1.06),
}
WHISKERS = {"linestyle": "none", "elinewidth": 1, "capsize": 2}


def read(table):
    """The table's rows by measurement, with numbers where it has numbers."""
    rows = {}
    with open(table, newline="") as file:
        for row in csv.DictReader(file):
            row |= {name: float(row[name]) for name in ("median", "least", "most", "mean")}
            rows.setdefault(row["measurement"], []).append(row)
    return rows


def plain(value, _=None):
    return f"{value:,.3g}" if value < 1000 else f"{value:,.0f}"


def draw_download(axes, rows, quantity):
    """Marks for each contender: its median against the size, with the least and the most."""
    for subject, (style, step) in MARKS.items():
        taken = [row for row in rows if row["quantity"] == quantity and row["subject"] == subject]
        sizes = [float(row["case"].split()[0]) for row in taken]
        medians = [row["median"] for row in taken]
        below = [row["median"] - row["least"] for row in taken]
        above = [row["most"] - row["median"] for row in taken]
        places = [size * step for size in sizes]
        axes.errorbar(places, medians, [below, above], label=subject, **style, **WHISKERS)
    axes.set_xscale("log")
    axes.set_yscale("log")
    axes.set_xticks(sizes)
    axes.yaxis.set_major_locator(ticker.LogLocator(subs=(1, 2, 5)))
    for axis in (axes.xaxis, axes.yaxis):
        axis.set_major_formatter(ticker.FuncFormatter(plain))
        axis.set_minor_locator(ticker.NullLocator())
    axes.set_title(f"Download: {quantity}, median with least and most")
    axes.set_xlabel("size of the file, MiB")
    axes.set_ylabel("seconds")
    axes.grid(axis="y", color="#E0E0E0", linewidth=0.6)
    axes.legend(frameon=False)


def draw_bars(axes, rows, quantity, shift=0.0, height=0.6, colours=(LAUNCHER, OTHERS), remark=""):
    """A bar for each program, the launcher's in a colour of its own, with the figure at its end."""
    taken = [row for row in rows if row["quantity"] == quantity]
    programs = [row["subject"] for row in taken]
    figures = [row["median"] for row in taken]
    places = [place + shift for place in range(len(taken))]
    launcher, others = colours
    shades = [launcher if program == "launcher" else others for program in programs]
    bars = axes.barh(places, figures, height, color=shades)
    axes.bar_label(bars, [plain(figure) + remark for figure in figures], padding=3)
    axes.set_yticks(range(len(taken)), programs)
    axes.set_ylim(len(taken) - 0.5, -0.5)
    axes.set_xlim(0, max(1, *figures) * (1.5 if remark else 1.15))


def draw_cpu(axes, rows):
    """Two bars for each program: without and with its children."""
    draw_bars(axes, rows, "CPU of its own", -0.2, 0.38, remark=" own")
    draw_bars(axes, rows, "CPU with children", 0.2, 0.38, (LAUNCHER_LIGHT, OTHERS_LIGHT), " with children")


def draw_downloads(figure, rows):
    wall, cpu = figure.subplots(2, 1)
    draw_download(wall, rows, "wall time")
    draw_download(cpu, rows, "CPU time")


def draw_idling(figure, rows):
    cpu, wakeups, memory = figure.subplots(3, 1, height_ratios=(1.6, 1, 1))
    draw_cpu(cpu, rows)
    draw_bars(wakeups, rows, "wake-ups")
    draw_bars(memory, rows, "private memory")
    period = rows[0]["case"]
    for axes, what, unit in (
        (cpu, f"CPU time in {period}", "milliseconds"),
        (wakeups, "wake-ups", "per minute"),
        (memory, "private memory", "MiB"),
    ):
        axes.set_title(f"Idle: {what}")
        axes.set_xlabel(unit)


SIDES = {"download": draw_downloads, "idle": draw_idling}
LOOK = {
    "font.size": 8,
    "axes.titlesize": 9,
    "axes.titleweight": "bold",
    "axes.titlelocation": "left",
    "axes.spines.top": False,
    "axes.spines.right": False,
}


def main():
    table, picture = sys.argv[1:]
    rows = read(table)
    sides = [side for side in SIDES if side in rows]
    if not sides:
        sys.exit(f"draw: {table} holds neither downloads nor idling")
    pyplot.rcParams.update(LOOK)
    # Twice the 900 pixels that it is shown with.
    figure = pyplot.figure(figsize=(4.5 * len(sides), 6.4), dpi=200, layout="constrained")
    for side, part in zip(sides, figure.subfigures(1, len(sides), squeeze=False)[0]):
        SIDES[side](part, rows[side])
    figure.savefig(picture)
    print(f"drawn to {picture}")


if __name__ == "__main__":
    main()
