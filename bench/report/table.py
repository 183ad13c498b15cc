"""Figures as tables. A figure is a dictionary as bench/support/report.cpp writes it."""


def short(number):
    """With three digits or so."""
    if abs(number) >= 10000:
        return f"{number:,.0f}"
    return f"{number:.0f}" if abs(number) >= 1000 else f"{number:.3g}" if abs(number) < 10 else f"{number:.1f}"


def spread(value):
    return f"{short(value['low'])} .. {short(value['high'])}"


def goal_text(figure):
    goal = figure.get("goal")
    if goal is None:
        return ""
    side = "most" if "most" in goal else "least"
    unit = "x" if goal["of"] == "ratio" else " " + figure["unit"]
    return f"at {side} {goal[side]:g}{unit}"


def met(figure):
    """None without a goal."""
    goal = figure.get("goal")
    if goal is None:
        return None
    value = figure["ratio"]["median"] if goal["of"] == "ratio" else figure["median"]
    return value <= goal["most"] if "most" in goal else value >= goal["least"]


def row(figure):
    peer, ratio = figure.get("peer"), figure.get("ratio")
    return [
        figure["name"],
        f"{short(figure['median'])} {figure['unit']}",
        spread(figure) if figure["rounds"] > 1 else "",
        f"{peer['name']}: {short(peer['median'])} {figure['unit']}" if peer else "",
        f"{short(ratio['median'])} ({spread(ratio)})" if ratio else "",
        goal_text(figure),
        {None: "", True: "met", False: "missed"}[met(figure)],
    ]


HEADINGS = ["figure", "median", "spread", "peer", "ratio", "goal", ""]


def plain(figures):
    """For a terminal."""
    rows = [HEADINGS] + [row(figure) for figure in figures]
    widths = [max(len(line[column]) for line in rows) for column in range(len(HEADINGS))]
    return "\n".join("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip() for line in rows)


def markdown(figures):
    lines = [HEADINGS, ["---"] * len(HEADINGS)] + [row(figure) for figure in figures]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)
