#!/usr/bin/env python3
"""Measures whole processes and prints the performance table (scripts/bench.sh runs it).

    scripts/bench-table.py --bin build/bench/bin --synthetic build/bench/synthetic
                           [--realdata ../shared/realdata] [--runs 11] [--big-runs 5]

Each figure is the median of several runs: wall time from start to exit, and the peak
resident set of that one process (GNU time's %M). Figures that are compared are
measured in interleaved rounds, so a busy moment of the machine hits both sides alike.
In-process query times come from ia_bench's SyntheticQuery benchmarks; their growth is
read from CPU time, which other processes on the machine inflate less than wall time.
"""
import argparse
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

SIZES = (1000, 10000, 100000)
CASES = (
    ("apps", "installed applications", ["KestovaSG_InstalledApplication"]),
    ("env", "environment variables",
     ["KestovaSG_SystemEnvironmentVariable", "KestovaSG_UserEnvironmentVariable"]),
    ("components", "OS components", ["KestovaSG_OSComponent"]),
)
FORMS = ("reg", "hive")
ENV_KEY = "ControlSet001\\Control\\Session Manager\\Environment"
GROWTH_TIME, GROWTH_MEMORY = 11.0, 10.0
TIME = "/usr/bin/time"


def run_once(command):
    """(wall seconds, peak RSS bytes) of one run; output discarded, failure raised. The peak
    comes from GNU time, which starts the command from its own small process: a child of
    this Python process would count the interpreter's pages too (Linux keeps the largest
    resident set across exec)."""
    with tempfile.NamedTemporaryFile("r") as report, open(os.devnull, "wb") as devnull:
        start = time.perf_counter()
        result = subprocess.run([TIME, "-f", "%M", "-o", report.name] + command,
                                stdout=devnull, stderr=subprocess.PIPE)
        wall = time.perf_counter() - start
        if result.returncode != 0:
            raise RuntimeError("%s: exit %d: %s" % (" ".join(command), result.returncode,
                                                   result.stderr.decode(errors="replace")))
        peak_kib = int(report.read().split()[-1])
    return wall, peak_kib * 1024


class Samples:
    def __init__(self):
        self.wall, self.peak = [], []

    def add(self, sample):
        self.wall.append(sample[0])
        self.peak.append(sample[1])

    @property
    def median_wall(self):
        return statistics.median(self.wall)

    @property
    def median_peak(self):
        return statistics.median(self.peak)


def interleaved(commands, runs):
    """name -> Samples, running every command once per round. `runs` may be a dict of
    name -> rounds (a command leaves the rounds after its own count)."""
    samples = {name: Samples() for name in commands}
    rounds = max(runs.values()) if isinstance(runs, dict) else runs
    for round_index in range(rounds):
        for name, command in commands.items():
            wanted = runs[name] if isinstance(runs, dict) else runs
            if round_index < wanted:
                samples[name].add(run_once(command))
    return samples


class Table:
    def __init__(self):
        self.rows = []
        self.failed = []

    def section(self, title):
        self.rows.append((title, None, None, None))

    def row(self, label, value, target="", met=None):
        self.rows.append(("  " + label, value, target, met))
        if met is False:
            self.failed.append(label)

    def print(self, out):
        width = max(len(r[0]) for r in self.rows if r[1] is not None) + 2
        out.write("%-*s %14s %12s  %s\n" % (width, "figure", "median", "target", "met"))
        out.write("-" * (width + 34) + "\n")
        for label, value, target, met in self.rows:
            if value is None:
                out.write(label + "\n")
                continue
            verdict = "" if met is None else ("yes" if met else "NO")
            out.write("%-*s %14s %12s  %s\n" % (width, label, value, target, verdict))


def ms(seconds):
    return "%.1f ms" % (seconds * 1000) if seconds < 10 else "%.2f s" % seconds


def mib(size):
    return "%.1f MiB" % (size / 1048576.0)


def ratio(value):
    return "x%.2f" % value


