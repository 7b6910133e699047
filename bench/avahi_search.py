#!/usr/bin/python3
"""The search timings of bench/search_time, made with avahi's own client:
`avahi-browse -rp TYPE` (browse and resolve every instance) through the
avahi-daemon of this host, for scripts/bench.sh.  Run it beside a daemon
started with --dbus: `scripts/vlan.sh exec-avahi RUN HOST avahi_search.py ...`.
An instance counts as listed once avahi-browse has resolved it ("=" line).

  avahi_search.py TYPE EXPECTED RUN       one run: "run RUN: ALL ms first FIRST ms found F"
  avahi_search.py TYPE hold SECONDS       "found EVER end AT_END lost GONE"
"""
import select
import subprocess
import sys
import time


def search(service_type, expected, limit, report=False):
    start = time.monotonic()
    browse = subprocess.Popen(["stdbuf", "-oL", "avahi-browse", "-rp", service_type],
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, bufsize=1)
    if report:
        print("started", flush=True)
    present, resolved, gone = {}, set(), set()  # present: name -> set of (interface, protocol)
    first, all_ms = -1.0, -1.0
    deadline = start + limit
    while time.monotonic() < deadline:
        ready, _, _ = select.select([browse.stdout], [], [], max(0.0, deadline - time.monotonic()))
        if not ready:
            continue
        line = browse.stdout.readline()
        if not line:
            break
        fields = line.rstrip("\n").split(";")
        if len(fields) < 4:
            continue
        event, where, name = fields[0], (fields[1], fields[2]), fields[3]
        if event in "+=":
            present.setdefault(name, set()).add(where)
        if event == "=" and name not in resolved:
            resolved.add(name)
            now = (time.monotonic() - start) * 1000
            if first < 0:
                first = now
            if expected and len(resolved) >= expected:
                all_ms = now
                break
        elif event == "-":
            present.get(name, set()).discard(where)
            if name in resolved and not present[name]:
                gone.add(name)
    browse.kill()
    browse.wait()
    listed = sum(1 for name in resolved if present.get(name))
    return all_ms, first, len(resolved), listed, len(gone)


def main():
    if sys.argv[2] == "hold":
        _, _, ever, end, gone = search(sys.argv[1], 0, int(sys.argv[3]), report=True)
        print("found %d end %d lost %d" % (ever, end, gone))
        return 0
    ms, first, ever, _, _ = search(sys.argv[1], int(sys.argv[2]), 60)
    print("run %s: %.1f ms first %.1f ms found %d" % (sys.argv[3], ms, first, ever), flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
