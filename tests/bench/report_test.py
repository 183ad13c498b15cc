"""Tests of bench/report: figures to tables, curves and the page."""

import pathlib
import sys
import unittest
import xml.etree.ElementTree as xml

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "bench"))

from report import curves, page, table  # noqa: E402


def figure(name="a call", **more):
    return {"name": name, "unit": "us", "rounds": 9, "median": 20.0, "low": 18.0, "high": 31.0, **more}


def beside(name="bare", median=10.0, ratio=2.0):
    return {"peer": {"name": name, "median": median, "low": 9.0, "high": 12.0},
            "ratio": {"median": ratio, "low": 1.8, "high": 2.5}}


def run_of(*figures, series=()):
    return {"machine": {"cpu": "a processor", "cores": 2, "kernel": "6.1", "distribution": "a system", "load_before": 0.5,
                        "load_after": 1.5},
            "commit": "0123456789abcdef", "dirty": False, "started": "some day", "seconds": 600, "left_out": {},
            "figures": list(figures), "series": list(series)}


class Goals(unittest.TestCase):
    def test_a_ratio_may_reach_its_goal_and_not_pass_it(self):
        goal = {"goal": {"of": "ratio", "most": 2.0}}
        self.assertIs(table.met(figure(**beside(ratio=2.0), **goal)), True)
        self.assertIs(table.met(figure(**beside(ratio=2.01), **goal)), False)

    def test_more_is_better_where_the_goal_is_a_least(self):
        goal = {"goal": {"of": "ratio", "least": 1.5}}
        self.assertIs(table.met(figure(**beside(ratio=1.6), **goal)), True)
        self.assertIs(table.met(figure(**beside(ratio=1.4), **goal)), False)

    def test_a_limit_is_compared_with_the_figure_itself(self):
        self.assertIs(table.met(figure(goal={"of": "median", "most": 19.0})), False)

    def test_without_a_goal_nothing_is_met_or_missed(self):
        self.assertIsNone(table.met(figure()))


class Tables(unittest.TestCase):
    def test_a_row_has_all_that_is_known_of_a_figure(self):
        self.assertEqual(table.row(figure(**beside(), goal={"of": "ratio", "most": 1.3})),
                         ["a call", "20.0 us", "18.0 .. 31.0", "bare: 10.0 us", "2 (1.8 .. 2.5)", "at most 1.3x", "missed"])

    def test_one_round_has_no_spread_and_no_peer_no_ratio(self):
        self.assertEqual(table.row({**figure(), "rounds": 1}), ["a call", "20.0 us", "", "", "", "", ""])

    def test_columns_of_the_plain_table_begin_below_each_other(self):
        lines = table.plain([figure("short"), figure("a much longer name")]).splitlines()
        self.assertEqual({line.index("20.0 us") for line in lines[1:]}, {lines[0].index("median")})

    def test_numbers_keep_three_digits(self):
        self.assertEqual([table.short(n) for n in (0.1234, 1.234, 12.34, 123.4, 1234.5, 12345.6)],
                         ["0.123", "1.23", "12.3", "123.4", "1234", "12,346"])


class Curves(unittest.TestCase):
    def points(self, **how):
        picture = curves.draw("A & B", "x", "y", [("one", [1, 10, 100], [1, 2, 3])], **how)
        root = xml.fromstring(picture)
        lines = [each.get("d") for each in root.iter("{http://www.w3.org/2000/svg}path") if "L" in each.get("d", "")]
        self.assertEqual(len(lines), 1)
        return [tuple(map(float, point.split())) for point in lines[0][1:].split("L")]

    def test_a_picture_is_well_formed_and_its_points_lie_within_the_axes(self):
        for x, y in self.points():
            self.assertTrue(curves.LEFT <= x <= curves.WIDTH - curves.RIGHT, x)
            self.assertTrue(curves.TOP <= y <= curves.HEIGHT - curves.BOTTOM, y)

    def test_decades_are_equally_far_apart_on_a_logarithmic_axis(self):
        (first, _), (second, _), (third, _) = self.points(log_x=True)
        self.assertAlmostEqual(second - first, third - second, delta=0.11)

    def test_more_is_higher_up(self):
        heights = [y for _, y in self.points()]
        self.assertEqual(heights, sorted(heights, reverse=True))

    def test_a_single_point_is_drawn(self):
        xml.fromstring(curves.draw("t", "x", "y", [("one", [0.0], [5.0])]))

    def test_ticks_are_round_numbers_within_the_axis(self):
        self.assertEqual(curves.Axis([0, 47], 0, 100).ticks(), [0, 10, 20, 30, 40])
        self.assertEqual(curves.Axis([1, 1000], 0, 100, logarithmic=True).ticks(), [1, 10, 100, 1000])


class Page(unittest.TestCase):
    def test_a_run_takes_the_place_of_the_one_before(self):
        old = f"before\n{page.BEGIN}\nold figures\n{page.END}\nafter\n"
        new = page.put_into(old, run_of(figure(**beside(), goal={"of": "ratio", "most": 1.3})))
        self.assertTrue(new.startswith("before\n") and new.endswith("\nafter\n"))
        self.assertNotIn("old figures", new)
        self.assertIn("| a call | 20.0 us |", new)
        self.assertEqual(page.put_into(new, run_of()).count(page.BEGIN), 1)

    def test_the_page_in_the_docs_has_a_place_for_a_run(self):
        document = (PROJECT / "docs/performance.md").read_text(encoding="utf-8")
        self.assertEqual((document.count(page.BEGIN), document.count(page.END)), (1, 1))

    def test_figures_for_several_numbers_of_services_become_curves_with_their_peers(self):
        figures = [figure(f"purge, per service call, {n} services", **beside(median=n)) for n in (100, 1)]
        self.assertEqual(page.growth(run_of(*figures)),
                         [("purge, per service call", (1, 100), (20.0, 20.0)), ("bare (purge)", (1, 100), (1, 100))])

    def test_services_of_two_kinds_are_two_curves_with_one_peer(self):
        figures = [figure(f"purge, per service call, {n} services of {kind}", **beside(median=n))
                   for n in (100, 1) for kind in ("sd-bus", "libkelvane")]
        self.assertEqual([name for name, _, _ in page.growth(run_of(*figures))],
                         ["purge, per service call, services of sd-bus", "bare (purge)",
                          "purge, per service call, services of libkelvane"])

    def test_only_curves_that_were_measured_are_drawn(self):
        fill = {"name": "fill, 500 MB/s, the watcher", "x": [-1.0, 2.0, 900.0], "y": [300.0, 200.0, 500.0]}
        drawn = page.drawings(run_of(series=[fill]))
        self.assertEqual([name for name, _, _ in drawn], ["fill.svg"])


if __name__ == "__main__":
    unittest.main()
