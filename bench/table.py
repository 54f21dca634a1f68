#!/usr/bin/env python3
"""Makes the tables of bench/README.md from the results of one run: table.py FOLDER.

Figures are medians of interleaved repetitions, given beside a peer or the bare limit of the same run. Only ratios, and
differences within one run, say something about the code."""

import json
import os
import re
import statistics
import sys

folder = sys.argv[1]


def load(name):
    """Medians of one benchmark program by run name: nanoseconds of real time, and the user counters."""
    path = os.path.join(folder, name + ".json")
    if not os.path.exists(path):
        return {}
    scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
    figures = {}
    with open(path) as file:
        for run in json.load(file)["benchmarks"]:
            if run.get("aggregate_name") != "median":
                continue
            name = re.sub(r"/(real_time|manual_time|iterations:\d+)", "", run["run_name"])
            counters = {k: v for k, v in run.items() if k in ("allocations", "bytes_copied", "lines_per_second", "end_ns")}
            figures[name] = (run["real_time"] * scale[run["time_unit"]], counters)
    return figures


def text(ns):
    for unit, size in (("ms", 1e6), ("us", 1e3)):
        if ns >= size:
            return f"{ns / size:.3g} {unit}"
    return f"{ns:.3g} ns"


def table(head, rows):
    print("| " + " | ".join(head) + " |")
    print("|" + "---|" * len(head))
    for row in rows:
        print("| " + " | ".join(row) + " |")
    print()


def compare(figures, ours, peer):
    """The row end for ours beside peer: both figures and the ratio ours to peer."""
    if ours not in figures or peer not in figures:
        return None
    a, b = figures[ours][0], figures[peer][0]
    return [text(a), text(b), f"{a / b:.2f}"]


def runtime():
    figures = load("RuntimeBench")
    wanted = [
        ("event: Set and Wait(0)", "EventSetWait0/KxEvent", "EventSetWait0/WinPR", "WinPR", "0.25"),
        ("event: Set and Wait(0)", "EventSetWait0/KxEvent", "EventSetWait0/CondVar", "mutex + condition variable", ""),
        ("event: any of 8, one ready", "EventWaitAnyOf8Ready/KxEvent", "EventWaitAnyOf8Ready/WinPR", "WinPR", "0.25"),
        ("event: ping-pong, one CPU", "EventPingPongOneCpu/KxEvent", "EventPingPongOneCpu/WinPR", "WinPR", "1"),
        ("event: ping-pong, one CPU", "EventPingPongOneCpu/KxEvent", "EventPingPongOneCpu/CondVar",
         "mutex + condition variable", "1.25"),
        ("event: ping-pong, two CPUs", "EventPingPong/KxEvent", "EventPingPong/WinPR", "WinPR", "1"),
        ("event: ping-pong, two CPUs", "EventPingPong/KxEvent", "EventPingPong/CondVar",
         "mutex + condition variable", "1.25"),
        ("event: ping-pong over any of 8, one CPU", "EventWaitAnyOf8OneCpu/KxEvent", "EventWaitAnyOf8OneCpu/WinPR",
         "WinPR", "1"),
        ("event: ping-pong over any of 8, two CPUs", "EventWaitAnyOf8/KxEvent", "EventWaitAnyOf8/WinPR", "WinPR", "1"),
        ("mutex: acquire and release", "MutexUncontended/KxMutex", "MutexUncontended/RecursiveTimedMutex",
         "std::recursive_timed_mutex", "1.5"),
        ("mutex: the same, nested", "MutexNested/KxMutex", "MutexNested/RecursiveTimedMutex",
         "std::recursive_timed_mutex", "1.5"),
        ("pointer: copy and drop", "PointerCopyDrop/RCPtr", "PointerCopyDrop/SharedPtr", "std::shared_ptr", "2"),
        ("object without counting: AddRef, Release", "UncountedAddRefRelease/RefCountOff",
         "UncountedAddRefRelease/Branch", "a branch", ""),
    ]
    rows = []
    for what, ours, peer, name, limit in wanted:
        figure = compare(figures, ours, peer)
        if figure:
            rows.append([what, figure[0], name, figure[1], figure[2], limit])
    if rows:
        print("## Runtime\n")
        table(["what", "here", "beside", "there", "ratio", "at most"], rows)
    if "CacheLineRoundTrip" in figures:
        print(f"Two-thread figures of this run go with a cache-line round trip of {text(figures['CacheLineRoundTrip'][0])}"
              " between the two CPUs.\n")


