#!/usr/bin/python3
"""A python3-zeroconf responder for the virtual LAN: registers every service
described in a folder of avahi-style service files (the ones that
`scripts/vlan.sh add-service` writes) with Zeroconf.register_service and
answers for them until it is stopped (SIGTERM: goodbyes, then exit) or
--max-seconds pass.  Run it only inside a device's network namespace:

  zeroconf_responder.py SERVICES_DIR HOST_NAME ADDRESS... [--max-seconds S]

Prints "registered N" once every service is announced.
"""
import argparse
import asyncio
import glob
import signal
import socket
import sys
import xml.etree.ElementTree as ET

from zeroconf import IPVersion, ServiceInfo
from zeroconf.asyncio import AsyncZeroconf


def services(folder):
    for path in sorted(glob.glob(folder + "/*.service")):
        group = ET.parse(path).getroot()
        name = group.findtext("name")
        for service in group.findall("service"):
            txt = {}
            for record in service.findall("txt-record"):
                key, equals, value = (record.text or "").partition("=")
                # "key" alone is a key without a value; binary-hex values are bytes.
                if not equals:
                    value = None
                elif record.get("value-format") == "binary-hex":
                    value = bytes.fromhex(value)
                txt[key] = value
            yield name, service.findtext("type"), int(service.findtext("port")), txt


async def run(args):
    packed = [socket.inet_pton(socket.AF_INET6 if ":" in a else socket.AF_INET, a.split("%")[0])
              for a in args.address]
    infos = [ServiceInfo(f"{stype}.local.", f"{name}.{stype}.local.", port=port, properties=txt,
                         server=f"{args.host_name}.local.", addresses=packed)
             for name, stype, port, txt in services(args.services_dir)]
    aiozc = AsyncZeroconf(ip_version=IPVersion.All)
    # Probing and announcing of all services at once, as a device with many services would.
    tasks = [await aiozc.async_register_service(info) for info in infos]
    await asyncio.gather(*tasks)
    print("registered %d" % len(infos), flush=True)
    stop = asyncio.Event()
    loop = asyncio.get_running_loop()
    for sig in (signal.SIGTERM, signal.SIGINT):
        loop.add_signal_handler(sig, stop.set)
    try:
        await asyncio.wait_for(stop.wait(), args.max_seconds)
    except asyncio.TimeoutError:
        pass
    await aiozc.async_unregister_all_services()
    await aiozc.async_close()


def main():
    p = argparse.ArgumentParser()
    p.add_argument("services_dir")
    p.add_argument("host_name")
    p.add_argument("address", nargs="+")
    p.add_argument("--max-seconds", type=float, default=4 * 3600)
    asyncio.run(run(p.parse_args()))
    return 0


if __name__ == "__main__":
    sys.exit(main())
