#!/usr/bin/env python3
"""Tables of scripts/bench.sh, printed in Markdown so they can be pasted as they are.

  stats.py process A_FILE B_FILE C_FILE
      A_FILE, B_FILE, C_FILE: one line "WALL_MS CPU_MS" per run (bench/timeit),
      line i of each file from the same interleaved round. Prints median,
      interquartile range and min-max of each row, and the ratios A/B and A/C
      taken round by round, against their targets.

  stats.py gbench JSON_FILE...
      Google Benchmark results (--benchmark_out_format=json, with repetitions).
      Prints each benchmark's median over its repetitions, and the ratio of
      each protect/unprotect benchmark to its raw OpenSSL baseline, taken
      repetition by repetition.
"""
import json
import sys

# Row of the whole-process table: file position, label, what it is.
PROCESS_ROWS = [
    ("A", "first import: `certImport.sh` under a pty (3 files + CRL)"),
    ("B", "crypto baseline `bench/import_baseline.c`: the same crypto and store writes, one process"),
    ("C", "openssl CLI script `bench/import_openssl.sh`: the same checks, a process each"),
]
# Ratio, numerator and denominator rows, target.
PROCESS_RATIOS = [("A/B", 0, 1, 1.5), ("A/C", 0, 2, 0.3)]

# Benchmark name part, its baseline's name part, target of the ratio (None: shown only).
GBENCH_PAIRS = [
    ("PaskMemEncryptBase64", "RawEvpEncryptBase64", 1.5),
    ("PaskMemDecryptBase64", "RawEvpDecryptBase64", 1.5),
    ("EngineEncrypt100", "RawEvpEncrypt100", None),
    ("EngineDecrypt100", "RawEvpDecrypt100", None),
]


def percentile(values, fraction):
    """Linear interpolation between the closest ranks."""
    ordered = sorted(values)
    if not ordered:
        return float("nan")
    position = (len(ordered) - 1) * fraction
    low = int(position)
    high = min(low + 1, len(ordered) - 1)
    return ordered[low] + (ordered[high] - ordered[low]) * (position - low)


def spread(values, digits):
    return "%.*f–%.*f" % (digits, percentile(values, 0.25), digits, percentile(values, 0.75))


def extremes(values, digits):
    return "%.*f–%.*f" % (digits, min(values), digits, max(values))


def read_times(path):
    walls, cpus = [], []
    with open(path, encoding="ascii") as lines:
        for line in lines:
            wall, cpu = line.split()
            walls.append(float(wall))
            cpus.append(float(cpu))
    return walls, cpus


def process_table(paths):
    rows = [read_times(path) for path in paths]
    rounds = min(len(walls) for walls, _ in rows)
    if rounds == 0:
        sys.exit("stats.py: no runs to summarise")
    rows = [(walls[:rounds], cpus[:rounds]) for walls, cpus in rows]
    print("Whole processes, %d interleaved rounds (A, B, C, A, B, C, ...), milliseconds:" % rounds)
    print()
    print("| row | what | wall median | wall IQR | wall min–max | CPU median | CPU IQR |")
    print("|---|---|---:|---:|---:|---:|---:|")
    for (name, what), (walls, cpus) in zip(PROCESS_ROWS, rows):
        print("| %s | %s | %.1f | %s | %s | %.1f | %s |" % (
            name, what, percentile(walls, 0.5), spread(walls, 1), extremes(walls, 1),
            percentile(cpus, 0.5), spread(cpus, 1)))
    print()
    print("Ratios taken round by round (the target applies to the wall-time median):")
    print()
    print("| ratio | wall median | wall IQR | wall min–max | CPU median | CPU IQR | target | met |")
    print("|---|---:|---:|---:|---:|---:|---:|---|")
    for name, top, bottom, target in PROCESS_RATIOS:
        walls = [a / b for a, b in zip(rows[top][0], rows[bottom][0])]
        cpus = [a / b for a, b in zip(rows[top][1], rows[bottom][1]) if b > 0]
        median = percentile(walls, 0.5)
        print("| %s | %.2f | %s | %s | %s | %s | ≤ %.1f | %s |" % (
            name, median, spread(walls, 2), extremes(walls, 2),
            "%.2f" % percentile(cpus, 0.5) if cpus else "-", spread(cpus, 2) if cpus else "-",
            target, "yes" if median <= target else "no"))


