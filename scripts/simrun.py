"""Runs the real emberline binary inside the simulated headset and watches it from the host.

Shared by fault_runs.py and soak.py. The tool waits at a gate until the host has prepared the
state directory, so that a fault can be in place before the tool first looks.
"""

import os
import signal
import subprocess
import tempfile
import threading
import time

DEFAULT_BUILD = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "build", "normal")

# Holds the command until the host has touched $STATE/go; `ready` says the layout is done. The
# sim ends everything in the sandbox as soon as its command ends, while a headset goes on after the
# tool: so the gate, as the command, outlives the tool's own exit guard (a process running the
# tool's binary, $1), which gives nodes back after a SIGKILL. It waits at most five seconds.
GATE = r"""
tool=$1; shift
touch "$EMBERLINE_SIM_STATE/ready"
until [ -e "$EMBERLINE_SIM_STATE/go" ]; do sleep 0.01; done
"$@"; code=$?
tool_left() {
  for exe in /proc/[0-9]*/exe; do [ "$(readlink "$exe")" = "$tool" ] && return 0; done
  return 1
}
tries=0
while tool_left 2>/dev/null && [ $tries -lt 500 ]; do sleep 0.01; tries=$((tries + 1)); done
exit $code
"""

# Nodes the tool writes, and what each holds while nobody has touched it. The charging nodes
# start empty in the sim; empty means charging is on, which is what "0" says.
CHARGING_NODES = (
    "/sys/class/qcom-battery/input_suspend",
    "/sys/class/power_supply/battery/input_suspend",
    "/sys/class/power_supply/usb/input_suspend",
    "/sys/class/power_supply/wireless/input_suspend",
)


def state_dir(prefix):
    """A fresh state directory where the sim itself would make one: $TMPDIR if set, else the
    memory of /dev/shm where it is writable (a headset lays out there many times faster), else
    /tmp."""
    base = os.environ.get("TMPDIR") or None
    if base is None and os.path.isdir("/dev/shm") and os.access("/dev/shm", os.W_OK | os.X_OK):
        base = "/dev/shm"
    return tempfile.mkdtemp(prefix=prefix, dir=base)


class SimRun:
    """One `emberline-sim run` with the tool behind the gate, its streams collected."""

    def __init__(self, build, state, profile, tool_args, seed=1, frozen=False, wrapper=(),
                 discard_out=False):
        self.build = os.path.abspath(build)
        self.binary = os.path.join(self.build, "emberline")
        self.state = state
        sim = os.path.join(self.build, "sim", "emberline-sim")
        cmd = [sim, "run", "--profile", profile, "--seed", str(seed), "--state", state]
        if frozen:
            cmd.append("--frozen")
        cmd += ["--", "sh", "-c", GATE, "sh", self.binary, *wrapper, self.binary, *tool_args]
        self.out = bytearray()
        self.err = bytearray()
        self.out_lines = 0
        self.close_out_after = 0  # lines; then stop reading, as `| head -N` would
        self.out_paused = threading.Event()  # while set, the tool's reports are left unread
        out = subprocess.DEVNULL if discard_out else subprocess.PIPE
        self.proc = subprocess.Popen(cmd, stdin=subprocess.DEVNULL, stdout=out,
                                     stderr=subprocess.PIPE, start_new_session=True)
        self._readers = [threading.Thread(target=self._read_err, daemon=True)]
        if not discard_out:
            self._readers.append(threading.Thread(target=self._read_out, daemon=True))
        for r in self._readers:
            r.start()

    def _read_out(self):
        fd = self.proc.stdout.fileno()
        while True:
            if self.out_paused.is_set():
                time.sleep(0.01)
                continue
            chunk = os.read(fd, 65536)
            if not chunk:
                break
            self.out += chunk
            self.out_lines += chunk.count(b"\n")
            if self.close_out_after and self.out_lines >= self.close_out_after:
                break
        self.proc.stdout.close()

    def _read_err(self):
        fd = self.proc.stderr.fileno()
        while chunk := os.read(fd, 65536):
            self.err += chunk

    def host_path(self, device_path):
        return self.state + device_path

    def wait_ready(self, timeout):
        return wait_for(lambda: os.path.exists(self.host_path("/ready")), timeout)

    def release(self):
        open(self.host_path("/go"), "w").close()

    def tool_pid(self):
        """The tool's pid as the host sees it, or None. Its exit guard is a child of its own,
        until the tool ends."""
        pids = {}
        for entry in os.listdir("/proc"):
            if not entry.isdigit():
                continue
            try:
                if os.readlink(f"/proc/{entry}/exe") != self.binary:
                    continue
                with open(f"/proc/{entry}/stat") as f:
                    pids[int(entry)] = int(f.read().rsplit(")", 1)[1].split()[1])
            except OSError:
                continue
        for pid, parent in pids.items():
            if parent not in pids and self._descends_from_sim(pid):
                return pid
        return None

    def _descends_from_sim(self, pid):
        while pid > 1:
            if pid == self.proc.pid:
                return True
            try:
                with open(f"/proc/{pid}/stat") as f:
                    pid = int(f.read().rsplit(")", 1)[1].split()[1])
            except OSError:
                return False
        return False

    def wait(self, timeout):
        """The exit status (the sim's: 128 + signal for a signalled tool), or None on timeout."""
        try:
            code = self.proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            return None
        for r in self._readers:
            r.join(timeout=5)
        return code

    def kill(self):
        try:
            os.killpg(self.proc.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.proc.wait()


def wait_for(predicate, timeout, step=0.005):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if predicate():
            return True
        time.sleep(step)
    return predicate()


def catches(pid, sig):
    """Whether the process has a handler installed for `sig`."""
    try:
        with open(f"/proc/{pid}/status") as f:
            for line in f:
                if line.startswith("SigCgt:"):
                    return bool(int(line.split()[1], 16) >> (sig - 1) & 1)
    except OSError:
        pass
    return False


def recorded_writes(state):
    """[(path, offset, bytes)] from writes.log, in the order the sim saw them."""
    writes = []
    try:
        with open(os.path.join(state, "writes.log")) as f:
            for line in f:
                fields = line.split()
                if len(fields) == 4:
                    writes.append((fields[1], int(fields[2]), bytes.fromhex(fields[3])))
    except FileNotFoundError:
        pass
    return writes


def nodes_not_given_back(state, initial):
    """Written nodes whose last write differs from what they held before the run.

    `initial` maps a recorded node's path to its content then; a latched node's write lands at
    offset 0 and is compared without line ends, as the driver reads a number.
    """
    last = {}
    for path, _, data in recorded_writes(state):
        last[path] = data
    wrong = []
    for path, data in last.items():
        want = initial.get(path, b"0").strip() or b"0"
        if data.strip(b"\0").strip() != want:
            wrong.append(f"{path} left at {data!r}, found at {want!r}")
    return wrong
