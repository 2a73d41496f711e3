"""The one results table: a row per scenario with each tool's median, the goal and whether it is
met, and the conditions the row was measured under."""

import statistics

from tools import UNFLUSHED


class Row:
    def __init__(self, scenario, cells, goal, met, conditions=""):
        self.scenario = scenario
        self.cells = cells          # {column: text}
        self.goal = goal
        self.met = met              # True, False, or None where there is nothing to judge
        self.conditions = conditions


def median(measurements, flushed=False):
    values = [m.flushed if flushed else m.seconds for m in measurements]
    return statistics.median(values)


def conditions(measurements):
    """The load average before the runs and the other processes' share of one core during them."""
    loads = [m.load for m in measurements]
    busy = max(0.0, sum(m.other_cpu for m in measurements)) / max(1e-9, sum(m.seconds for m in measurements))
    failed = sum(m.failed for m in measurements)
    text = f"load {min(loads):.2f}–{max(loads):.2f}, others {busy * 100:.0f} % of a core"
    return text + (f", {failed} runs failed" if failed else "")


class Table:
    def __init__(self):
        self.rows = []
        self.columns = []

    def timed_row(self, scenario, times, goal_text, ratios):
        """times: {tool: [Measurement]}; ratios: (tool, peer, highest ratio) that must all hold.
        A peer named "X+sync" means X timed with the `sync` after it."""
        value = {}
        cells = {}
        for tool, ms in times.items():
            value[tool] = median(ms)
            cells[tool] = f"{value[tool]:.3f}"
            if tool in UNFLUSHED and ms[0].flushed is not None:
                value[tool + "+sync"] = median(ms, flushed=True)
                cells[tool] += f" / {value[tool + '+sync']:.3f}"
            if tool not in self.columns:
                self.columns.append(tool)
        met = all(value[a] <= limit * value[b] for a, b, limit in ratios) if ratios else None
        now = ", ".join(f"{value[a] / value[b]:.2f} × {b}" for a, b, _ in ratios)
        shown = f"{goal_text} (now {now})" if ratios else goal_text
        every = [m for ms in times.values() for m in ms]
        self.add(Row(scenario, cells, shown, met, conditions(every)))
        return value

    def add(self, row):
        self.rows.append(row)
        for column in row.cells:
            if column not in self.columns:
                self.columns.append(column)
        mark = {True: "met", False: "MISSED", None: ""}[row.met]
        print(f"{row.scenario}: {row.cells} {row.goal} {mark} [{row.conditions}]", flush=True)

    def markdown(self):
        lines = ["| scenario | " + " | ".join(self.columns) + " | goal | met | conditions |",
                 "|---" * (len(self.columns) + 4) + "|"]
        for row in self.rows:
            mark = {True: "✔", False: "✘", None: ""}[row.met]
            lines.append(f"| {row.scenario} | " + " | ".join(row.cells.get(c, "") for c in self.columns) +
                         f" | {row.goal} | {mark} | {row.conditions} |")
        return "\n".join(lines) + "\n"
