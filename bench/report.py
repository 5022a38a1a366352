"""Runs the benchmarks in turn and writes what was seen: report.py FOLDER_OF_THE_PROGRAMS [--quick] [--output FILE]

Floor and engine alternate within each round, each measurement in a process of its own, and every number is the median over the
rounds: what disturbs the machine for a while then disturbs both.
"""
import argparse
import datetime
import json
import os
import platform
import shutil
import statistics
import subprocess
import sys
import tempfile

SOURCES = ["fanotify", "inotify"]
TARGET_STAND = 1.15  # times the one-thread floor
TARGET_BYTES = 130  # resident per folder
TARGET_CPU = 1.6  # times the floor's processor time per file
TARGET_REQUEST = 1.15  # times bare libcurl's time for a request
TARGET_JSON = 1.5  # times RapidJSON's own document
TARGET_BUS = 1.0  # times sd-bus's time for a message
TARGET_SOCKET = 2.0  # times a bare socketpair's
TARGET_BASE64 = 1.5  # times OpenSSL's own functions
JSON_TASKS = ("json: build a batch of 10,000", "json: read an answer of 10,000")
BASE64_TASKS = ("base64: encode 1 MiB", "base64: decode 1 MiB")
MESSAGES = {"oneWay": "a message one way", "roundTrip": "a round trip"}

FULL = {"trees": [(1000, 15), (10000, 11), (100000, 7)], "files": 200000, "bursts": 5, "latencies": 200, "latency_rounds": 3, "request_rounds": 15,
        "exchange_rounds": 9, "messages": 50000, "polled": [(1000, 10), (1000, 1000), (10000, 10), (10000, 1000), (100000, 10), (100000, 1000)]}
QUICK = {"trees": [(1000, 3)], "files": 5000, "bursts": 1, "latencies": 20, "latency_rounds": 1, "request_rounds": 3,
         "exchange_rounds": 3, "messages": 5000, "polled": [(1000, 10), (1000, 1000)]}
BURST_FOLDERS = 1000


def make_tree(root, folders):
    """Ten subfolders and one file in each folder, until there are enough."""
    os.mkdir(root)
    queue, made = [root], 1
    for folder in queue:
        open(os.path.join(folder, "file"), "w").close()
        for number in range(10):
            if made == folders:
                return
            queue.append(os.path.join(folder, str(number)))
            os.mkdir(queue[-1])
            made += 1


def make_flat(root):
    os.mkdir(root)
    for number in range(BURST_FOLDERS):
        os.mkdir(os.path.join(root, f"d{number}"))


