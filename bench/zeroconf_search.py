#!/usr/bin/python3
"""The search timings of bench/search_time, made with python3-zeroconf
(ServiceBrowser, then get_service_info for every instance), for
scripts/bench.sh; run it only inside a network namespace of a virtual LAN.

  zeroconf_search.py TYPE EXPECTED RUNS   "run N: ALL ms first FIRST ms found F" per run
  zeroconf_search.py TYPE hold SECONDS    "found EVER end AT_END lost GONE"
"""
import sys
import threading
import time

from zeroconf import IPVersion, ServiceBrowser, ServiceStateChange, Zeroconf


def search(full_type, expected, limit, report=False):
    zc = Zeroconf(ip_version=IPVersion.All)
    listed, ever, gone = set(), set(), set()
    lock, done, closing = threading.Lock(), threading.Event(), threading.Event()
    start = time.monotonic()
    first = [-1.0]

    # Retried until it succeeds, as our resolves keep running until Stop.
    def resolve(name):
        while not closing.is_set():
            info = zc.get_service_info(full_type, name, timeout=3000)
            if info is not None and info.addresses:
                with lock:
                    if first[0] < 0:
                        first[0] = (time.monotonic() - start) * 1000
                    listed.add(name)
                    ever.add(name)
                    if expected and len(listed) >= expected:
                        done.set()
                return

    def on_change(zeroconf, service_type, name, state_change):
        if state_change is ServiceStateChange.Added:
            threading.Thread(target=resolve, args=(name,), daemon=True).start()
        elif state_change is ServiceStateChange.Removed:
            with lock:
                if name in listed:
                    listed.discard(name)
                    gone.add(name)

    browser = ServiceBrowser(zc, full_type, handlers=[on_change])
    if report:
        print("started", flush=True)
    ok = done.wait(limit) if expected else not time.sleep(limit)
    elapsed = (time.monotonic() - start) * 1000
    closing.set()
    browser.cancel()
    zc.close()
    with lock:
        return (elapsed if ok else -1), first[0], len(ever), len(listed), len(gone)


def main():
    full_type = sys.argv[1] + ".local."
    if sys.argv[2] == "hold":
        _, _, ever, end, gone = search(full_type, 0, int(sys.argv[3]), report=True)
        print("found %d end %d lost %d" % (ever, end, gone))
        return 0
    expected, runs = int(sys.argv[2]), int(sys.argv[3])
    for run in range(runs):
        ms, first, ever, _, _ = search(full_type, expected, 60)
        print("run %d: %.1f ms first %.1f ms found %d" % (run + 1, ms, first, ever), flush=True)
        time.sleep(2)
    return 0


if __name__ == "__main__":
    sys.exit(main())
