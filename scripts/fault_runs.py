"""Randomised runs of the real tool in the simulated headset, each with one fault.

Every run draws a profile, a plugin set, a sink and format, short periods and one fault from a
seeded generator, then checks the exit code, the messages, that every written node ends as the
run found it, and that the report file and the Perfetto trace are whole. `--only K` replays run K
of a seed.
"""

import argparse
import csv
import fcntl
import fnmatch
import glob
import io
import json
import os
import random
import re
import shutil
import signal
import sys
import threading
import time

import simrun

# The companion's reading of report files, so that the fault runs and tools/emberline-report hold
# a report to the same rules.
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools"))
from emberline_report import reading  # noqa: E402

PLUGIN_SETS = {
    "generic": [["--all"], ["--stats"], ["--stats", "--cycle"], ["--credits"], ["--thermals"],
                ["--dsp-trace"], ["--ravelin", "--dsp"], ["--example"]],
    "brantley": [["--all"], ["--brantley-rails"], ["--stats", "--thermals"]],
    "fennick": [["--all"], ["--charge-data"], ["--quillon-rails"],
                ["--quillon-dram", "--quillon-dram-ms=20"], ["--credits", "--dsp-trace"]],
}

TAILED = "/sys/class/power_supply/battery/charge_counter"

# What each option makes the tool read, as device paths (globs).
READS = {
    "power": ["/sys/class/power_supply/battery/current_now",
              "/sys/class/power_supply/battery/voltage_now"],
    "--stats": ["/proc/stat", "/sys/devices/system/cpu/cpufreq/policy*/cpuinfo_cur_freq",
                "/sys/devices/system/cpu/cpufreq/policy*/stats/time_in_state",
                "/sys/class/kgsl/kgsl-3d0/*", "/sys/class/backlight/panel0-backlight/bl_power",
                "/sys/class/power_supply/battery/charge_*"],
    "--credits": ["/proc/2*/task/*/time_in_state", "/proc/2*/task/*/comm"],
    "--charge-data": ["/sys/class/power_supply/battery/*", "/sys/class/power_supply/usb/*"],
    "--thermals": ["/sys/class/thermal/thermal_zone*/temp", "/sys/class/thermal/thermal_zone*/type",
                   "/sys/class/hwmon/hwmon3/rpm"],
    "--ravelin": ["/.emberline-sim/log/main"],
    "--dsp": ["/.emberline-sim/log/main"],
    "--tail": [TAILED],
    "--brantley-rails": ["/sys/bus/iio/devices/iio:device*/*"],
    "--quillon-rails": ["/sys/class/powercap/epm:*/*"],
    "--quillon-dram": ["/sys/devices/system/cpu/bw_prof/bwmon*/last_sample",
                       "/sys/devices/system/cpu/bw_prof/bwmon*/client"],
}
ALL_COVERS = {"generic": ["--stats", "--credits", "--thermals", "--ravelin", "--dsp"],
              "brantley": ["--stats", "--credits", "--thermals", "--ravelin", "--dsp",
                           "--brantley-rails"],
              "fennick": ["--stats", "--credits", "--charge-data", "--thermals", "--ravelin",
                          "--dsp", "--quillon-rails", "--quillon-dram"]}

# The nodes the tool writes and that the sim records: charging, and the bandwidth monitor.
WRITTEN = {"/sys/devices/system/cpu/bw_prof/sample_ms"} | {
    f"/sys/devices/system/cpu/bw_prof/bwmon{m}/mon_enabled" for m in range(3)}

FORMATS = {"text": [], "inline": ["--inline"], "json": ["--json"], "csv": ["--csv"]}
EXTENSIONS = {"text": "txt", "inline": "txt", "json": "json", "csv": "csv"}
CRASH_TEXTS = ("Sanitizer", "runtime error:", "terminate called", "Segmentation fault",
               "core dumped", "Assertion", "Aborted", "stack smashing")
# Dropping these makes root inside the sandbox obey file modes, as on a headset's shell.
NO_DAC = ["setpriv", "--inh-caps=-dac_override,-dac_read_search",
          "--bounding-set=-dac_override,-dac_read_search", "--"]
REPORT = "/data/local/tmp/faults-report"


