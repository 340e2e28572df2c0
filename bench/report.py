#!/usr/bin/env python3
"""Writes docs/performance.md and its timeline picture from the benchmark programs' JSON.

    bench/report.py RESULTS_DIR DOCS_DIR

RESULTS_DIR holds bench_kiosk.json and bench_world.json, and Google Benchmark's JSON of every
other bench_* program; what is missing is left out. The picture is drawn with gnuplot.
bench/findings.md (what was found and fixed) is appended as it stands.
"""

import datetime
import json
import os
import platform
import subprocess
import sys

PICTURE = "performance-timeline.png"


def load(directory, name):
    try:
        with open(os.path.join(directory, name)) as f:
            return json.load(f)
    except (OSError, ValueError):
        return None


def ms(seconds):
    return f"{seconds * 1000:.1f} ms" if seconds < 1 else f"{seconds:.3f} s"


def verdict(ok):
    return "met" if ok else "**missed**"


def phase_table(kiosk):
    rows = [
        "| phase | from | to | floor | of which waits / wire / device | measured | ratio | goal |",
        "|---|---|---|---|---|---|---|---|",
    ]
    for p in kiosk["phases"]:
        f = p["floor"]
        ratio = p["measured"] / f["total"] if f["total"] > 0 else float("inf")
        goal = p["goal_ratio"]
        rows.append(
            f"| {p['name']} | {p['from']} | {p['to']} | {ms(f['total'])} | "
            f"{ms(f['waits'])} / {ms(f['wire'])} / {ms(f['device'])} | {ms(p['measured'])} | "
            f"{ratio:.3f} | ≤ {goal:.2f}: {verdict(ratio <= goal)} |"
        )
    return rows


def summary_table(kiosk, world, micro):
    rows = ["| figure | goal | measured | ratio |", "|---|---|---|---|"]
    if kiosk:
        c = kiosk["coin_to_credit"]
        rows.append(
            f"| coin to credit, median of {int(c['count'])} | floor {ms(c['floor_median'])} | "
            f"{ms(c['median'])} | {c['median'] / c['floor_median']:.3f} of the floor |"
        )
        rows.append(
            f"| coin to credit, p99 | < 250 ms | {ms(c['p99'])} | {c['p99'] / 0.25:.3f} of the goal: "
            f"{verdict(c['p99'] < 0.25)} |"
        )
        r = kiosk["resources"]
        rows.append(
            f"| engine CPU idle ({r['idle_seconds']:.0f} s, devices enabled) | ≤ 0.05 % of a core | "
            f"{r['engine_idle_percent']:.3f} % | {r['engine_idle_percent'] / 0.05:.2f}: "
            f"{verdict(r['engine_idle_percent'] <= 0.05)} |"
        )
        rows.append(
            f"| the same machine: a thread that only wakes every 500 ms | (reference) | "
            f"{r['bare_wake_percent']:.3f} % | |"
        )
        if "qt_wake_percent" in r:
            rows.append(
                f"| the same machine: a Qt event loop whose only work is a 500 ms timer | "
                f"(reference: the idle engine's floor) | {r['qt_wake_percent']:.3f} % | |"
            )
        rows.append(
            f"| engine CPU paying ({r['paying_seconds']:.0f} s of a payment taking coins) | "
            f"≤ 0.5 % | {r['engine_paying_percent']:.3f} % | "
            f"{r['engine_paying_percent'] / 0.5:.2f}: {verdict(r['engine_paying_percent'] <= 0.5)} |"
        )
        rows.append(
            f"| engine RSS headless | ≤ 20 MB | {r['rss_headless_kb'] / 1024:.1f} MB "
            f"(peak {r['rss_headless_peak_kb'] / 1024:.1f}) | "
            f"{r['rss_headless_kb'] / 1024 / 20:.2f}: {verdict(r['rss_headless_kb'] <= 20 * 1024)} |"
        )
        rows.append(
            f"| engine RSS with the console ({r['console_display']}, {r['console_seconds']:.0f} s) | "
            f"≤ 60 MB | {r['rss_console_kb'] / 1024:.1f} MB (peak {r['rss_console_peak_kb'] / 1024:.1f}) | "
            f"{r['rss_console_kb'] / 1024 / 60:.2f}: {verdict(r['rss_console_kb'] <= 60 * 1024)} |"
        )
        rows.append(
            f"| kestrix-sim CPU idle | ≤ 0.2 % | {r['sim_idle_percent']:.3f} % | "
            f"{r['sim_idle_percent'] / 0.2:.2f}: {verdict(r['sim_idle_percent'] <= 0.2)} |"
        )
        rows.append(
            f"| kestrix-sim CPU while a payment runs | (reference) | {r['sim_paying_percent']:.3f} % | |"
        )
    if world:
        in20 = world["payments_per_second"] * 20
        rows.append(
            f"| virtual world: random cash payments in 20 s ({world['worlds']} worlds on "
            f"{world['threads']} threads) | ≥ 10,000 | {in20:,.0f} ({world['payments_per_second']:,.0f}/s) | "
            f"{in20 / 10000:.2f}: {verdict(in20 >= 10000 and world['failed'] == 0)} |"
        )
        g = world["growth_seconds_per_thousand"]
        if g:
            rows.append(
                f"| virtual world: cost of the last thousand payments / the first (one world, "
                f"{len(g) * 1000:,} payments) | 1 (linear growth) | {g[-1] / g[0]:.2f} | |"
            )
    for program, results in micro:
        for b in results.get("benchmarks", []):
            rows.append(
                f"| {program}: {b['name']} | (reference) | {b['cpu_time']:.3g} {b['time_unit']} "
                "of processor time | |"
            )
    return rows


