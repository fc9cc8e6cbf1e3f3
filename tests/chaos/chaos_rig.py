# SPDX-License-Identifier: MIT
"""One run of the chaos line: the scenario of a seed, the line process, the host tool with
--format json --trace, its output read line by line with the time each line came, its peak
memory sampled, and the stations' history when it is over.

The tool's standard error goes into the same pipe as its standard output, so that its trace
(every frame sent) and its value tables keep the order the tool wrote them in.
"""
import json
import os
import resource
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

from scenario import make_scenario, variable_text, write_text

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "e2e"))
from test_e2e import die_with_parent, stop_process  # noqa: E402

PYTHON = "/usr/bin/python3"
LINE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "chaos_line.py")
LINE_SETTINGS = ["--data-bits", "8", "--parity", "none"]
READY_TIMEOUT_S = 10
STOP_TIMEOUT_S = 5
# A run that has not ended this long after its --duration is called hung and killed.
HUNG_AFTER_S = 20
MEMORY_SAMPLE_S = 0.2
ADDRESS_SPACE_LIMIT = 1 << 30


def start_host_child():
    """The tool dies with the runner, and cannot take the machine's memory: an allocation
    past ADDRESS_SPACE_LIMIT fails (the run then ends with an abort, which the checks report)."""
    die_with_parent()
    resource.setrlimit(resource.RLIMIT_AS, (ADDRESS_SPACE_LIMIT, ADDRESS_SPACE_LIMIT))


def variable_arguments(scenario):
    """The polled variables and how the driver merges them into read requests."""
    tool, multi = scenario["tool"], scenario["multiStation"]
    arguments = ["--max-frame-words", str(tool["maxFrameWords"])]
    arguments += ["--multi-station"] if multi else ["--station", str(tool["station"])]
    for tag in scenario["tags"]:
        arguments += ["--tag", variable_text(tag, multi)]
    return arguments


def host_arguments(scenario, port):
    tool, multi = scenario["tool"], scenario["multiStation"]
    arguments = ["--format", "json", "--trace", "--port", port, *LINE_SETTINGS,
                 *variable_arguments(scenario), "--timeout-ms", str(tool["timeoutMs"]),
                 "--char-timeout-ms", str(tool["charTimeoutMs"]),
                 "--quiet-ms", str(tool["quietMs"]), "--retries", str(tool["retries"]),
                 "--echo", tool["echo"], "--reopen-ms", str(tool["reopenMs"]),
                 "--duration", str(tool["durationS"])]
    if multi:
        arguments += ["--demote-after", str(tool["demoteAfter"]),
                      "--demote-ms", str(tool["demoteMs"])]
    if tool["onceTable"]:
        arguments.append("--once-table")
    for once in scenario["once"]:
        arguments += ["--once", variable_text(once, multi)]
    for write in scenario["writes"]:
        arguments += ["--write", write_text(write, multi)]
    return arguments


class PeakMemory(threading.Thread):
    """Samples VmHWM (the peak resident set) of a process until it ends."""

    def __init__(self, pid):
        super().__init__(daemon=True)
        self.path = f"/proc/{pid}/status"
        self.peak_kb = 0
        self.done = threading.Event()

    def run(self):
        while not self.done.wait(MEMORY_SAMPLE_S):
            self.sample()

    def sample(self):
        try:
            with open(self.path, encoding="utf-8") as stream:
                for line in stream:
                    if line.startswith("VmHWM:"):
                        self.peak_kb = max(self.peak_kb, int(line.split()[1]))
        except (OSError, ValueError):
            pass


class OutputReader(threading.Thread):
    """Reads the tool's merged output; each line with the monotonic time it was read."""

    def __init__(self, stream):
        super().__init__(daemon=True)
        self.stream = stream
        self.lines = []

    def run(self):
        for line in self.stream:
            self.lines.append((time.monotonic(), line.rstrip("\n")))


class RunResult:
    """What one run left: the scenario, the tool's timed output, its status and peak memory,
    when it started, was signalled and ended, and the line's history."""

    def __init__(self, scenario, directory):
        self.scenario = scenario
        self.directory = directory
        self.lines = []
        self.status = None
        self.hung = False
        self.started = self.ended = self.signalled = None
        self.peak_kb = 0
        self.history = None
        self.plan = []
        self.command = []

    def keep(self, parent):
        """Copies the run's directory to parent/seed-N."""
        shutil.copytree(self.directory, os.path.join(parent, f"seed-{self.scenario['seed']}"),
                        symlinks=True, dirs_exist_ok=True)

    def discard(self):
        shutil.rmtree(self.directory, ignore_errors=True)