def host_path(state, device_path):
    if device_path.startswith("/.emberline-sim/log/"):
        return os.path.join(state, "log", os.path.basename(device_path))
    return state + device_path


def device_path(state, host):
    if host.startswith(os.path.join(state, "log") + "/"):
        return "/.emberline-sim/log/" + os.path.basename(host)
    return host[len(state):]


def wait_for_start(run, timeout_s):
    """The tool's host pid once its stop handlers are in; they go in first thing in main, and a
    signal before that would test the loader, not the tool."""
    simrun.wait_for(lambda: (p := run.tool_pid()) and simrun.catches(p, signal.SIGINT), timeout_s)
    return run.tool_pid()


def charging_suspended(run):
    return any(data == b"1" for _, _, data in simrun.recorded_writes(run.state))


def wait_for_loop(run, plan, timeout_s):
    """Waits until the timing loop runs. A quiet run says nothing: then the suspending write (or
    the start and the second the charger takes to settle) tells it."""
    if not plan.quiet:
        return simrun.wait_for(lambda: b"Press CTRL-C to stop...\n" in run.err, timeout_s)
    if wait_for_start(run, timeout_s) is None:
        return False
    if not plan.keep_charging:
        simrun.wait_for(lambda: charging_suspended(run), timeout_s)
    time.sleep(1.05)
    return True


class Fault:
    """One kind of fault. A run draws one; it draws its detail, printed with the run, from the
    same generator, and bends the run's other draws where it must."""

    wrapper = ()  # the command the tool runs under
    killed = False  # may end the tool mid-write, cutting its last report or trace short

    def __init__(self, plan, rng):
        self.plan, self.detail = plan, {}
        self.draw(plan, rng)

    def prepare(self, run, rng):
        """Before the tool starts."""

    def inject(self, run, rng, timeout_s):
        """While the tool runs."""

    def finish(self):
        """Once the tool has ended, or been given up on."""

    def judge(self, run, code, err, check):
        """The exit code and messages. A fault the tool lives through ends it as usual, or with
        exit 1 and the reason."""
        if code == 1:
            check("ERROR: " in err, "exit 1 without an 'ERROR: ' line")
        else:
            check(code == 0, f"exit {code}")

    def saved_report(self, state):
        """The report file on the host after the run, and whether its last report may be cut
        short; None when there is none to check."""
        return host_path(state, self.plan.report), self.killed

    def judge_report(self, text, check):
        """What the report file must show besides being whole."""


def rewrite_in_place(path, data):
    with open(path, "r+b") as f:
        f.truncate(0)
        f.write(data)


