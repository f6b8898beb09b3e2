#!/usr/bin/env python3
"""Reads the JSON files that the benchmark programs wrote, pairs each library figure
with its reference from the same run, and writes the table (text and JSON) and a bar
chart of the ratios (SVG). Used by scripts/bench.sh; standard library only."""

import json
import math
import statistics
import sys
from pathlib import Path

# operation, library benchmark, reference benchmark, reference label, target.
# A target is ("ratio", r): library / reference at most r; ("per call", ns, calls):
# the library at most ns slower per wrapped call; None: shown for information.
ROWS = [
    ("named mutex create + destroy", "BM_NamedMutexLife", "BM_BoostNamedMutexLife",
     "Boost named_mutex open_or_create + remove", ("ratio", 1.5)),
    ("named mutex create + destroy, the daemon as manager", "BM_NamedMutexLifeWithDaemon",
     "BM_BoostNamedMutexLife", "Boost named_mutex open_or_create + remove", ("ratio", 1.5)),
    ("named mutex create + destroy", "BM_NamedMutexLife", "BM_RawShmLife",
     "raw shm_open/ftruncate/mmap/munmap/shm_unlink", None),
    ("int -> TVT_BSTR -> int (variant_change_type)", "BM_VariantIntTextRoundTrip",
     "BM_SnprintfStrtolRoundTrip", 'snprintf("%d") + strtol(.., 0)', ("ratio", 1.0)),
    ("double -> TVT_BSTR", "BM_VariantDoubleText", "BM_SnprintfDouble", 'snprintf("%f")', None),
    ("reader lock + unlock, uncontended", "BM_RWMutexReaderLockUnlock",
     "BM_HandWrittenRWReaderLockUnlock", "same design by hand with pthread calls", ("ratio", 1.2)),
    ("writer lock + unlock, uncontended", "BM_RWMutexWriterLockUnlock",
     "BM_HandWrittenRWWriterLockUnlock", "same design by hand with pthread calls", ("ratio", 1.2)),
    ("reader lock + unlock, uncontended", "BM_RWMutexReaderLockUnlock",
     "BM_RawRwlockReaderLockUnlock", "pthread_rwlock", None),
    ("anonymous mutex lock + unlock", "BM_AnonymousMutexLockUnlock",
     "BM_RawPrivateMutexLockUnlock", "pthread_mutex", ("per call", 1.0, 2)),
    ("named mutex lock + unlock", "BM_NamedMutexLockUnlock",
     "BM_RawRobustSharedMutexLockUnlock", "robust shared pthread_mutex in shm", ("per call", 1.0, 2)),
    ("semaphore release + wait", "BM_SemaphoreReleaseWait", "BM_RawSemPostWait",
     "sem_post + sem_wait", ("per call", 1.0, 2)),
    ("event ping-pong across processes", "BM_EventPingPong", "BM_RawMutexCondPingPong",
     "raw robust mutex + condition in shm", ("ratio", 1.1)),
    ("directory walk, 100,000 files", "BM_WalkLibrary", "BM_WalkNftw", "nftw", ("ratio", 0.3)),
    ("natural-order sort, 1,000,000 names", "BM_SortNatural", "BM_SortStrverscmp", "strverscmp",
     ("ratio", 1.0)),
    ("readiness poll, time-out 0", "BM_LibraryReadable", "BM_RawSelect", "select", ("ratio", 0.8)),
    ("file copy, 64 MiB", "BM_CopyLibrary", "BM_CopyCp", "cp", None),
]

TO_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}

# Benchmarks whose work is partly done by another thread (the sync manager) or process:
# they are timed by the wall clock. All others by the measuring thread's processor
# time, which time spent preempted by other programs on a shared machine leaves out.
WALL_CLOCK = {"BM_NamedMutexLife", "BM_NamedMutexLifeWithDaemon", "BM_BoostNamedMutexLife", "BM_RawShmLife", "BM_EventPingPong",
              "BM_RawMutexCondPingPong", "BM_CopyLibrary", "BM_CopyCp"}


def repetitions(raw_dir):
    """Every measured repetition in the JSON files, with its name split at '/'
    (options such as /min_time:1.000/real_time follow the name)."""
    for path in sorted(Path(raw_dir).glob("*.json")):
        try:
            data = json.loads(path.read_text())
        except (OSError, ValueError):
            continue
        for bench in data.get("benchmarks", []):
            if bench.get("run_type", "iteration") == "iteration" and not bench.get("error_occurred"):
                yield bench.get("run_name", bench["name"]).split("/"), bench


