#!/usr/bin/env python3
"""Prints one Markdown table that sets two weft-bench JSON files side by side:
every figure of every row present in both, with the ratio after/before.

    bench/compare.py before.json after.json [--weft-only] [--figures KEY,KEY...]

Baseline rows are shown too: they did not change between the runs, so their
ratios show how much the machine itself drifted.
"""
import json
import sys


def load(path):
    with open(path) as f:
        data = json.load(f)
    rows = {}
    order = []
    for scenario in data["scenarios"]:
        columns = [(c["key"], c["title"], c["unit"]) for c in scenario["columns"]]
        for row in scenario["rows"]:
            key = (scenario["name"], row["subject"])
            rows[key] = (scenario["title"], columns, row["figures"])
            order.append(key)
    return data, rows, order


def fmt(value, unit):
    if value is None:
        return "–"
    if abs(value) >= 100 or value == int(value):
        text = f"{value:.0f}"
    elif abs(value) >= 10:
        text = f"{value:.1f}"
    else:
        text = f"{value:.2f}"
    return f"{text} {unit}".strip()


def main(argv):
    weft_only = "--weft-only" in argv
    figures = None
    args = []
    rest = argv[1:]
    while rest:
        arg = rest.pop(0)
        if arg == "--figures" and rest:
            figures = set(rest.pop(0).split(","))
        elif not arg.startswith("--"):
            args.append(arg)
    if len(args) != 2:
        print(__doc__)
        return 2
    before, before_rows, _ = load(args[0])
    after, after_rows, order = load(args[1])
    print(f"Before: {args[0]} ({before['repetitions']} runs per figure); "
          f"after: {args[1]} ({after['repetitions']} runs per figure).\n")
    print("| Scenario | Subject | Figure | Before | After | After/before |")
    print("|---|---|---|---:|---:|---:|")
    last_scenario = None
    for key in order:
        if key not in before_rows:
            continue
        scenario, subject = key
        if weft_only and not subject.startswith("weft"):
            continue
        title, columns, figures_after = after_rows[key]
        figures_before = before_rows[key][2]
        for column_key, column_title, unit in columns:
            if figures is not None and column_key not in figures:
                continue
            old = figures_before.get(column_key)
            new = figures_after.get(column_key)
            if old is None and new is None:
                continue
            ratio = f"×{new / old:.2f}" if old and new is not None else "–"
            shown = title if scenario != last_scenario else ""
            last_scenario = scenario
            print(f"| {shown} | {subject} | {column_title} | {fmt(old, unit)} | "
                  f"{fmt(new, unit)} | {ratio} |")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