class NodeFault(Fault):
    """A node the tool reads goes wrong, before the tool starts or once its loop runs."""

    name = "node"
    KINDS = ["vanish", "unreadable", "garbage", "huge", "still", "fifo", "silent fifo"]
    target = held = None  # the node's host path; a silent FIFO writer's descriptor

    def draw(self, plan, rng):
        self.detail = {"kind": rng.choice(self.KINDS), "when": rng.choice(["before", "during"])}
        self.pick = rng.random()
        plan.frozen = rng.random() < 0.5
        if self.detail["kind"] == "unreadable":
            self.wrapper = NO_DAC

    def find_target(self, state):
        """A node this run reads that the fault can reach from outside: /proc/stat is a file mount
        of its own, so only changes in place reach it."""
        kind, plan = self.detail["kind"], self.plan
        options = set(plan.plugins) | ({"power"} if not plan.no_power else set())
        if "--all" in options:
            options |= set(ALL_COVERS[plan.profile])
        candidates = []
        for option in sorted(options):
            for pattern in READS.get(option, []):
                for path in sorted(glob.glob(host_path(state, pattern))):
                    dev = device_path(state, path)
                    if not os.path.isfile(path) or dev in WRITTEN or dev.endswith("input_suspend"):
                        continue
                    if dev == "/proc/stat" and kind not in ("garbage", "huge", "unreadable"):
                        continue
                    # The log buffer is the simulated logcat's to read, not the tool's.
                    if dev.startswith("/.emberline-sim/") and "fifo" in kind:
                        continue
                    candidates.append(path)
        if not candidates:
            return None
        return candidates[int(self.pick * len(candidates))]

    def prepare(self, run, rng):
        self.target = self.find_target(run.state)
        self.detail["target"] = device_path(run.state, self.target) if self.target else "none"
        if self.target and self.detail["when"] == "before":
            self.apply(rng)

    def inject(self, run, rng, timeout_s):
        if self.target and self.detail["when"] == "during":
            if wait_for_loop(run, self.plan, timeout_s):
                time.sleep(rng.uniform(0, 0.5))
                self.apply(rng)

    def apply(self, rng):
        kind, path = self.detail["kind"], self.target
        if kind == "vanish":
            os.remove(path)
        elif kind == "unreadable":
            os.chmod(path, 0)
        elif kind == "garbage":
            rewrite_in_place(path, rng.choice([b"", b"abc\n", b"-99999999999999999999999\n",
                                               b"nan\n", b"\0\0\0\n", rng.randbytes(300)]))
        elif kind == "huge":
            # Digits, so that a reader that takes the first number finds one.
            rewrite_in_place(path, (b"1234567 " * 127 + b"\n") * 10240)
        elif kind == "still":
            # The model goes on rewriting the old inode; the path now shows one value for good.
            data = open(path, "rb").read()
            os.remove(path)
            with open(path, "wb") as f:
                f.write(data)
        elif kind in ("fifo", "silent fifo"):
            # A node that never answers: with no writer an open would wait, with a silent one a
            # read.
            os.remove(path)
            os.mkfifo(path)
            if kind == "silent fifo":
                self.held = os.open(path, os.O_RDWR | os.O_NONBLOCK)

    def finish(self):
        if self.held is not None:
            os.close(self.held)

    def judge(self, run, code, err, check):
        super().judge(run, code, err, check)
        # A node the power plugin opens at its start, gone or unreadable before that.
        path = self.detail["target"]
        if (self.detail["when"] == "before" and not self.plan.no_power
                and self.detail["kind"] in ("vanish", "unreadable") and path in READS["power"]):
            check(code == 1 and f"Failed to open file at '{path}'" in err
                  and "ERROR: Failed to initialize plugin 'power'" in err,
                  "a missing power node is not reported as the power plugin's failed start")


class ChargingRefused(Fault):
    """A charging node that refuses writing."""

    name, wrapper = "charging", NO_DAC

    def draw(self, plan, rng):
        self.detail = {"node": rng.choice(simrun.CHARGING_NODES)}

    def prepare(self, run, rng):
        os.chmod(run.host_path(self.detail["node"]), 0o444)

    def judge(self, run, code, err, check):
        super().judge(run, code, err, check)
        node = self.detail["node"]
        check(err.count(f"Permission denied for {node}\n") == 1 and err.count("Permission") == 1,
              f"not one 'Permission denied for {node}'")
        check(all(path != node for path, _, _ in simrun.recorded_writes(run.state)),
              "a node that refuses writing was written")


class DspWriter(Fault):
    """A DSP agent gone wrong, writing blocks cut mid-record and blocks of noise to the FIFO."""

    name = "dsp"

    def draw(self, plan, rng):
        if not any(p in plan.plugins for p in ("--all", "--dsp-trace")):
            plan.plugins.append("--dsp-trace")
        self.detail = {"mix": rng.choice(["partial", "garbage", "both"]),
                       "writes": rng.randint(5, 60)}
        self.stop, self.writer = threading.Event(), None

    def inject(self, run, rng, timeout_s):
        fifo = run.host_path("/data/misc/dsp/HexagonTelemetrySharedFIFO")
        self.writer = threading.Thread(target=self.write, args=(fifo, rng), daemon=True)
        self.writer.start()

    def write(self, fifo, rng):
        record = bytearray(120)
        record[0:5] = b"fault"
        record[40:48] = (7).to_bytes(8, "little")
        record[112:116] = (4242).to_bytes(4, "little")
        fd = -1
        for _ in range(self.detail["writes"]):
            if self.stop.is_set():
                break
            if fd < 0:
                try:
                    fd = os.open(fifo, os.O_WRONLY | os.O_NONBLOCK)
                except OSError:
                    time.sleep(0.02)
                    continue
            mix = self.detail["mix"]
            if mix == "partial" or (mix == "both" and rng.random() < 0.5):
                data = bytes(record) * rng.randint(1, 40)
                data = data[:rng.randint(1, len(data))]
            else:
                data = rng.randbytes(rng.choice([120, 3840, 5000]))
            try:
                os.write(fd, data)
            except OSError:
                pass
            time.sleep(rng.uniform(0, 0.05))
        if fd >= 0:
            os.close(fd)

    def finish(self):
        self.stop.set()
        if self.writer:
            self.writer.join()