def load_medians(raw_dir):
    """Median time in ns of every benchmark's repetitions, by name."""
    samples = {}
    for parts, bench in repetitions(raw_dir):
        name = parts[0]
        clock = "real_time" if name in WALL_CLOCK else "cpu_time"
        samples.setdefault(name, []).append(bench[clock] * TO_NS[bench.get("time_unit", "ns")])
    return {name: {"median_ns": statistics.median(values), "samples_ns": values,
                   "clock": "wall" if name in WALL_CLOCK else "thread cpu"}
            for name, values in samples.items()}


def judge(target, lib, ref):
    """(ratio, target text, passed or None)."""
    ratio = lib / ref
    if target is None:
        return ratio, "", None
    if target[0] == "ratio":
        return ratio, "<= %.1fx" % target[1], ratio <= target[1]
    per_call = (lib - ref) / target[2]
    return ratio, "within %g ns per call (%+.2f)" % (target[1], per_call), per_call <= target[1]


CONTENTION = ("BM_NamedMutexLivesInProcesses", "BM_NamedMutexLivesInProcessesWithDaemon")


def load_contention(raw_dir):
    """{(benchmark, processes): (lives per second, smallest share)}, medians of the repetitions."""
    samples = {}
    for parts, bench in repetitions(raw_dir):
        if parts[0] in CONTENTION:
            key = (parts[0], int(parts[1]))
            samples.setdefault(key, []).append((bench["lives_per_second"], bench["smallest_share"]))
    return {key: (statistics.median(v[0] for v in values), statistics.median(v[1] for v in values))
            for key, values in samples.items()}


def contention_table(contention):
    """Lives per second of 1, 2, 4 and 8 processes at once; the targets: 8 together
    at least as many as 1 alone, and no process under a sixteenth of them."""
    if not contention:
        return "", True
    lines = ["", "Named mutex lives per second, N processes creating and destroying at once:", ""]
    passed = True
    for name, label in zip(CONTENTION, ("manager hosted in-process", "the daemon as manager")):
        figures = {n: contention[(name, n)] for (b, n) in contention if b == name}
        if not figures:
            continue
        cells = ", ".join("%d: %.0f (smallest share %.3f)" % (n, *figures[n]) for n in sorted(figures))
        ok = 1 in figures and 8 in figures and figures[8][0] >= figures[1][0] and figures[8][1] >= 1 / 16
        passed = passed and ok
        lines.append("%s: %s | target 8 >= 1, share >= 1/16 | %s" % (label, cells, "PASS" if ok else "FAIL"))
    return "\n".join(lines) + "\n", passed


def build_rows(medians):
    rows = []
    for operation, lib_name, ref_name, ref_label, target in ROWS:
        row = {"operation": operation, "library_benchmark": lib_name, "reference": ref_label,
               "reference_benchmark": ref_name, "library_ns": None, "reference_ns": None,
               "ratio": None, "target": "", "passed": None, "measured": False}
        if lib_name in medians and ref_name in medians:
            lib, ref = medians[lib_name]["median_ns"], medians[ref_name]["median_ns"]
            ratio, text, passed = judge(target, lib, ref)
            row.update(library_ns=lib, reference_ns=ref, ratio=ratio, target=text, passed=passed,
                       measured=True)
        else:
            row["target"] = judge(target, 1.0, 1.0)[1]
        rows.append(row)
    return rows


def human(ns):
    for unit, scale in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if ns >= scale:
            return "%.3g %s" % (ns / scale, unit)
    return "%.3g ns" % ns


def mark(row):
    if not row["measured"]:
        return "not measured"
    return {None: "-", True: "PASS", False: "FAIL"}[row["passed"]]


def text_table(rows, runs):
    lines = ["Medians of %d repetition(s); library and reference measured in the same run." % runs, ""]
    header = ("operation", "library", "reference", "ratio", "target", "mark")
    table = [header]
    for r in rows:
        if r["measured"]:
            table.append((r["operation"], human(r["library_ns"]),
                          "%s: %s" % (r["reference"], human(r["reference_ns"])),
                          "%.3f" % r["ratio"], r["target"], mark(r)))
        else:
            table.append((r["operation"], "-", r["reference"], "-", r["target"], mark(r)))
    widths = [max(len(line[i]) for line in table) for i in range(len(header))]
    for line in table:
        lines.append(" | ".join(cell.ljust(widths[i]) for i, cell in enumerate(line)).rstrip())
    return "\n".join(lines) + "\n"


