"""A long run of `emberline --all` at the shortest periods in the live simulated headset.

The tool's descriptors, threads and resident memory are read from the host's /proc once a
second: reading another process's status and descriptor table neither stops nor slows it. After
the warm-up, descriptors and threads must not grow at all. Resident memory may grow by
RSS_BOUND_KB of allocator slack plus CACHE_KB_PER_S for each second: the tables that grow in a run
are the DSP's task names and tracks, which the simulated agent keeps to six names on three
threads, and the credits plugin's thread identities, one per thread the headset ever ran and never
dropped, while the simulated headset starts two short-lived threads a second (about 0.3 kB each,
0.67 kB/s measured over ten minutes, with the heap's own growth).
"""

import argparse
import os
import shutil
import signal
import sys
import time

import simrun

PERIOD_MS = 10
RSS_BOUND_KB = 1024
CACHE_KB_PER_S = 1.0
PROFILE = "fennick"  # --all covers the most plugins there: eleven with power


def descriptors(pid):
    found = {}
    for fd in os.listdir(f"/proc/{pid}/fd"):
        try:
            found[fd] = os.readlink(f"/proc/{pid}/fd/{fd}")
        except FileNotFoundError:
            pass  # closed between the listing and the look
    return found


def sample(pid):
    """(descriptors, VmRSS in kB, threads), or None once the process is gone.

    Descriptors count only those that stay across three looks 50 ms apart: the log plugins run
    `logcat` through a pipe at every report, and a leak is one that stays.
    """
    try:
        fds = descriptors(pid)
        for _ in range(2):
            time.sleep(0.05)
            fds = fds.items() & descriptors(pid).items()
            fds = dict(fds)
        fds = len(fds)
        fields = {}
        with open(f"/proc/{pid}/status") as f:
            for line in f:
                key, _, value = line.partition(":")
                fields[key] = value.split()
        return fds, int(fields["VmRSS"][0]), int(fields["Threads"][0])
    except (OSError, KeyError, IndexError):
        return None


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--ticks", type=int, default=1_000_000,
                        help="sample ticks of 10 ms (default 1000000, about 2.8 hours)")
    parser.add_argument("--build", default=simrun.DEFAULT_BUILD)
    parser.add_argument("--seed", type=int, default=1)
    args = parser.parse_args()
    seconds = max(1, args.ticks * PERIOD_MS // 1000)
    warm_up = min(60.0, max(3.0, seconds / 10))
    marks = [("warm-up", warm_up)] + [(f"{q}/4", seconds * q / 4) for q in (1, 2, 3)]

    state = simrun.state_dir("emberline-soak-")
    tool_args = ["--all", "-s", str(PERIOD_MS), "-o", str(PERIOD_MS), "-t", str(seconds)]
    print(f"soak: {args.ticks} ticks ({seconds} s) of emberline {' '.join(tool_args)} "
          f"on {PROFILE}", flush=True)
    # Reports go to /dev/null, so that no reader of ours can slow the tool down.
    run = simrun.SimRun(args.build, state, PROFILE, tool_args, seed=args.seed, discard_out=True)
    failures = []
    rows = []
    ended = False
    try:
        if not run.wait_ready(30):
            raise SystemExit("soak: the sim never started")
        run.release()
        if not simrun.wait_for(lambda: b"Press CTRL-C to stop...\n" in run.err, 60):
            raise SystemExit("soak: the tool never started its loop")
        pid = run.tool_pid()
        began = time.monotonic()
        last = None
        while (now := sample(pid)) is not None:
            elapsed = time.monotonic() - began
            if elapsed <= seconds:
                last = (elapsed, now)
            while marks and elapsed >= marks[0][1]:
                rows.append((marks.pop(0)[0], elapsed, now))
                print_row(*rows[-1])
            time.sleep(1)
        if last:
            rows.append(("end", *last))
            print_row(*rows[-1])
        code = run.wait(60)
        ended = True
    finally:
        if run.proc.poll() is None:
            run.kill()
        if not ended:
            shutil.rmtree(state, ignore_errors=True)
    if code != 0:
        failures.append(f"exit {code}")
    if rows and rows[0][0] == "warm-up":
        (fds0, rss0, threads0), (fds1, rss1, threads1) = rows[0][2], rows[-1][2]
        peak_fds = max(r[2][0] for r in rows)
        peak_threads = max(r[2][2] for r in rows)
        if peak_fds > fds0:
            failures.append(f"descriptors grew from {fds0} to {peak_fds}")
        if peak_threads > threads0:
            failures.append(f"threads grew from {threads0} to {peak_threads}")
        bound = RSS_BOUND_KB + CACHE_KB_PER_S * (rows[-1][1] - rows[0][1])
        if rss1 - rss0 > bound:
            failures.append(f"RSS grew by {rss1 - rss0} kB, more than {bound:.0f} kB")
    else:
        failures.append("the run ended before its warm-up")
    failures += simrun.nodes_not_given_back(state, {
        "/sys/devices/system/cpu/bw_prof/sample_ms": b"100",
        **{f"/sys/devices/system/cpu/bw_prof/bwmon{m}/mon_enabled": b"0" for m in range(3)}})
    for failure in failures:
        print(f"soak: FAIL: {failure}")
    shutil.rmtree(state, ignore_errors=True)
    print("soak: ok" if not failures else "soak: failed")
    return 1 if failures else 0


def print_row(label, elapsed, values):
    if label == "warm-up":
        print(f"{'point':>8} {'ticks':>9} {'fds':>5} {'rss_kB':>8} {'threads':>7}")
    fds, rss, threads = values
    ticks = int(elapsed * 1000 / PERIOD_MS)
    print(f"{label:>8} {ticks:>9} {fds:>5} {rss:>8} {threads:>7}", flush=True)


if __name__ == "__main__":
    # Stopped by either, the run in the sim (a session of its own) is ended too.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    sys.exit(main())