class FullDisk(Fault):
    """The disk under `--file` fills up: a 4 KiB tmpfs in a mount namespace of the tool's own
    where one can be had, else /dev/full."""

    name = "disk"
    # The report is copied out afterwards, so the host can check what a full disk left of it.
    SHELL = ('mkdir -p /data/local/tmp/full && '
             'mount -t tmpfs -o size=4k tmpfs /data/local/tmp/full || exit 99; '
             '"$@"; code=$?; cp /data/local/tmp/full/report.* "$EMBERLINE_SIM_STATE"/; '
             'exit $code')

    def draw(self, plan, rng):
        # Reports every 10 ms fill the small disk within the run whatever the plugins.
        plan.sink, plan.sample, plan.output = "file", 10, 10
        self.detail = {"on": plan.disk_full_mode}
        if self.detail["on"] == "tmpfs":
            self.wrapper = ["unshare", "-rm", "sh", "-c", self.SHELL, "sh"]
            plan.report = "/data/local/tmp/full/report." + EXTENSIONS[plan.format]
        else:
            plan.report = "/dev/full"

    def saved_report(self, state):
        if self.detail["on"] == "/dev/full":
            return None
        return os.path.join(state, os.path.basename(self.plan.report)), True

    def judge_report(self, text, check):
        check(len(text) > 2000, f"the disk never filled ({len(text)} bytes)")


class MainThread:
    """The tool's main thread as /proc shows it, read through descriptors held open: a read of
    them takes microseconds, which is what stopping the tool inside a short step needs."""

    def __init__(self, pid):
        self.pid = pid
        self.fds = [os.open(f"/proc/{pid}/{name}", os.O_RDONLY) for name in ("syscall", "stat")]

    def close(self):
        for fd in self.fds:
            os.close(fd)

    def _read(self, which):
        try:
            return os.pread(self.fds[which], 4096, 0).decode()
        except OSError:
            return ""

    def call(self):
        """The fields of /proc/PID/syscall: "running", or the call the thread is in (or has just
        left, when stopped) and its arguments, "-1" in user code; none once the tool is gone."""
        return self._read(0).split()

    def stopped(self):
        state = self._read(1).rsplit(")", 1)[-1].split()
        return not state or state[0] in "Tt"

    def last_call(self):
        """(number, descriptor, what the descriptor names) of the call the thread is in or has
        just left, if it takes a descriptor first; None otherwise."""
        fields = self.call()
        try:
            fd = int(fields[1], 16)
            return int(fields[0]), fd, os.readlink(f"/proc/{self.pid}/fd/{fd}")
        except (OSError, ValueError, IndexError):
            return None