def reg_query_figures(table, args):
    hive = os.path.join(args.realdata, "hives", "win10-1709-SYSTEM")
    table.section("(a) one key, %s of win10-1709-SYSTEM (%.0f MB), %d interleaved runs" % (
        ENV_KEY.rsplit("\\", 1)[-1], os.path.getsize(hive) / 1e6 if os.path.exists(hive) else 0,
        args.runs))
    if not os.path.exists(hive):
        table.row("real hive missing: " + hive, "-")
        return
    folder = tempfile.mkdtemp(prefix="ia-bench-")
    try:
        os.makedirs(os.path.join(folder, "hives"))
        os.symlink(os.path.abspath(hive), os.path.join(folder, "hives", "SYSTEM"))
        commands = {"iac reg query": [os.path.join(args.bin, "iac"), "reg", "query", "--machine",
                                      folder, "HKLM\\SYSTEM\\" + ENV_KEY]}
        if shutil.which("reglookup"):
            commands["reglookup -p"] = ["reglookup", "-p", "/" + ENV_KEY.replace("\\", "/"), hive]
        if shutil.which("hivexget"):
            commands["hivexget"] = ["hivexget", hive, "\\" + ENV_KEY]
        samples = interleaved(commands, args.runs)
    finally:
        shutil.rmtree(folder)
    for name, s in samples.items():
        table.row(name + ": wall", ms(s.median_wall))
        table.row(name + ": peak RSS", mib(s.median_peak))
    if "reglookup -p" in samples:
        ours, theirs = samples["iac reg query"], samples["reglookup -p"]
        wall = ours.median_wall / theirs.median_wall
        peak = ours.median_peak / theirs.median_peak
        table.row("iac / reglookup: wall", ratio(wall), "<= x1", wall <= 1.0)
        table.row("iac / reglookup: peak RSS", ratio(peak), "<= x1.5", peak <= 1.5)


def collect_figures(table, args):
    table.section("(b) iac collect, every class of the default machine, %d runs" % args.runs)
    s = interleaved({"collect": [os.path.join(args.bin, "iac"), "collect"]}, args.runs)["collect"]
    table.row("wall", ms(s.median_wall), "< 30 ms", s.median_wall < 0.030)
    table.row("peak RSS", mib(s.median_peak), "< 20 MiB", s.median_peak < 20 * 1048576)


def query_only(args):
    """Google Benchmark's in-process query times of the synthetic machines (the machine
    loaded beforehand), in `--query-runs` rounds of one ia_bench run each: benchmark name
    -> (least wall, least CPU, CPU of each round) in seconds per query."""
    factor = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}
    rounds = {}
    for _ in range(args.query_runs):
        out = tempfile.NamedTemporaryFile(suffix=".json", delete=False)
        out.close()
        try:
            run = subprocess.run([os.path.join(args.bin, "ia_bench"),
                                  "--benchmark_filter=^Synthetic(First)?Query/",
                                  "--benchmark_out=" + out.name, "--benchmark_out_format=json"],
                                 stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                 env=dict(os.environ, IA_SYNTHETIC_DIR=args.synthetic))
            if run.returncode != 0:
                raise RuntimeError("ia_bench: " + run.stderr.decode(errors="replace"))
            with open(out.name) as f:
                report = json.load(f)
        finally:
            os.unlink(out.name)
        for b in report["benchmarks"]:
            if "error_message" in b or b.get("run_type", "iteration") != "iteration":
                continue
            # A fixed iteration count shows in the name ("/iterations:3").
            name = b["name"].split("/iterations:")[0]
            unit = factor[b["time_unit"]]
            rounds.setdefault(name, []).append((b["real_time"] * unit, b["cpu_time"] * unit))
    # The least of the rounds: other work on a shared machine only ever adds time.
    return {name: (min(t[0] for t in times), min(t[1] for t in times), [t[1] for t in times])
            for name, times in rounds.items()}


