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

  stats.py summary TIMES_DIR JSON_FILE...
      The rows the performance work is judged by, each with its target:
      TIMES_DIR holds the files A, B, C (as for "process") and D (`vardo-keys
      status` on a store of 100 domains x 1,000 keys, "WALL_MS CPU_MS
      MAXRSS_KB" per run); the JSON files are those of "gbench".

  stats.py floors TIMES_DIR JSON_FILE...
      What no change to the import's or the service's own work can remove:
      from the files E (`bash -c :`), F (an empty program with libcrypto, B's
      start) and G (an empty program with the import command's library) of
      TIMES_DIR, the least A can take, E + G + (B - F), and its ratio to B;
      from the benchmarks, the service's decoder, its plain buffer and the
      engine's decryption together against the raw OpenSSL decryption.

Files of times have one line per run: "WALL_MS CPU_MS" and, from newer
runs of bench/timeit, "MAXRSS_KB" after them.
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


def read_times(path, with_rss=False):
    walls, cpus, rss = [], [], []
    with open(path, encoding="ascii") as lines:
        for line in lines:
            fields = line.split()
            walls.append(float(fields[0]))
            cpus.append(float(fields[1]))
            rss.append(float(fields[2]) if len(fields) > 2 else float("nan"))
    return (walls, cpus, rss) if with_rss else (walls, cpus)


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


# Engine start over store size: benchmark run name, store size shown, target in ms.
START_ROWS = [("BM_EngineStart/keys:%d" % keys, keys) for keys in (1, 100, 1000, 10000, 100000)]
START_TARGET_MS = 5.0
STATUS_TARGET_MS = 50.0
STATUS_TARGET_KB = 16 * 1024


def met(value, target):
    return "yes" if value <= target else "no"


def summary_table(times_dir, json_paths):
    """The rows of the performance issue: what, measured, baseline, ratio, target, met."""
    rows = []
    process = [read_times("%s/%s" % (times_dir, name)) for name in "ABC"]
    rounds = min(len(walls) for walls, _ in process)
    a_wall, a_cpu = (values[:rounds] for values in process[0])
    for index, label, target in ((1, "crypto baseline B", 1.5), (2, "openssl CLI script C", 0.3)):
        b_wall, b_cpu = (values[:rounds] for values in process[index])
        ratios = [a / b for a, b in zip(a_wall, b_wall)]
        median = percentile(ratios, 0.5)
        rows.append(("whole first import through `certImport.sh` (A), 3 files + CRL",
                     "%.1f ms (CPU %.1f)" % (percentile(a_wall, 0.5), percentile(a_cpu, 0.5)),
                     "%s: %.1f ms (CPU %.1f)" % (label, percentile(b_wall, 0.5), percentile(b_cpu, 0.5)),
                     "%.2f (IQR %s)" % (median, spread(ratios, 2)), "≤ %.1f" % target, met(median, target)))
    runs = {}
    for path in json_paths:
        runs.update(load_benchmarks(path)[1])

    def cpu_ms(name):
        run = runs.get(name)
        if run is None or run["error"] or not run["cpu"]:
            return None
        return percentile(list(run["cpu"].values()), 0.5) * UNIT_NS[run["unit"]] / 1e6

    def real_ms(name):
        run = runs.get(name)
        return percentile(list(run["real"].values()), 0.5) * UNIT_NS[run["unit"]] / 1e6

    for what, base in (("PaskMemEncryptBase64", "RawEvpEncryptBase64"), ("PaskMemDecryptBase64", "RawEvpDecryptBase64")):
        top, bottom = "BM_%s/algorithm:9" % what, "BM_%s/algorithm:9" % base
        if cpu_ms(top) is None or cpu_ms(bottom) is None:
            rows.append(("`%s`, 100 bytes" % what, "-", "-", "-", "≤ 1.5", "not run"))
            continue
        shared = sorted(set(runs[top]["cpu"]) & set(runs[bottom]["cpu"]))
        ratio = percentile([runs[top]["cpu"][i] / runs[bottom]["cpu"][i] for i in shared], 0.5)
        rows.append(("`%s`, 100 bytes, AES-256-GCM" % what, "%.2f µs CPU" % (cpu_ms(top) * 1e3),
                     "raw EVP AES-GCM + EVP base64: %.2f µs CPU" % (cpu_ms(bottom) * 1e3),
                     "%.2f" % ratio, "≤ 1.5", met(ratio, 1.5)))
    for name, keys in START_ROWS:
        value = cpu_ms(name)
        if value is None:
            rows.append(("engine start, %s master keys" % format(keys, ","), "-", "-", "-",
                         "≤ %.0f ms" % START_TARGET_MS, "not run"))
            continue
        rows.append(("engine start, %s master keys" % format(keys, ","),
                     "%.3f ms CPU (real %.3f)" % (value, real_ms(name)), "-", "-",
                     "≤ %.0f ms" % START_TARGET_MS, met(value, START_TARGET_MS)))
    try:
        d_wall, d_cpu, d_rss = read_times("%s/D" % times_dir, with_rss=True)
        wall, rss = percentile(d_wall, 0.5), percentile(d_rss, 0.5)
        rows.append(("`vardo-keys status`, 100 domains × 1,000 keys",
                     "%.1f ms (CPU %.1f), %.1f MiB RSS" % (wall, percentile(d_cpu, 0.5), rss / 1024), "-", "-",
                     "≤ %.0f ms, ≤ %.0f MiB" % (STATUS_TARGET_MS, STATUS_TARGET_KB / 1024),
                     "yes" if wall <= STATUS_TARGET_MS and rss <= STATUS_TARGET_KB else
                     "no (%s)" % ", ".join(part for part, ok in (("time", wall <= STATUS_TARGET_MS),
                                                                  ("memory", rss <= STATUS_TARGET_KB)) if not ok)))
    except OSError:
        rows.append(("`vardo-keys status`, 100 domains × 1,000 keys", "-", "-", "-", "≤ 50 ms, ≤ 16 MiB", "not run"))
    print("The rows the performance work is judged by (process rows on the wall-time median of %d rounds,"
          % rounds)
    print("benchmark rows on the CPU-time median of their repetitions):")
    print()
    print("| what | measured | baseline | ratio | target | met |")
    print("|---|---|---|---|---|---|")
    for row in rows:
        print("| %s |" % " | ".join(row))


def floors_table(times_dir, json_paths):
    """The floors of the two rows whose targets are out of reach, each from its parts."""
    starts = {}
    for name in "BEFG":
        try:
            starts[name] = percentile(read_times("%s/%s" % (times_dir, name))[0], 0.5)
        except OSError:
            starts[name] = None
    print("What no change to the import's or the service's own work removes (medians):")
    print()
    print("| part | measured |")
    print("|---|---:|")
    if None not in starts.values():
        floor = starts["E"] + starts["G"] + starts["B"] - starts["F"]
        for name, what in (("E", "`bash -c :`, the wrapper's shell starting"),
                           ("G", "an empty program with the import command's libraries"),
                           ("F", "an empty program with libcrypto (B's own start)"),
                           ("B", "the crypto baseline, whole")):
            print("| %s: %s | %.1f ms |" % (name, what, starts[name]))
        print("| least the import can take, E + G + (B − F) | %.1f ms |" % floor)
        print("| that against B (target of A/B ≤ 1.5) | %.2f |" % (floor / starts["B"]))
    runs = {}
    for path in json_paths:
        runs.update(load_benchmarks(path)[1])
    names = ("BM_DecodeWithBase64", "BM_PlainBuffer", "BM_PaskDecryptEx/algorithm:9",
             "BM_RawEvpDecryptBase64/algorithm:9")
    if all(name in runs and not runs[name]["error"] and runs[name]["cpu"] for name in names):
        decode, plain, engine, raw = (
            percentile(list(runs[name]["cpu"].values()), 0.5) * UNIT_NS[runs[name]["unit"]] for name in names)
        print("| the service's decoder (base64 filter chain made and freed per call), 140 bytes | %.2f µs |"
              % (decode / 1e3))
        print("| the service's plain buffer (zero-filled, copied out with memcpy_s, wiped, freed) | %.2f µs |"
              % (plain / 1e3))
        print("| the engine's decryption, 100 bytes | %.2f µs |" % (engine / 1e3))
        print("| raw EVP AES-GCM + EVP base64 decryption | %.2f µs |" % (raw / 1e3))
        print("| decoder + plain buffer + engine against raw (target of unprotect ≤ 1.5) | %.2f |"
              % ((decode + plain + engine) / raw))


def main(argv):
    if len(argv) >= 2 and argv[1] == "process" and len(argv) == 5:
        process_table(argv[2:])
    elif len(argv) >= 3 and argv[1] == "gbench":
        gbench_table(argv[2:])
    elif len(argv) >= 3 and argv[1] == "floors":
        floors_table(argv[2], argv[3:])
    elif len(argv) >= 3 and argv[1] == "summary":
        summary_table(argv[2], argv[3:])
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main(sys.argv)