class Signal(Fault):
    """A signal at a chosen moment, or a reader that closes the standard output stream early
    (SIGPIPE)."""

    name = "signal"
    SIGNALS = {"SIGINT": signal.SIGINT, "SIGTERM": signal.SIGTERM, "SIGHUP": signal.SIGHUP,
               "SIGKILL": signal.SIGKILL, "SIGPIPE": None}
    # System calls by machine: those that read a descriptor (read, pread64, readv), that write
    # one (write, pwrite64, writev), and that the timing loop sleeps in (clock_nanosleep,
    # nanosleep, restart_syscall).
    CALLS = {"x86_64": ({0, 17, 19}, {1, 18, 20}, {230, 35, 219}),
             "aarch64": ({63, 67, 65}, {64, 68, 66}, {115, 101, 128})}
    # What the sample step reads: the power nodes and a bandwidth monitor's samples.
    SAMPLED = READS["power"] + READS["--quillon-dram"][:1]

    def draw(self, plan, rng):
        name = rng.choice(sorted(self.SIGNALS))
        moment = rng.choice(["before the loop", "charging settle", "loop", "mid-sample",
                             "mid-report"])
        if name == "SIGPIPE":
            plan.sink, plan.quiet, moment = "console", False, "loop"
        if moment == "mid-sample":
            plan.no_power = False
        if moment == "mid-report" and plan.sink == "perfetto":
            plan.sink, plan.quiet = "console", False
        if moment == "mid-report":
            # Reports often enough to fill a small pipe well within the run, or to stop the tool
            # in one often.
            plan.output = plan.sample = min(plan.output, 10 if plan.quiet else 50)
        self.detail = {"signal": name, "moment": moment, "delay_ms": rng.randint(0, 400)}
        plan.time = 0 if rng.random() < 0.5 else 4
        self.killed = name == "SIGKILL"

    def prepare(self, run, rng):
        if self.detail["signal"] == "SIGPIPE":
            run.close_out_after = rng.randint(1, 5)
        if self.detail["moment"] == "mid-report" and not self.plan.quiet:
            # Unread reports fill a pipe of one page; the tool then blocks writing the next.
            run.out_paused.set()
            fcntl.fcntl(run.proc.stdout.fileno(), fcntl.F_SETPIPE_SZ, 4096)

    def inject(self, run, rng, timeout_s):
        sig = self.SIGNALS[self.detail["signal"]]
        if sig is None:
            return
        moment = self.detail["moment"]
        pid = wait_for_start(run, timeout_s)
        if pid is None:
            return
        if moment == "charging settle":
            simrun.wait_for(lambda: b"Disabling charging...\n" in run.err or charging_suspended(run)
                            or self.plan.keep_charging and b"Starting" in run.err, timeout_s)
        elif moment != "before the loop":
            wait_for_loop(run, self.plan, timeout_s)
        if moment in ("mid-sample", "mid-report"):
            self.detail["reached"] = self.signal_mid_step(run, pid, sig, rng)
            if self.detail["reached"]:
                return
        else:
            time.sleep(self.detail["delay_ms"] / 1000 if moment != "before the loop" else 0)
        try:
            os.kill(pid, sig)
        except ProcessLookupError:
            pass

    def signal_mid_step(self, run, pid, sig, rng, give_up_s=8):
        """Sends `sig` while the tool's main thread stands in the drawn moment: a read of a node
        the sample step reads, or a write of a report. A write blocked on the unread pipe is
        waited for; otherwise the tool is stopped again and again through its steps until its
        last call is the one wanted. False, with nothing sent, when the moment was not reached in
        time."""
        reads, writes, sleeps = self.CALLS.get(os.uname().machine, (set(), set(), set()))
        report = None if self.plan.sink == "console" else self.plan.report

        def wanted(call):
            if call is None:
                return False
            number, fd, target = call
            if self.detail["moment"] == "mid-sample":
                node = target[len(run.state):] if target.startswith(run.state) else target
                return number in reads and any(fnmatch.fnmatch(node, p) for p in self.SAMPLED)
            return number in writes and (fd == 1 or report is not None and target.endswith(report))

        try:
            thread = MainThread(pid)
        except OSError:
            return False
        try:
            if run.out_paused.is_set():
                reached = simrun.wait_for(lambda: wanted(thread.last_call()), give_up_s, step=0.01)
                if reached:
                    os.kill(pid, sig)
                return reached
            deadline = time.monotonic() + give_up_s
            while time.monotonic() < deadline:
                # The thread sleeps between steps. From the moment it wakes it is stopped, looked
                # at and let go again and again, until the step is over.
                time.sleep(rng.uniform(0, 0.002))
                simrun.wait_for(lambda: thread.call()[:1] != ["running"], 0.5, step=0)
                simrun.wait_for(lambda: thread.call()[:1] in (["running"], []), 0.5, step=0)
                for _ in range(200):
                    os.kill(pid, signal.SIGSTOP)
                    simrun.wait_for(thread.stopped, 1, step=0)
                    call = thread.last_call()
                    if wanted(call):
                        os.kill(pid, sig)
                        os.kill(pid, signal.SIGCONT)
                        return True
                    os.kill(pid, signal.SIGCONT)
                    if call and call[0] in sleeps:
                        break
                    time.sleep(rng.uniform(0, 3e-4))  # a little way on through the step
            return False
        except ProcessLookupError:
            return False
        finally:
            thread.close()
            run.out_paused.clear()

    def judge(self, run, code, err, check):
        sig = self.detail["signal"]
        if self.killed:
            check(code in (0, 128 + signal.SIGKILL), f"exit {code}, want 137 after SIGKILL")
            return
        check(code == 0, f"exit {code}, want 0 after {sig}")
        said = "Enabling charging..." in err
        check(said or self.plan.keep_charging or self.plan.quiet,
              "no 'Enabling charging...' after a stop")