def run_seed(seed, host, link="serial"):
    """Runs a seed over a pseudo-terminal (link "serial") or a loopback TCP connection, as to a
    device server ("tcp"); the result's directory (scenario, history, output) stays until
    discard()."""
    scenario = make_scenario(seed)
    scenario["link"] = link
    result = RunResult(scenario, tempfile.mkdtemp(prefix=f"modbus-chaos-{seed}-"))
    try:
        run_in(result.directory, scenario, host, result)
    except BaseException:
        result.discard()
        raise
    return result


def read_plan(host, scenario):
    """The driver's read requests for the scenario's polled variables (--plan)."""
    completed = subprocess.run([host, "--format", "json", "--plan",
                                *variable_arguments(scenario)], capture_output=True, text=True,
                               timeout=HUNG_AFTER_S, check=True, preexec_fn=start_host_child)
    return json.loads(completed.stdout)["plan"]


def run_in(directory, scenario, host, result):
    """The line started, the tool run against it, the line stopped and its history read."""
    result.plan = read_plan(host, scenario)
    scenario_path = os.path.join(directory, "scenario.json")
    history_path = os.path.join(directory, "history.json")
    port = os.path.join(directory, "master")
    with open(scenario_path, "w", encoding="utf-8") as stream:
        json.dump(scenario, stream)
    tcp = scenario["link"] == "tcp"
    place = ["--tcp"] if tcp else ["--host-link", port]
    line = subprocess.Popen([PYTHON, LINE, "--scenario", scenario_path, *place,
                             "--history", history_path], stdout=subprocess.PIPE, text=True,
                            preexec_fn=die_with_parent)
    try:
        ready, _, _ = select.select([line.stdout], [], [], READY_TIMEOUT_S)
        said = line.stdout.readline().split() if ready else []
        if not said or said[0] != "ready":
            raise RuntimeError("the chaos line did not start")
        if tcp:
            # A loopback connection adds no delay of its own: the waits stay the serial ones.
            port = f"tcp://127.0.0.1:{said[1]}"
        result.command = [host, *host_arguments(scenario, port)]
        if tcp:
            result.command += ["--link-latency-ms", "0"]
        run_host(result, scenario)
    finally:
        stop_process(line)
        line.stdout.close()
    with open(history_path, encoding="utf-8") as stream:
        result.history = json.load(stream)
    with open(os.path.join(directory, "output.txt"), "w", encoding="utf-8") as stream:
        stream.writelines(f"{when:.6f} {text}\n" for when, text in result.lines)


def run_host(result, scenario):
    """Runs the tool to its end (its --duration, a SIGTERM, or killed when hung), reading its
    output and sampling its memory meanwhile."""
    tool = scenario["tool"]
    result.started = time.monotonic()
    host = subprocess.Popen(result.command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            text=True, preexec_fn=start_host_child)
    memory = PeakMemory(host.pid)
    reader = OutputReader(host.stdout)
    memory.start()
    reader.start()
    try:
        if tool["sigtermAfterS"] is not None:
            wait_or_signal(host, result, tool["sigtermAfterS"])
        try:
            result.status = host.wait(tool["durationS"] + HUNG_AFTER_S)
        except subprocess.TimeoutExpired:
            result.hung = True
            host.kill()
            result.status = host.wait()
        result.ended = time.monotonic()
    finally:
        memory.done.set()
        reader.join(STOP_TIMEOUT_S)
        host.stdout.close()
    result.peak_kb = memory.peak_kb
    result.lines = reader.lines


def wait_or_signal(host, result, after_s):
    """SIGTERM after after_s unless the tool has ended by then; waits a while for its end."""
    try:
        host.wait(after_s)
    except subprocess.TimeoutExpired:
        host.send_signal(signal.SIGTERM)
        result.signalled = time.monotonic()
        try:
            host.wait(STOP_TIMEOUT_S)
        except subprocess.TimeoutExpired:
            pass
