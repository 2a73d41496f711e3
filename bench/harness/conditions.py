"""Timing one command under the shared CPU lock, with the machine's load beside it."""

import contextlib
import fcntl
import os
import resource
import subprocess
import time

TICK = os.sysconf("SC_CLK_TCK")


def busy_seconds():
    """CPU seconds the whole machine has spent outside idle and I/O wait since boot."""
    fields = [int(v) for v in open("/proc/stat").readline().split()[1:]]
    user, nice, system, idle, iowait, irq, softirq, steal = fields[:8]
    return (user + nice + system + irq + softirq + steal) / TICK


def own_seconds():
    """CPU seconds of this process and of the children it has waited for."""
    return sum(u.ru_utime + u.ru_stime for u in (resource.getrusage(resource.RUSAGE_SELF),
                                                  resource.getrusage(resource.RUSAGE_CHILDREN)))


def load_average():
    return float(open("/proc/loadavg").read().split()[0])


class Measurement:
    """Wall seconds of one command and what else ran meanwhile."""

    def __init__(self, seconds, load, other_cpu, flushed=None, failed=False):
        self.seconds = seconds
        self.load = load            # 1-minute load average just before the command
        self.other_cpu = other_cpu  # CPU seconds of other processes during it (to 10 ms)
        self.flushed = flushed      # seconds including a `sync` after it, for peers that flush nothing
        self.failed = failed


class CpuLock:
    """The lock every build, test run and timed measurement on this machine takes: hold it only
    while measuring, so that others' builds never run beside a timed command and never wait for
    one that is idle. Held again from inside, it stays held until the outermost hold ends."""

    def __init__(self, path):
        self.path = path
        self.depth = 0
        self.file = None
        self.waited = 0.0  # seconds spent waiting for others to let go

    @contextlib.contextmanager
    def held(self):
        if not self.path:
            yield
            return
        if self.depth == 0:
            self.file = open(self.path, "a")
            start = time.monotonic()
            fcntl.flock(self.file, fcntl.LOCK_EX)
            self.waited += time.monotonic() - start
        self.depth += 1
        try:
            yield
        finally:
            self.depth -= 1
            if self.depth == 0:
                self.file.close()
                self.file = None


def drop_caches():
    os.sync()
    with open("/proc/sys/vm/drop_caches", "w") as f:
        f.write("3\n")


def timed(cmd, env, cold=False, then_sync=False, completed=(0,)):
    """Runs cmd once: the flush before it and the cache drop are not timed; then_sync also times
    a `sync` right after it, for tools that leave their writes in the page cache. An exit status
    outside completed counts the run as failed."""
    os.sync()
    if cold:
        drop_caches()
    load = load_average()
    busy, own = busy_seconds(), own_seconds()
    start = time.monotonic()
    result = subprocess.run(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, env=env)
    seconds = time.monotonic() - start
    flushed = None
    if then_sync:
        os.sync()
        flushed = time.monotonic() - start
    # The machine's counters tick every 10 ms: one run's figure may even be negative; sums are not.
    other = (busy_seconds() - busy) - (own_seconds() - own)
    failed = result.returncode not in completed
    if failed:
        print(f"  {cmd[0]} exited {result.returncode}: {result.stderr.decode(errors='replace')[-300:]}", flush=True)
    return Measurement(seconds, load, other, flushed, failed)