def draw(kiosk, docs):
    """One bar per phase of the standard payment at its place in time: floor above, measured
    below."""
    timeline = kiosk.get("timeline", [])
    if not timeline:
        return False
    data = os.path.join(docs, ".timeline.dat")
    with open(data, "w") as f:
        for i, t in enumerate(timeline):
            y = len(timeline) - i
            f.write(f"{t['start']} {t['floor']} {y + 0.18} floor \"floor {ms(t['floor'])}\"\n")
            f.write(
                f"{t['start']} {t['measured']} {y - 0.18} measured \"measured {ms(t['measured'])}\"\n"
            )
    labels = ", ".join(f'"{t["name"]}" {len(timeline) - i}' for i, t in enumerate(timeline))
    script = f"""
set terminal pngcairo size 1100,460 font "DejaVu Sans,10"
set output "{os.path.join(docs, PICTURE)}"
set title "A standard payment (12.50 due; coins of 10 and 5; 2.50 change from the tubes): floor (light) and measured (dark)"
set xlabel "seconds since the monitor took \\"Due\\""
set xrange [0:*]
set offsets 0, 1.5, 0, 0
set ytics ({labels})
set yrange [0.3:{len(timeline) + 0.7}]
set grid xtics
unset key
set style fill solid 0.9
plot "{data}" using ($1+$2/2):3:($2/2):(0.15):(strcol(4) eq "floor" ? 0xa6cee3 : 0x1f4e79) with boxxyerror lc rgb variable, \
     "{data}" using ($1+$2):3:5 with labels left offset 0.6,0 font ",8" textcolor rgb "#333333"
"""
    try:
        subprocess.run(["gnuplot"], input=script, text=True, check=True)
    except (OSError, subprocess.CalledProcessError) as e:
        print(f"report: no picture ({e})", file=sys.stderr)
        return False
    finally:
        os.remove(data)
    return True


def main():
    results, docs = sys.argv[1], sys.argv[2]
    kiosk = load(results, "bench_kiosk.json")
    world = load(results, "bench_world.json")
    micro = [
        (name[: -len(".json")], load(results, name))
        for name in sorted(os.listdir(results))
        if name.endswith(".json") and name not in ("bench_kiosk.json", "bench_world.json")
    ]
    micro = [(n, r) for n, r in micro if r]
    lines = [
        "# Performance",
        "",
        "Written by `make bench` (bench/run); do not edit by hand. "
        f"Run of {datetime.date.today().isoformat()} on {platform.machine()}, "
        f"{os.cpu_count()} cores ({platform.platform()}).",
        "",
        "## How to read it",
        "",
        "- **Floor** of a phase: what an engine that costs nothing would take for the same steps: "
        "every Pause its code asked for, every timer tick at its interval, every byte written "
        "and read taking its wire time at the line's settings (9600 baud), and every device "
        "answer coming as long after its command as the simulated device took. The benchmark "
        "replays the engine's own timing record (`KSX_TIMING_TRACE`) against the simulator's "
        "wire record (`KSX_SIM_WIRE_LOG`), so the waits come from the code that ran, not from "
        "totals kept here. Waits and wire time that overlap count once.",
        "- **Measured**: the same phase of the real programs, `kestrix --headless` against "
        "`kestrix-sim` on pseudo-terminals (the simulator gives each line its wire time).",
        "- **Ratio**: measured / floor, or measured / goal. Goal for every phase: within 3 % "
        "of its floor.",
        "- **Processor time and memory** are measured on a second run of the engine, without the "
        "timing record (a kiosk never writes it), against the same simulator.",
        "",
    ]
    if kiosk:
        lines += ["## Summary", ""] + summary_table(kiosk, world, micro) + [""]
        lines += ["## Phases against their floors", ""] + phase_table(kiosk) + [""]
        if draw(kiosk, docs):
            lines += [f"![Timeline of a standard payment]({PICTURE})", ""]
        if kiosk.get("notes"):
            lines += ["Notes of the run:", ""] + [f"- {n}" for n in kiosk["notes"]] + [""]
    else:
        lines += ["bench_kiosk did not run.", ""]
        if world or micro:
            lines += summary_table(None, world, micro) + [""]
    findings = os.path.join(os.path.dirname(os.path.abspath(__file__)), "findings.md")
    if os.path.exists(findings):
        with open(findings) as f:
            lines += [f.read()]
    with open(os.path.join(docs, "performance.md"), "w") as f:
        f.write("\n".join(lines))


if __name__ == "__main__":
    main()