def svg_escape(text):
    return text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")


def svg_chart(rows):
    """Horizontal bars of the ratios on a logarithmic axis from 1, the target as a tick;
    the operation and its reference label each bar, the ratio stands at the right.
    A pair whose benchmarks did not run keeps its line, marked as not measured."""
    shown = rows
    left, bar, gap, width, top = 360, 26, 10, 380, 40
    lo, hi = -3, max([3] + [math.ceil(math.log2(r["ratio"])) for r in shown if r["measured"]])
    plot_bottom = top + len(shown) * (bar + gap)
    height = plot_bottom + 60

    def x(ratio):
        return left + (math.log2(max(ratio, 2.0 ** lo)) - lo) / (hi - lo) * width

    out = ['<svg xmlns="http://www.w3.org/2000/svg" width="%d" height="%d" font-family="sans-serif" '
           'font-size="12">' % (left + width + 70, height),
           '<rect width="100%" height="100%" fill="white"/>',
           '<text x="10" y="22" font-size="15">Library time / reference time, same run '
           '(log scale; black tick: target)</text>']
    for e in range(lo, hi + 1):
        gx = x(2.0 ** e)
        out.append('<line x1="%.1f" y1="%d" x2="%.1f" y2="%d" stroke="%s"/>'
                   % (gx, top - 4, gx, plot_bottom, "#444" if e == 0 else "#ddd"))
        out.append('<text x="%.1f" y="%d" text-anchor="middle">%g</text>' % (gx, plot_bottom + 16, 2.0 ** e))
    for i, r in enumerate(shown):
        y = top + i * (bar + gap)
        colour = {None: "#8a8a8a", True: "#2e8b57", False: "#c0392b"}[r["passed"]]
        out.append('<text x="%d" y="%d" text-anchor="end">%s</text>' % (left - 8, y + 11, svg_escape(r["operation"])))
        out.append('<text x="%d" y="%d" text-anchor="end" fill="#666" font-size="11">vs %s</text>'
                   % (left - 8, y + 24, svg_escape(r["reference"])))
        if not r["measured"]:
            out.append('<text x="%d" y="%d" fill="#666">not measured</text>' % (left + 8, y + 18))
            continue
        x0, x1 = x(1.0), x(r["ratio"])
        out.append('<rect x="%.1f" y="%d" width="%.1f" height="%d" fill="%s"/>'
                   % (min(x0, x1), y + 3, max(abs(x1 - x0), 1.0), bar - 6, colour))
        out.append('<text x="%d" y="%d">%.3f</text>' % (left + width + 10, y + 18, r["ratio"]))
        target = next(t for t in ROWS if t[0] == r["operation"] and t[2] == r["reference_benchmark"])[4]
        if target and target[0] == "ratio":
            tx = x(target[1])
            out.append('<line x1="%.1f" y1="%d" x2="%.1f" y2="%d" stroke="black" stroke-width="3"/>'
                       % (tx, y, tx, y + bar))
    legend = (("#2e8b57", "target met"), ("#c0392b", "target missed"), ("#8a8a8a", "no target (shown for comparison)"))
    for i, (colour, text) in enumerate(legend):
        lx = left + i * 130 - 150
        out.append('<rect x="%d" y="%d" width="12" height="12" fill="%s"/>' % (lx, plot_bottom + 30, colour))
        out.append('<text x="%d" y="%d">%s</text>' % (lx + 16, plot_bottom + 41, text))
    out.append("</svg>")
    return "\n".join(out) + "\n"


def main():
    if len(sys.argv) != 4:
        sys.exit("usage: bench_report.py RAW_DIR OUT_DIR RUNS")
    raw_dir, out_dir, runs = Path(sys.argv[1]), Path(sys.argv[2]), int(sys.argv[3])
    medians = load_medians(raw_dir)
    rows = build_rows(medians)
    contention, contention_passed = contention_table(load_contention(raw_dir))
    text = text_table(rows, runs) + contention
    (out_dir / "results.txt").write_text(text)
    (out_dir / "results.json").write_text(
        json.dumps({"repetitions": runs, "rows": rows, "benchmarks": medians}, indent=2) + "\n")
    (out_dir / "ratios.svg").write_text(svg_chart(rows))
    sys.stdout.write(text)
    return 1 if any(r["passed"] is False for r in rows) or not contention_passed else 0


if __name__ == "__main__":
    sys.exit(main())