def load_benchmarks(path):
    """Program name, run names in the program's order, and per run name
    {"unit", "label", "error", "real": {repetition: time}, "cpu": {...}}."""
    with open(path, encoding="utf-8") as source:
        document = json.load(source)
    program = document.get("context", {}).get("executable", path).rsplit("/", 1)[-1]
    runs = {}
    for entry in document.get("benchmarks", []):
        if entry.get("run_type", "iteration") != "iteration":
            continue
        name = entry.get("run_name", entry["name"])
        run = runs.setdefault(name, {"unit": entry.get("time_unit", "ns"), "label": entry.get("label", ""),
                                     "error": None, "real": {}, "cpu": {}, "family": entry.get("family_index", 0),
                                     "instance": entry.get("per_family_instance_index", 0)})
        if entry.get("error_occurred"):
            run["error"] = entry.get("error_message", "error")
            continue
        repetition = entry.get("repetition_index", len(run["real"]))
        run["real"][repetition] = entry["real_time"]
        run["cpu"][repetition] = entry["cpu_time"]
    # Random interleaving shuffles the runs; show them in the program's order.
    order = sorted(runs, key=lambda name: (runs[name]["family"], runs[name]["instance"], name))
    return program, runs, order


# Nanoseconds are shown as microseconds; other units as the benchmark reports them.
def shown(value, unit):
    if unit == "ns":
        value, unit = value / 1e3, "us"
    if value >= 100:
        text = "%.0f" % value
    elif value >= 10:
        text = "%.1f" % value
    else:
        text = "%.2f" % value
    return text, unit.replace("us", "µs")


UNIT_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def gbench_table(paths):
    for number, path in enumerate(paths):
        program, runs, order = load_benchmarks(path)
        if number > 0:
            print()
        repetitions = max([len(run["real"]) for run in runs.values()] or [0])
        print("`%s`, median of %d repetitions (randomly interleaved):" % (program, repetitions))
        print()
        print("| benchmark | real median | CPU median | CPU min–max | unit | note |")
        print("|---|---:|---:|---:|---|---|")
        for name in order:
            run = runs[name]
            if run["error"] is not None or not run["real"]:
                print("| %s | - | - | - | - | %s |" % (name, run["error"] or "no result"))
                continue
            real = list(run["real"].values())
            cpu = list(run["cpu"].values())
            real_text, unit = shown(percentile(real, 0.5), run["unit"])
            cpu_text, _ = shown(percentile(cpu, 0.5), run["unit"])
            low, _ = shown(min(cpu), run["unit"])
            high, _ = shown(max(cpu), run["unit"])
            print("| %s | %s | %s | %s–%s | %s | %s |" % (name, real_text, cpu_text, low, high, unit, run["label"]))
        ratio_table(runs, order)


def ratio_table(runs, order):
    ratios = []
    for name in order:
        for what, base, target in GBENCH_PAIRS:
            if "BM_" + what not in name:
                continue
            base_name = name.replace("BM_" + what, "BM_" + base)
            top, bottom = runs[name], runs.get(base_name)
            if bottom is None or top["error"] or bottom["error"]:
                continue
            shared = sorted(set(top["cpu"]) & set(bottom["cpu"]))
            scale = UNIT_NS[top["unit"]] / UNIT_NS[bottom["unit"]]
            cpu = [top["cpu"][i] * scale / bottom["cpu"][i] for i in shared if bottom["cpu"][i] > 0]
            real = [top["real"][i] * scale / bottom["real"][i] for i in shared if bottom["real"][i] > 0]
            if cpu and real:
                ratios.append((name, base_name, cpu, real, target))
    if not ratios:
        return
    print()
    print("Ratio to the raw OpenSSL baseline in the same program, repetition by repetition (the target")
    print("applies to the CPU median: on a shared machine CPU time moves less than real time):")
    print()
    print("| ratio | CPU median | CPU min–max | real median | target | met |")
    print("|---|---:|---:|---:|---:|---|")
    for name, base_name, cpu, real, target in ratios:
        median = percentile(cpu, 0.5)
        print("| %s / %s | %.2f | %s | %.2f | %s | %s |" % (
            name.replace("BM_", ""), base_name.replace("BM_", ""), median, extremes(cpu, 2),
            percentile(real, 0.5), "≤ %.1f" % target if target else "-",
            ("yes" if median <= target else "no") if target else "-"))


def main(argv):
    if len(argv) >= 2 and argv[1] == "process" and len(argv) == 5:
        process_table(argv[2:])
    elif len(argv) >= 3 and argv[1] == "gbench":
        gbench_table(argv[2:])
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main(sys.argv)
