"""The part of docs/performance.md that is made from a run, with its curves."""

import re

from report import curves, table

BEGIN, END = "<!-- last run: written by script/bench -->", "<!-- end of the last run -->"


def machine_text(run):
    machine = run["machine"]
    load = " before, ".join(f"{value:.1f}" for value in (machine["load_before"], machine["load_after"]))
    state = " with uncommitted changes" if run["dirty"] else ""
    return (f"Commit {run['commit'][:12]}{state}, {run['started']}, {run['seconds'] / 60:.0f} minutes; {machine['cpu']}, "
            f"{machine['cores']} processors, {machine['distribution']}, kernel {machine['kernel']}; load average {load} after.")


def growth(run):
    """Curves of what is measured for several numbers of services: the figure's and its peer's."""
    found = {}
    for figure in run["figures"]:
        match = re.fullmatch(r"(purge, per service call|uncached query, per service), (\d+) services( of .*)?", figure["name"])
        if not match:
            continue
        kind = match[3] or ""
        found.setdefault(match[1] + (f", services{kind}" if kind else ""), []).append((int(match[2]), figure["median"]))
        if kind != " of libkelvane":  # the peer is the same as beside the others
            peer = f"{figure['peer']['name']} ({match[1].split(',')[0]})"
            found.setdefault(peer, []).append((int(match[2]), figure["peer"]["median"]))
    return [(name, *zip(*sorted(points))) for name, points in found.items()]


def series(run, prefix, names=None):
    """In the order of `names`, when they are given."""
    found = {each["name"].removeprefix(prefix): each for each in run["series"] if each["name"].startswith(prefix)}
    return [(name, found[name]["x"], found[name]["y"]) for name in names or found if name in found]


def near(lines, first, last):
    """What of the curves lies between two moments."""
    cut = [(name, [(x, y) for x, y in zip(xs, ys) if first <= x <= last]) for name, xs, ys in lines]
    return [(name, *zip(*points)) for name, points in cut if points]


def drawings(run):
    """File name, what it shows and the picture; without those whose benchmarks were left out."""
    fills = near(series(run, "fill, 500 MB/s, "), -150, 500)
    wanted = [
        ("cost.svg", "Cost of each service against the number of services", "services", "microseconds", growth(run),
         {"log_x": True, "log_y": True}),
        ("round-trips.svg", "Round trips: which part took at most how long", "microseconds", "percent of the calls",
         series(run, "round trip, "), {"log_x": True}),
        ("reaction.svg", "From the crossing to the first request: which part took at most how long", "milliseconds",
         "percent of the fills", series(run, "reaction, "), {"log_x": True}),
        ("fill.svg", "One fill at 500 MB/s: what is free", "milliseconds since the threshold was crossed", "MiB", fills,
         {"marks": [("the threshold", 204.8)]}),
    ]
    return [(name, title, curves.draw(title, x, y, lines, **how)) for name, title, x, y, lines, how in wanted if lines]


def section(run):
    goals = [figure for figure in run["figures"] if "goal" in figure]
    others = [figure for figure in run["figures"] if "goal" not in figure]
    notes = sorted({f"- {figure['name']}: {figure['note']}." for figure in goals if "note" in figure})
    missed = sum(table.met(figure) is False for figure in goals)
    left_out = [f"{name}: {why}" for name, why in run["left_out"].items()]
    parts = [BEGIN, machine_text(run), f"{len(goals) - missed} of {len(goals)} goals are met.",
             *(["Left out: " + "; ".join(left_out) + "."] if left_out else []), table.markdown(goals), *notes]
    parts += [f"![{title}](performance/{name})" for name, title, _ in drawings(run)]
    parts += ["What else was measured:", table.markdown(others), END]
    return "\n\n".join(parts).replace(".\n\n- ", ".\n- ")


def put_into(page, run):
    """The page with this run in the place of the one it has."""
    before, rest = page.split(BEGIN)
    return before + section(run) + rest.split(END)[1]