def poll():
    figures = load("PollBench")
    rows = []
    for what, name, limit in (("lateness of a 5 ms time-out", "PollLateness", "1"),
                              ("wake-up from another thread", "PollWakeUp", "1.2")):
        figure = compare(figures, name + "/KxPollThread", name + "/libuv")
        if figure:
            rows.append([what] + figure + [limit])
    if not rows:
        return
    print("## Poll thread\n")
    table(["what", "here", "libuv", "ratio", "at most"], rows)
    turns = {count: figures[f"PollTurn/{count}"][0] for count in (4, 16, 64)}
    slope = (turns[64] - turns[4]) / 60
    print("A turn that runs one item of " + ", ".join(f"{count}: {text(ns)}" for count, ns in turns.items())
          + f"; {slope:.0f} ns for each item more.\n")


def log_lines():
    figures = load("LogBench")
    if "DisabledLine/LOG" not in figures:
        return
    print("## Log lines\n\nA line of about 120 characters to a buffered file: what it costs its callers, and all lines up "
          "to the final flush, each\nfor one line; beside other loggers with the same pattern, and a bare `snprintf` and "
          "`fwrite` under a mutex.\n")
    rows = []
    for threads in (1, 4):
        ours = figures[f"EnabledLine/Ours/{threads}"]
        for name in ("SpdlogSync", "SpdlogAsync", "Glog", "Bare"):
            peer = figures[f"EnabledLine/{name}/{threads}"]
            rows.append([str(threads), text(ours[0]), name, text(peer[0]), f"{ours[0] / peer[0]:.2f}",
                         text(ours[1]["end_ns"]), text(peer[1]["end_ns"]),
                         f"{ours[1]['end_ns'] / peer[1]['end_ns']:.2f}"])
    table(["threads", "caller", "beside", "its caller", "ratio", "end to end", "its end to end", "ratio"], rows)
    disabled = max(figures["DisabledLine/LOG"][0] - figures["DisabledLine/EmptyLoop"][0], 0)
    allocations = figures["EnabledLineAllocations"][1].get("allocations", 0)
    print(f"A disabled line costs {disabled:.2f} ns over an empty loop (at most 0.35) and evaluates nothing. Heap "
          f"allocations for an enabled\nline once the pool is warm: {allocations:.3f}.\n")


def pool_memory():
    path = os.path.join(folder, "pool.jsonl")
    if not os.path.exists(path):
        return
    with open(path) as file:
        moments = [json.loads(line) for line in file]
    print("## Pool memory over time\n\nThe pool of log messages after a burst, on a clock that is moved on by the "
          "minute: a block that has been idle for ten\nminutes goes, one a minute, and the last one stays. The heap is "
          "that of the whole program.\n")
    table(["minutes since the burst", "messages out", "blocks", "pool", "heap in use"],
          [[f"{each['minute']:,}", f"{each['out']:,}", f"{each['blocks']:,}", f"{each['pool_bytes'] / 1024:,.0f} KiB",
            f"{each['heap_bytes'] / 1024:,.0f} KiB"] for each in moments])


def fast_post():
    figures = load("FastPostBench")
    rows = []
    for size in (64, 4096, 65536):
        names = [f"{kind}/{size}" for kind in ("BM_FastPost", "BM_CallsByHand", "BM_BulkPacketEncoder")]
        if any(name not in figures for name in names):
            continue
        post, hand, encoder = (figures[name] for name in names)
        rows.append([f"{size} B", text(post[0]), f"{post[1].get('allocations', 0):.3g}", text(hand[0]),
                     f"{post[0] - hand[0]:.0f} ns", text(encoder[0]), f"{encoder[1].get('allocations', 0):.3g}",
                     f"{post[0] / encoder[0]:.2f}"])
    if rows:
        print("## A fast post\n\nThrough the loaded plug-in into a service that does next to nothing, beside the same "
              "table calls made by hand (at most\n150 ns more), and beside `usbredirparser` encoding a bulk packet of "
              "that size into memory.\n")
        table(["payload", "plug-in", "allocations", "by hand", "over it", "encoder", "its allocations",
               "ratio to encoder"], rows)
        first, last = figures["BM_FastPost/64"][0], figures["BM_FastPost/65536"][0]
        print(f"64 KiB beside 64 B: {last / first:.2f} (at most 1.10; no byte of the payload is copied).\n")