class ThermalDeath(Fault):
    """The thermal service dies and comes back: its class directory moved away for the drawn
    time, which ends the service's process, then back, which lets a new one start."""

    name = "thermal"
    FAILED_READ = "Error: Failed to get temperature from thermalHAL\n"
    GONE_AT_READ = ("Unable to get Thermal HAL V2.0\n"
                    "ERROR: Thermal HAL unavailable in get_current_temperature\n" + FAILED_READ)

    def draw(self, plan, rng):
        if not any(p in plan.plugins for p in ("--all", "--thermals")):
            plan.plugins.append("--thermals")
        # Reports up to 2 s apart, so that the service is back before the next read in some runs
        # and still gone at it in others.
        plan.output = rng.choice([100, 500, 1000, 2000])
        plan.sample = min(plan.sample, plan.output)
        plan.time = 6
        self.detail = {"away_s": round(rng.uniform(0.2, 2.5), 2)}
        self.early = False

    def inject(self, run, rng, timeout_s):
        if not wait_for_loop(run, self.plan, timeout_s):
            return
        time.sleep(rng.uniform(0, 0.5))
        thermal, away = run.host_path("/sys/class/thermal"), run.host_path("/thermal-away")
        os.rename(thermal, away)
        # A read in the moment between the directory going and the death being told meets the
        # service as it dies, and fails by itself.
        self.early = simrun.wait_for(lambda: self.FAILED_READ.encode() in run.err, 0.1)
        time.sleep(max(0.0, self.detail["away_s"] - 0.1))
        os.rename(away, thermal)

    def judge(self, run, code, err, check):
        super().judge(run, code, err, check)
        died = "ThermalHAL died\n" in err
        if code == 0 and died:
            self.detail["outcome"] = "back in time"
        elif code == 1 and died and self.GONE_AT_READ in err:
            self.detail["outcome"] = "gone at a read"
        elif (code == 1 and self.early and self.FAILED_READ in err
              and "Thermal HAL unavailable" not in err):
            self.detail["outcome"] = "a read met the service dying"
        check("outcome" in self.detail, f"exit {code}, but neither 'ThermalHAL died' and a run "
              "to its end, nor the lines of a service gone at a read")


# A run draws its fault from these, each kind as often as it stands here. A seed replays its
# runs only while this list keeps its order.
DRAWN = [NodeFault] * 3 + [ChargingRefused, DspWriter, FullDisk] + [Signal] * 2 + [ThermalDeath]


class Plan:
    """One run's draw; printed so that a failure can be told and replayed."""

    def __init__(self, rng, disk_full_mode):
        self.profile = rng.choice(sorted(PLUGIN_SETS))
        self.plugins = list(rng.choice(PLUGIN_SETS[self.profile]))
        if rng.random() < 0.2:
            self.plugins += ["--tail", TAILED]
        self.no_power = rng.random() < 0.25
        self.keep_charging = rng.random() < 0.15
        self.sink = rng.choice(["console", "file", "perfetto"])
        self.format = rng.choice(sorted(FORMATS))
        self.quiet = self.sink != "console" and rng.random() < 0.5
        self.sample = rng.choice([10, 20, 50])
        self.output = max(self.sample, rng.choice([10, 50, 100, 200]))
        self.time = 2
        self.frozen = False
        self.report = REPORT + "." + EXTENSIONS[self.format]
        self.disk_full_mode = disk_full_mode
        self.fault = rng.choice(DRAWN)(self, rng)

    def tool_args(self):
        args = list(self.plugins)
        if self.no_power:
            args.append("--no-power")
        if self.keep_charging:
            args.append("-c")
        args += FORMATS[self.format]
        if self.sink == "file":
            args += ["--file", self.report]
        elif self.sink == "perfetto":
            args.append("-p")
        if self.quiet:
            args.append("-q")
        return args + ["-s", str(self.sample), "-o", str(self.output), "-t", str(self.time)]

    def describe(self):
        detail = " ".join(f"{k}={v}" for k, v in self.fault.detail.items())
        return (f"{self.profile}{' frozen' if self.frozen else ''} "
                f"[{' '.join(self.tool_args())}] fault={self.fault.name} {detail}").rstrip()