def paired_growth(small, big):
    """The median over rounds of big / small, each round's pair run minutes apart at most:
    a busy spell that slows one round slows both sides of its ratio."""
    return statistics.median(b / a for a, b in zip(small, big))


def synthetic_figures(table, args, queries):
    for name, title, classes in CASES:
        for form in FORMS:
            commands, runs = {}, {}
            for entries in SIZES:
                folder = os.path.join(args.synthetic, "%s-%d-%s" % (name, entries, form))
                command = [os.path.join(args.bin, "iac"), "collect", "--machine", folder,
                           "--format", "jsonl"]
                for cls in classes:
                    command += ["--class", cls]
                commands[entries] = command
                runs[entries] = args.big_runs if entries >= 100000 else args.runs
            table.section("(c) %s, registry as %s: whole process, %d/%d interleaved runs; "
                          "query in-process (ia_bench)" % (title, ".reg" if form == "reg" else
                                                           "hive", args.runs, args.big_runs))
            try:
                samples = interleaved(commands, runs)
            except RuntimeError as error:
                table.row("not measured: " + str(error).strip().splitlines()[-1][:70], "-")
                continue
            # A hive is read as it is asked for: its first query, on a freshly opened
            # machine, is what a run of iac pays; later ones find the keys read.
            what = "first query" if form == "hive" else "query"
            bench = "SyntheticFirstQuery" if form == "hive" else "SyntheticQuery"
            query, rounds = {}, {}
            for entries in SIZES:
                s = samples[entries]
                times = queries.get("%s/%s/%s/%d" % (bench, name, form, entries))
                query[entries] = times[1] if times else None
                rounds[entries] = times[2] if times else None
                table.row("%7d: wall" % entries, ms(s.median_wall))
                table.row("%7d: peak RSS" % entries, mib(s.median_peak))
                if times:
                    table.row("%7d: %s wall" % (entries, what), ms(times[0]))
                    table.row("%7d: %s CPU" % (entries, what), ms(times[1]))
            for small, big in ((1000, 10000), (10000, 100000)):
                label = "growth %dk/%dk" % (big // 1000, small // 1000)
                wall = samples[big].median_wall / samples[small].median_wall
                peak = samples[big].median_peak / samples[small].median_peak
                table.row(label + ": wall", ratio(wall), "<= x%g" % GROWTH_TIME, wall <= GROWTH_TIME)
                table.row(label + ": peak RSS", ratio(peak), "<= x%g" % GROWTH_MEMORY,
                          peak <= GROWTH_MEMORY)
                if rounds[small] and rounds[big]:
                    growth = paired_growth(rounds[small], rounds[big])
                    table.row("%s: %s CPU" % (label, what), ratio(growth),
                              "<= x%g" % GROWTH_TIME, growth <= GROWTH_TIME)
            if name == "apps" and query[100000]:
                table.row("(d) 100000: %s CPU" % what, ms(query[100000]), "< 1 s",
                          query[100000] < 1.0)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--bin", required=True, help="folder of iac and ia_bench")
    parser.add_argument("--synthetic", required=True, help="folder of the synthetic machines")
    parser.add_argument("--realdata", default=os.path.join(
        os.path.dirname(os.path.abspath(__file__)), "..", "..", "shared", "realdata"))
    parser.add_argument("--runs", type=int, default=11, help="runs of small cases")
    parser.add_argument("--big-runs", type=int, default=5, help="runs of 100,000-entry cases")
    parser.add_argument("--query-runs", type=int, default=5,
                        help="rounds of the in-process query benchmarks")
    args = parser.parse_args()

    table = Table()
    started = time.perf_counter()
    reg_query_figures(table, args)
    collect_figures(table, args)
    queries = query_only(args)
    synthetic_figures(table, args, queries)
    table.print(sys.stdout)
    print("\n%d targets missed; measured in %.0f s" % (len(table.failed),
                                                        time.perf_counter() - started))


if __name__ == "__main__":
    main()