def end_to_end():
    path = os.path.join(folder, "end-to-end.jsonl")
    if not os.path.exists(path):
        return
    runs = {}
    with open(path) as file:
        for line in file:
            run = json.loads(line)
            result = run["result"]
            count = result["messages_per_second"]
            volume = result.get("bytes_per_second")
            if volume is None:
                volume = (result["sent"]["bytes"] + result["returned"]["bytes"]) / result["seconds"]
            runs.setdefault((run["transport"], run["program"]), []).append((count, volume))
    rows = []
    for transport in ("unix", "tcp"):
        medians = {}
        for program in ("usb-replay", "bare-push"):
            values = runs.get((transport, program))
            if values:
                medians[program] = [statistics.median(column) for column in zip(*values)]
        if len(medians) == 2:
            ours, bare = medians["usb-replay"], medians["bare-push"]
            rows.append([transport, f"{ours[0]:,.0f}", f"{bare[0]:,.0f}", f"{ours[0] / bare[0]:.2f}",
                         f"{ours[1] / 1e6:,.0f}", f"{bare[1] / 1e6:,.0f}"])
    if rows:
        print("## End to end\n\nThe shipped capture in a loop, to the agent process and back, every byte checked; "
              "beside a bare program that pushes the\nsame records over the same kind of socket and back.\n")
        table(["transport", "messages/s", "bare", "ratio", "MB/s", "bare MB/s"], rows)


def servers():
    path = os.path.join(folder, "server-load.jsonl")
    runs = {}
    if os.path.exists(path):
        with open(path) as file:
            for line in file:
                run = json.loads(line)
                runs.setdefault(run["clients"], []).append(run)
    if runs:
        print("## Many clients\n\n`usb-agent` with clients that have one request under way each: up to 16 processes, beyond "
              "that connections of one process.\n")
        medians = {n: {key: statistics.median(run[key] for run in of_n) for key in of_n[0]} for n, of_n in runs.items()}
        one = medians[min(medians)]
        rows = []
        for clients, run in sorted(medians.items()):
            more = clients - one["clients"]
            rows.append([str(clients), f"{run['messages_per_second']:,.0f}",
                         f"{run['messages_per_second'] / one['messages_per_second']:.1f}", text(run["p50_ns"]),
                         text(run["p99_ns"]),
                         f"{(run['rss_kib'] - one['rss_kib']) / more:.0f} KiB" if more else "",
                         f"{(run['threads'] - one['threads']) / more:.2f}" if more else ""])
        table(["clients", "messages/s", "beside one client", "median round trip", "p99", "memory for each more",
               "threads for each more"], rows)
    figures = load("ServerBench")
    rows = []
    for what, ours, peer, name, share in (
            ("round trip of a message channel", "RoundTrip/MessageChannel/1000", "RoundTrip/Request/1000", "a request", 1000),
            ("64 MiB of stream data", "Stream/StreamData", "Stream/SocketPair", "a bare socket pair", 1)):
        if ours in figures and peer in figures:
            a, b = figures[ours][0] / share, figures[peer][0] / share
            rows.append([what, text(a), name, text(b), f"{a / b:.2f}"])
    if rows:
        print("## Other ways to the peer\n")
        table(["what", "here", "beside", "there", "ratio"], rows)


def load_time():
    figures = load("LoadBench")
    stripped = os.path.join(folder, "stripped.so")
    if "BM_LoadInitUnload" not in figures or not os.path.exists(stripped):
        return
    print("## What a session pays once\n")
    table(["what", "figure", "at most"], [
        ["load, initialise, bring to ready and take down", text(figures["BM_LoadInitUnload"][0]), "10 ms"],
        ["stripped plug-in", f"{os.path.getsize(stripped) / 1024:.0f} KiB", "1024 KiB"],
    ])


print("""# Benchmarks

Made by `scripts/bench`; medians of interleaved repetitions of one run. Absolute times are those of one machine in one
state: what counts are the ratios to the peer beside them.
""")
runtime()
poll()
log_lines()
pool_memory()
fast_post()
end_to_end()
servers()
load_time()