def report_problems(text, fmt, truncated_tail_ok):
    """Reports that are not whole in the report's format.

    Reports are framed by their own syntax rather than by line ends: a DSP task name is copied
    into the report as it came, line ends included, and the FIFO's garbage makes such names.
    """
    if not text:
        return []
    problems = []
    if not text.endswith("\n"):
        if not truncated_tail_ok:
            problems.append(f"last line not ended: {text[-60:]!r}")
        text = text[:text.rfind("\n") + 1]
    lines = text.split("\n")[:-1]
    if fmt == "csv":
        width = None
        for n, row in enumerate(csv.reader(io.StringIO(text))):
            width = width or len(row)
            if len(row) != width:
                problems.append(f"row {n + 1} has {len(row)} cells, header {width}")
    elif fmt == "json":
        # A float that is not a number stands bare as nan or inf, as in the other forms.
        text = reading.unbare_nonfinite(text)
        decoder, pos, n = json.JSONDecoder(strict=False), 0, 0
        while pos < len(text):
            n += 1
            try:
                _, pos = decoder.raw_decode(text, pos)
            except ValueError as e:
                problems.append(f"report {n} is not JSON: {e}")
                break
            if text[pos:pos + 1] != "\n":
                problems.append(f"report {n} is not followed by a line end")
                break
            pos += 1
    elif fmt == "inline":
        problems += [f"report {n + 1} does not begin with sequence" for n, report in
                     enumerate(re.split(r"\n(?=sequence=)", text)) if not
                     report.startswith("sequence=")]
    elif fmt == "text":
        if truncated_tail_ok and "------" in lines:
            lines = lines[:len(lines) - lines[::-1].index("------")]
        if lines and lines[-1] != "------":
            problems.append("last report not closed by ------")
        starts = [i + 1 for i, line in enumerate(lines) if line == "------"]
        problems += [f"report at line {i + 1} does not begin with sequence"
                     for i in [0] + starts[:-1] if i < len(lines)
                     and not lines[i].startswith("sequence: ")]
    return problems[:3]


def read_varint(data, pos):
    value = shift = 0
    while True:
        if pos >= len(data):
            raise ValueError("varint runs past the end")
        byte = data[pos]
        pos += 1
        value |= (byte & 0x7F) << shift
        shift += 7
        if not byte & 0x80:
            return value, pos


def trace_problems(data, truncated_tail_ok):
    """A `Trace` is a run of field 1, each a length-delimited packet wholly inside the file."""
    pos = packets = 0
    while pos < len(data):
        start = pos
        try:
            tag, pos = read_varint(data, pos)
            if tag != (1 << 3 | 2):
                return [f"field tag {tag} at byte {start}, packet {packets}"]
            length, pos = read_varint(data, pos)
        except ValueError as e:
            return [] if truncated_tail_ok else [f"{e} at byte {start}"]
        if pos + length > len(data):
            return [] if truncated_tail_ok else [f"packet {packets} runs past the end"]
        pos += length
        packets += 1
    return []


class Outcome:
    def __init__(self):
        self.problems = []

    def check(self, ok, text):
        if not ok:
            self.problems.append(text)


def judge(plan, run, code, initial, outcome):
    """What every run must show whatever its fault: no crash, the fault's exit code and messages,
    every written node given back, and whole reports and traces."""
    err = run.err.decode(errors="replace")
    check, fault = outcome.check, plan.fault
    for text in CRASH_TEXTS:
        check(text not in err, f"standard error says {text!r}")
    check(code not in (125, 126, 127, 99), f"the run did not start (exit {code})")
    fault.judge(run, code, err, check)
    outcome.problems += simrun.nodes_not_given_back(run.state, initial)

    # A reader that stops early leaves the stream cut wherever it stopped.
    if plan.sink == "console" and not run.close_out_after:
        text = run.out.decode(errors="replace")
        outcome.problems += ["standard output: " + problem
                             for problem in report_problems(text, plan.format, fault.killed)]
    saved = fault.saved_report(run.state) if plan.sink == "file" else None
    if saved and os.path.exists(saved[0]):
        text = reading.read_text(saved[0])
        outcome.problems += ["report: " + problem
                             for problem in report_problems(text, plan.format, saved[1])]
        fault.judge_report(text, check)
    elif saved:
        check(code not in (0, 128 + signal.SIGKILL), "no report file")
    for trace in glob.glob(host_path(run.state, "/data/local/tmp/*.perfetto-trace")):
        outcome.problems += ["trace: " + problem
                             for problem in trace_problems(open(trace, "rb").read(), fault.killed)]