def make_files(root, files, each):
    """So many files in folders of so many."""
    os.mkdir(root)
    for number in range(files):
        folder = os.path.join(root, str(number // each))
        if number % each == 0:
            os.mkdir(folder)
        open(os.path.join(folder, f"document-{number}"), "w").close()


class Bench:
    """Runs the programs; what one of them cannot do ends the run."""

    def __init__(self, programs, scratch, plan):
        self.programs, self.scratch, self.plan = programs, scratch, plan

    def run(self, who, source, *arguments):
        command = [os.path.join(self.programs, "bench_" + who), source, *map(str, arguments)]
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        if done.returncode != 0:
            sys.exit(f"{done.stderr}failed: bench_{who} {source} {arguments[0]} (exit code {done.returncode})")
        return json.loads(done.stdout.strip().splitlines()[-1])

    def alternate(self, source, rounds, measure):
        """What `measure(who, source)` gave, by floor and engine; who begins changes from round to round."""
        seen = {"floor": [], "engine": []}
        for number in range(rounds):
            for who in ("floor", "engine") if number % 2 == 0 else ("engine", "floor"):
                seen[who].append(measure(who, source))
        return seen

    def stand(self):
        rows = []
        for folders, rounds in self.plan["trees"]:
            tree = os.path.join(self.scratch, "tree")
            make_tree(tree, folders)
            self.run("floor", SOURCES[0], "stand", tree)  # warms the kernel's caches
            for source in SOURCES:
                seen = self.alternate(source, rounds, lambda who, kind: self.run(who, kind, "stand", tree))
                for results in seen.values():
                    if any(result["folders"] != folders for result in results):
                        sys.exit(f"{source}: not every folder of {folders} was watched: {results}")
                floor = statistics.median(result["seconds"] for result in seen["floor"])
                engine = statistics.median(result["seconds"] for result in seen["engine"])
                size = statistics.median(result["bytes"] for result in seen["engine"]) / folders
                rows.append({"source": source, "folders": folders, "floor": floor, "engine": engine, "bytes": size})
            shutil.rmtree(tree)
        return rows

    def burst(self):
        files = self.plan["files"]

        def measure(who, source):
            folder = os.path.join(self.scratch, "burst")
            make_flat(folder)
            result = self.run(who, source, "burst", folder, files, BURST_FOLDERS)
            shutil.rmtree(folder)
            return result

        rows = []
        for source in SOURCES:
            seen = self.alternate(source, self.plan["bursts"], measure)
            rows.append({
                "source": source,
                "floor": statistics.median(result["cpu"] for result in seen["floor"]) / files,
                "engine": statistics.median(result["cpu"] for result in seen["engine"]) / files,
                "overflows": sum(result["overflow"] for result in seen["floor"]),
                "notTold": sum(result["notTold"] for result in seen["engine"]),
                "rescans": sum(result["rescans"] for result in seen["engine"]),
            })
        return rows

    def latency(self):
        def measure(who, source):
            folder = os.path.join(self.scratch, "latency")
            os.mkdir(folder)
            result = self.run(who, source, "latency", folder, self.plan["latencies"])
            shutil.rmtree(folder)
            return result

        rows = []
        for source in SOURCES:
            seen = self.alternate(source, self.plan["latency_rounds"], measure)
            row = {"source": source}
            for who, results in seen.items():
                row[who] = [value for result in results for value in result["seconds"]]
            rows.append(row)
        return rows

    def polling(self):
        """What looking again and again costs where the kernel cannot watch."""
        rows = []
        for files, each in self.plan["polled"]:
            tree = os.path.join(self.scratch, "polled")
            make_files(tree, files, each)
            done = subprocess.run([os.path.join(self.programs, "bench_polling"), tree], stdout=subprocess.PIPE, text=True, check=True)
            rows.append({"files": files, "each": each, **json.loads(done.stdout)})
            shutil.rmtree(tree)
        return rows

    def requests(self):
        """Microseconds of one request, by libcurl, by libcurl with the same work, and through RestInterface; nothing where namespaces are refused."""
        command = [os.path.join(self.programs, "bench_rest"), str(self.plan["request_rounds"])]
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        return json.loads(done.stdout) if done.returncode == 0 else None

    def exchange(self):
        """Microseconds of one message and of one round trip, by the channel, sd-bus and a bare socketpair."""
        command = [os.path.join(self.programs, "bench_xpc"), str(self.plan["exchange_rounds"]), str(self.plan["messages"])]
        return json.loads(subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True).stdout)

    def micro(self):
        command = [os.path.join(self.programs, "bench_micro"), "--benchmark_format=json"]
        if self.plan is QUICK:
            command.append("--benchmark_min_time=0.01")
        # The preferences that it writes are not the user's.
        environment = dict(os.environ, XDG_CONFIG_HOME=self.scratch)
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=environment, text=True, check=True)
        scale = {"ns": 1e-3, "us": 1, "ms": 1e3}
        return [(row["name"], row["cpu_time"] * scale[row["time_unit"]]) for row in json.loads(done.stdout)["benchmarks"]]


def machine(scratch):
    """What the numbers depend on, and nothing that tells whose machine it is."""
    model = "unknown processor"
    with open("/proc/cpuinfo", encoding="utf-8") as lines:
        for line in lines:
            if line.startswith("model name"):
                model = line.split(":", 1)[1].strip()
                break
    kernel = ".".join(platform.release().split("-")[0].split(".")[:2])
    kind = subprocess.run(["findmnt", "-n", "-o", "FSTYPE", "-T", scratch], stdout=subprocess.PIPE, text=True).stdout.split()
    kind = kind[-1] if kind else "unknown"  # the mount on top, where several lie on one place
    who = "as root" if os.geteuid() == 0 else "as an ordinary user"
    return f"{model}, {len(os.sched_getaffinity(0))} processors, Linux {kernel}, {kind}, {who}"


