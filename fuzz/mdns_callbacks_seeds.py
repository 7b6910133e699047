#!/usr/bin/env python3
"""Writes the seed programs of fuzz_mdns_callbacks into seeds/mdns_callbacks/.

The byte format is described at the top of fuzz_mdns_callbacks.cpp; the helpers
below spell its operations out, so that a seed reads as the story it tells.
Run it again after changing the format: python3 fuzz/mdns_callbacks_seeds.py
"""
import os

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "seeds", "mdns_callbacks")

# Config: bit 0 a second interface, bits 1-2 the cache size (16, 64, 256, 600).
ONE_IFACE_CACHE_600 = 0x06
TWO_IFACES_CACHE_64 = 0x03
ONE_IFACE_CACHE_16 = 0x00
ONE_IFACE_CACHE_64 = 0x02

# Record kinds (byte 0 of a record, bits 0-2) and TTL codes (bits 4-5).
PTR, SRV, TXT, A, AAAA, PTR_TO_HOST, AS_ASKED = 0, 1, 2, 3, 4, 5, 6
GOODBYE, TTL_3, TTL_120, TTL_4500 = 0, 1, 2, 3
FLUSH = 0x08
# Bulk templates (bits 0-1).
BULK_PTR, BULK_A, BULK_SRV, BULK_AS_ASKED = 0, 1, 2, 3

# Callback actions.
NOTHING = 0x00
STOP_SELF = 0x03
STOP_SELF_FREE = 0x0B
RESTART_SELF = 0x06
START_EXIT = 0xEF
EXIT = 0xF7
EXIT_AND_INIT = 0xFF


def stop_other(slot, free=False):
    return 0x04 | (slot << 4) | (0x08 if free else 0)


def start_other(slot, p, r):
    return [0x05 | (slot << 4), p, r]


def browse(type_index=0, domain=0, iface=0):
    """Parameter bytes of a browse: domain 0 local., 1 example.com."""
    return [(type_index << 1) | (domain << 2), iface]


def query(qtype_index, which=0, domain=0, iface=0, type_index=0):
    """qtype_index: 0 A, 1 AAAA, 2 SRV, 3 TXT, 4 PTR."""
    return [1 | (qtype_index << 1) | (domain << 4) | (which << 5), iface | (type_index << 2)]


def resolve(instance=0, type_index=0, domain=0, iface=0):
    return [instance | (type_index << 3) | (domain << 4), iface]


def start(slot, params):
    return [0, slot] + params


def stop(slot, free=False):
    return [2, slot | (0x80 if free else 0)]


def record(kind, ttl=TTL_120, flush=False, additional=False, instance=0, type_index=0, domain=0, host=0,
           variant=0):
    r0 = kind | (ttl << 4) | (FLUSH if flush else 0) | (0x40 if additional else 0)
    r1 = instance | (type_index << 3) | (domain << 4) | (host << 5)
    return [r0, r1, variant]