def execute(plan, build, seed, timeout_s):
    rng = random.Random(seed)
    state = simrun.state_dir("emberline-faults-")
    outcome = Outcome()
    run = simrun.SimRun(build, state, plan.profile, plan.tool_args(), seed=seed,
                        frozen=plan.frozen, wrapper=plan.fault.wrapper)
    try:
        if not run.wait_ready(30):
            outcome.check(False, "the sim never reached the gate")
            return outcome, state
        initial = {path: open(host_path(state, path), "rb").read()
                   for path in WRITTEN if os.path.exists(host_path(state, path))}
        plan.fault.prepare(run, rng)
        run.release()
        plan.fault.inject(run, rng, timeout_s)
        code = run.wait(timeout_s)
        if code is None:
            outcome.check(False, f"no end within {timeout_s} s (a stall?)")
            # The tool alone, so that its exit guard and the sim's recorder still do their part.
            if pid := run.tool_pid():
                os.kill(pid, signal.SIGKILL)
            code = run.wait(10)
            if code is None:
                run.kill()
                code = run.proc.returncode
    finally:
        plan.fault.finish()
        if run.proc.poll() is None:
            run.kill()
    judge(plan, run, code, initial, outcome)
    if outcome.problems:
        tail = run.err.decode(errors="replace").splitlines()[-6:]
        outcome.problems += [f"stderr: {line}" for line in tail]
    return outcome, state


def disk_full_mode(build):
    """tmpfs when a mount namespace of the tool's own can have one, else /dev/full."""
    state = simrun.state_dir("emberline-faults-")
    try:
        run = simrun.SimRun(build, state, "generic", ["--version"], frozen=True,
                            wrapper=["unshare", "-rm", "sh", "-c",
                                     "mount -t tmpfs -o size=16k tmpfs /tmp && exit 0; exit 99",
                                     "sh"])
        run.wait_ready(30)
        run.release()
        return "tmpfs" if run.wait(30) == 0 else "/dev/full"
    finally:
        shutil.rmtree(state, ignore_errors=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--runs", type=int, default=200)
    parser.add_argument("--seed", type=int, default=None)
    parser.add_argument("--build", default=simrun.DEFAULT_BUILD)
    parser.add_argument("--only", type=int, default=None, help="replay this run only")
    parser.add_argument("--keep", action="store_true", help="keep each failed run's state dir")
    args = parser.parse_args()
    seed = args.seed if args.seed is not None else random.SystemRandom().randrange(1, 1 << 31)
    mode = disk_full_mode(args.build)
    print(f"seed {seed}; full disk: {mode}", flush=True)
    runs = [args.only] if args.only is not None else range(1, args.runs + 1)
    failed = missed = 0
    for k in runs:
        rng = random.Random(f"{seed}:{k}")
        plan = Plan(rng, mode)
        timeout_s = (plan.time or 4) + 20
        began = time.monotonic()
        outcome, state = execute(plan, args.build, rng.randrange(1, 1 << 31), timeout_s)
        took = time.monotonic() - began
        verdict = "FAIL" if outcome.problems else "ok"
        print(f"run {k} {verdict} {took:.1f}s: {plan.describe()}", flush=True)
        for problem in outcome.problems:
            print(f"    {problem}", flush=True)
        if outcome.problems:
            failed += 1
        missed += plan.fault.detail.get("reached") is False
        if outcome.problems and args.keep:
            print(f"    state kept in {state}", flush=True)
        else:
            shutil.rmtree(state, ignore_errors=True)
    print(f"{len(runs)} runs, {failed} failed, {missed} moments not reached (seed {seed})")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