def table(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows])


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(len(ordered) * share))]


def verdict(seen, target):
    return "met" if seen <= target else "MISSED"


def report(bench):
    stand, burst, latency, polling, requests, exchange, micro = (bench.stand(), bench.burst(), bench.latency(), bench.polling(), bench.requests(),
                                                                 bench.exchange(), bench.micro())
    largest = max(row["folders"] for row in stand)
    targets = []
    for source in SOURCES:
        row = next(row for row in stand if row["source"] == source and row["folders"] == largest)
        ratio = row["engine"] / row["floor"]
        targets.append([source, f"watching stands ({largest:,} folders)", f"{TARGET_STAND} x floor", f"{ratio:.2f} x", verdict(ratio, TARGET_STAND)])
        targets.append([source, "resident memory", f"{TARGET_BYTES} bytes a folder", f"{row['bytes']:.0f}", verdict(row["bytes"], TARGET_BYTES)])
        row = next(row for row in burst if row["source"] == source)
        ratio = row["engine"] / row["floor"]
        targets.append([source, "processor time in a burst", f"{TARGET_CPU} x floor", f"{ratio:.2f} x", verdict(ratio, TARGET_CPU)])
        targets.append([source, "files not told in a burst", "0", str(row["notTold"]), verdict(row["notTold"], 0)])
    if requests:
        ratio = requests["interface"] / requests["libcurl"]
        targets.append(["", "one request to the server", f"{TARGET_REQUEST} x libcurl", f"{ratio:.2f} x", verdict(ratio, TARGET_REQUEST)])
        ratio = requests["interface"] / requests["sameWork"]
        targets.append(["", "one request to the server", f"{TARGET_REQUEST} x libcurl with the same work", f"{ratio:.2f} x", verdict(ratio, TARGET_REQUEST)])
    for kind, what in MESSAGES.items():
        for other, name, target in (("sdbus", "sd-bus", TARGET_BUS), ("socket", "a bare socket", TARGET_SOCKET)):
            ratio = exchange["channel"][kind] / exchange[other][kind]
            targets.append(["", what, f"{target:g} x {name}", f"{ratio:.2f} x", verdict(ratio, target)])
    times = dict(micro)
    for task in BASE64_TASKS:
        ratio = times[task] / times[task + ", OpenSSL"]
        targets.append(["", task, f"{TARGET_BASE64} x OpenSSL", f"{ratio:.2f} x", verdict(ratio, TARGET_BASE64)])
    for task in JSON_TASKS:
        ratio = times[task] / times[task + ", RapidJSON's document"]
        targets.append(["", task, f"{TARGET_JSON} x RapidJSON", f"{ratio:.2f} x", verdict(ratio, TARGET_JSON)])
        ratio = times[task] / times[task + ", nlohmann"]
        targets.append(["", task, "below nlohmann", f"{ratio:.2f} x", verdict(ratio, 1)])
    plan = bench.plan
    return f"""# Benchmarks

Written by `script/bench` on {datetime.date.today().isoformat()}; do not edit. {machine(bench.scratch)}.

The floor is the least that any watcher must do: the bare system calls in a loop on one thread (`bench/Floor*.cpp`), without tables,
paths or an answer to races. The engine is `FSEventStream` through its public header. Both run in turn, each measurement in a process of
its own; numbers are medians. Times are of this one machine: compare the ratios.

## Targets

{table(["source", "what", "target", "seen", ""], targets)}

## Time and memory to watch a tree

Ten subfolders and one file in each folder, caches warm. {", ".join(f"{rounds} rounds of {folders:,}" for folders, rounds in plan["trees"])} folders.

{table(["source", "folders", "floor ms", "engine ms", "ratio", "engine bytes a folder"],
       [[row["source"], f"{row['folders']:,}", f"{row['floor'] * 1e3:.1f}", f"{row['engine'] * 1e3:.1f}",
         f"{row['engine'] / row['floor']:.2f}", f"{row['bytes']:.0f}"] for row in stand])}

Bytes a folder are the growth of the resident set while the watch is set up, so in small trees mostly what one stream costs.

## Processor time in a burst

Another process creates, writes and closes {plan["files"]:,} files over {BURST_FOLDERS:,} folders as fast as it can; {plan["bursts"]} rounds. The floor reads
the queue every 20 ms and only counts events. The engine tells every file (`FileEvents`, latency 1 s) to a callback that ticks it off.
Processor time is the watcher's own, user and system. Not told: files without an event of their own, over all rounds; rescans: events
with `MustScanSubDirs`, which follow when the kernel's queue overflowed.

{table(["source", "floor µs a file", "engine µs a file", "ratio", "not told", "rescans", "floor's overflows"],
       [[row["source"], f"{row['floor'] * 1e6:.2f}", f"{row['engine'] * 1e6:.2f}", f"{row['engine'] / row['floor']:.2f}",
         str(row["notTold"]), str(row["rescans"]), str(row["overflows"])] for row in burst])}

## Latency of one change

One file is created in a quiet folder. Floor: `epoll_wait` and `read`. Engine: the callback, with `NoDefer` and a latency of 1 ms.
{plan["latencies"] * plan["latency_rounds"]} changes each; microseconds from just before the change.

{table(["source", "floor median", "floor 99 %", "engine median", "engine 99 %", "ratio of medians"],
       [[row["source"], *(f"{call(row[who]) * 1e6:.0f}" for who in ("floor", "engine") for call in (statistics.median, lambda values: percentile(values, 0.99))),
         f"{statistics.median(row['engine']) / statistics.median(row['floor']):.2f}"] for row in latency])}

## Looking again and again

Where the kernel cannot watch, folders are polled (`PolledRegion`). One pass over files at rest, caches warm, next to a bare walk over the same
folders with one `statx` an item; processor time, medians of nine in turn in one process. Between two passes lies a hundred times what the
last one took, and at least a second.

{table(["files", "in folders of", "walk ms", "pass ms", "ratio", "interval s", "bytes an item"],
       [[f"{row['files']:,}", f"{row['each']:,}", f"{row['walk'] * 1e3:.2f}", f"{row['pass'] * 1e3:.2f}", f"{row['pass'] / row['walk']:.2f}",
         f"{row['interval']:.1f}", f"{row['bytes'] / row['items']:.0f}"] for row in polling])}

## A request to the server

One LogError after another on the loopback, each with a connection of its own: by libcurl's blocking call; by the same call with what else
every request of the product has to do (asking for the network, the lines in the log, waiting on a thread of its own while the main thread
serves its run loop, the end on the main queue); and through `RestInterface`.

{table(["libcurl µs", "with the same work µs", "RestInterface µs"], [[f"{requests[who]:.0f}" for who in ("libcurl", "sameWork", "interface")]]) if requests else "Not measured: no network namespace here."}

## A message over the channel

A dictionary of four entries between two processes on one machine: {plan["messages"]:,} one way, until the last has been taken, and a fifth as many
that are each answered before the next is sent; {plan["exchange_rounds"]} rounds. By the channel (`Connection` and `Listener`, whose handlers run on queues),
by sd-bus on a private connection, and over a bare socketpair with the channel's encoding, one thread at each end.

{table(["what", "channel µs", "sd-bus µs", "socketpair µs", "channel : sd-bus", "channel : socketpair"],
       [[what, *(f"{exchange[who][kind]:.2f}" for who in ("channel", "sdbus", "socket")),
         *(f"{exchange['channel'][kind] / exchange[who][kind]:.2f}" for who in ("sdbus", "socket"))] for kind, what in MESSAGES.items()])}

## Small parts

Google Benchmark (`bench_micro`), processor time.

{table(["what", "µs"], [[name, f"{time:.3f}"] for name, time in micro])}
"""


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("programs")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--output")
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="kestrine-bench-") as scratch:
        text = report(Bench(arguments.programs, scratch, QUICK if arguments.quick else FULL))
    output = arguments.output or (None if arguments.quick else "docs/benchmarks.md")
    if output is None:
        print(text)
        return
    with open(output, "w", encoding="utf-8") as file:
        file.write(text)
    print(f"wrote {output}")


if __name__ == "__main__":
    main()