def records(explicit=(), bulk=0, template=0, ttl=TTL_120, flush=False, series=None):
    """Bulk records are named b<n> (h<n> for hosts), n counting on from series * 510."""
    out = [len(explicit), bulk // 2]
    if bulk:
        out.append(template | (ttl << 4) | (0x40 if flush else 0) | (0x80 if series is not None else 0))
        if series is not None:
            out.append(series)
    for r in explicit:
        out += r
    return out


def multicast(source=0, **kw):
    """source: bits 0-1 sender, bit 2 on eth1."""
    return [3, source] + records(**kw)


def one_shot_answer(pick=0, **kw):
    return [4, pick] + records(**kw)


def unicast_answer(pick=0, **kw):
    """pick: bits 0-1 which query, 2 wrong ID, 3 wrong server, 4 no question, 5 TC, 6-7 rcode."""
    return [5, pick] + records(**kw)


def wait_ms(ms):
    for unit, code in ((10, 0), (250, 1), (10000, 2), (300000, 3)):
        if ms % unit == 0 and ms // unit < 64:
            return [6, (code << 6) | (ms // unit)]
    raise ValueError(ms)


def raw(path, answers, additionals, data):
    return [8, path, answers | (additionals << 4), len(data)] + list(data)


def toggle_interface():
    return [9, 0]


def start_exit():
    """StartExit now; FinalExit and Init before the next operation."""
    return [9, 2]


def program(config, ops, actions=()):
    body = [b for op in ops for b in op]
    return bytes([config, len(body) >> 8, len(body) & 0xFF] + body + list(actions))


def instance_records(instance=0, host=0, variant=0):
    return [record(SRV, instance=instance, host=host, variant=variant),
            record(TXT, instance=instance, variant=variant),
            record(A, host=host, variant=variant + 20),
            record(AAAA, host=host, variant=variant + 20)]


SEEDS = {
    # A browse and a resolve of "tv"; one response with tv's records and 200
    # PTR records: the first add the browse hears stops it, mid-packet.
    "browse_resolve_bulk_stop_browse": program(
        ONE_IFACE_CACHE_600,
        [start(0, browse()), start(5, resolve()), wait_ms(200),
         multicast(explicit=[record(PTR)] + instance_records(), bulk=200, template=BULK_PTR),
         wait_ms(2000), wait_ms(3600000)],
        [STOP_SELF]),
    # A unicast browse of example.com. answered with 200 PTR records; its
    # callback stops it (and frees it once the pass is over).
    "unicast_browse_bulk_stop_self": program(
        ONE_IFACE_CACHE_600,
        [start(0, browse(domain=1)), wait_ms(10),
         unicast_answer(pick=0, bulk=200, template=BULK_AS_ASKED),
         wait_ms(1000), wait_ms(600000), wait_ms(3600000)],
        [STOP_SELF_FREE]),
    # The same stop without freeing, and the question started again later on
    # the same storage.
    "unicast_browse_bulk_stop_then_restart": program(
        ONE_IFACE_CACHE_600,
        [start(0, browse(domain=1)), wait_ms(10),
         unicast_answer(pick=0, bulk=200, template=BULK_AS_ASKED),
         wait_ms(600), start(0, browse(domain=1)), wait_ms(1000), wait_ms(600000)],
        [STOP_SELF]),
    # Two identical browses (a group) and a query: callbacks stop the other
    # member, restart themselves, and goodbyes follow.
    "group_stop_other_restart": program(
        TWO_IFACES_CACHE_64,
        [start(0, browse()), start(1, browse()), start(2, query(2, which=1)), wait_ms(200),
         multicast(explicit=[record(PTR, instance=1), record(PTR, instance=2)] + instance_records(instance=1)),
         multicast(source=4, explicit=[record(PTR, instance=1, flush=True)]),
         wait_ms(1000),
         multicast(explicit=[record(PTR, ttl=GOODBYE, instance=1), record(SRV, ttl=GOODBYE, instance=1)]),
         wait_ms(2000), stop(1, free=True), toggle_interface(), wait_ms(10000)],
        [stop_other(1), RESTART_SELF, NOTHING, stop_other(0, free=True)] + start_other(1, *browse(type_index=1))),
    # One-shot answers for a resolve and an address query, with ID and questions echoed.
    "one_shot_answers_resolve": program(
        ONE_IFACE_CACHE_16,
        [start(5, resolve(instance=1)), start(3, query(0, which=0)), wait_ms(10),
         one_shot_answer(pick=0, explicit=[record(AS_ASKED, variant=1)] + instance_records(instance=1)),
         one_shot_answer(pick=1, explicit=[record(AS_ASKED, variant=2)]),
         wait_ms(500), multicast(bulk=150, template=BULK_A), wait_ms(30000)],
        [stop_other(5)] + start_other(6, *resolve(instance=1)) + [STOP_SELF]),
    # A callback shuts the core down; the program goes on against a new one.
    "exit_in_callback": program(
        ONE_IFACE_CACHE_600,
        [start(0, browse()), start(1, query(4)), start(5, resolve()), wait_ms(200),
         multicast(explicit=[record(PTR)] + instance_records()),
         start(0, browse()), wait_ms(200), multicast(explicit=[record(PTR)]), wait_ms(10000)],
        [EXIT]),
    # The same, with Init again inside the callback.
    "exit_and_init_in_callback": program(
        ONE_IFACE_CACHE_600,
        [start(0, browse()), start(5, resolve()), wait_ms(200),
         multicast(explicit=[record(PTR)] + instance_records()), wait_ms(10000)],
        [NOTHING, EXIT_AND_INIT]),
    # Unicast DNS: a truncated answer moves the query to TCP, whose answer
    # comes as asked; a SERVFAIL; a resolve in example.com.
    "unicast_tcp_and_errors": program(
        ONE_IFACE_CACHE_64,
        [start(5, resolve(domain=1)), start(0, browse(domain=1)), wait_ms(10),
         unicast_answer(pick=0x20, explicit=[record(AS_ASKED)]),
         unicast_answer(pick=0x80 | 1),
         wait_ms(10),
         unicast_answer(pick=2, explicit=[record(AS_ASKED), record(AS_ASKED, variant=3)], bulk=140,
                        template=BULK_AS_ASKED),
         unicast_answer(pick=3, explicit=[record(AS_ASKED)]),
         wait_ms(600000), stop(5), stop(5), wait_ms(3600000)],
        [stop_other(0), NOTHING, RESTART_SELF]),
    # A browse comes to remember more instances than it may (3072): the
    # flooding sender is refused, then another sender's instance pushes one of
    # the flooder's out, reported removed; that callback stops the browse.
    # Each response is cut at 9000 bytes: about 170 of its PTR records arrive.
    "browse_memory_full": program(
        ONE_IFACE_CACHE_600,
        [start(0, browse()), wait_ms(200)]
        + [multicast(source=0, bulk=510, template=BULK_PTR, ttl=TTL_4500, series=n) for n in range(20)]
        + [multicast(source=1, explicit=[record(PTR, instance=1), record(PTR_TO_HOST, host=1)]),
           wait_ms(1000)],
        [NOTHING] * 3072 + [STOP_SELF]),
    # StartExit from a callback while a resolve and a browse wait for the rest
    # of the packet, then time passes on the core that is shutting down.
    "start_exit_in_callback": program(
        TWO_IFACES_CACHE_64,
        [start(0, browse()), start(5, resolve()), start(6, resolve(instance=1)), wait_ms(200),
         multicast(explicit=[record(PTR), record(PTR, instance=1)] + instance_records() + instance_records(1)),
         wait_ms(200), start(0, browse(domain=1)), wait_ms(10), start_exit(), wait_ms(5000)],
        [NOTHING, START_EXIT]),
    # Raw record bytes after a proper header.
    "raw_records": program(
        ONE_IFACE_CACHE_16,
        [start(0, browse()), wait_ms(200),
         raw(0, 1, 0, bytes.fromhex("055f68747470045f746370056c6f63616c00000c0001000000780005027476c00c")),
         raw(0, 2, 0, bytes.fromhex("055f68747470045f746370056c6f63616c00000c00010000007800")),
         wait_ms(5000)]),
}


def main():
    os.makedirs(OUT, exist_ok=True)
    for name, data in SEEDS.items():
        with open(os.path.join(OUT, name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    main()
