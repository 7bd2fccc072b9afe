#!/usr/bin/env python3
"""Mirrors the network adapters of this Linux machine into a scenario of the lab.

    hostlab.py --output FILE                  write the scenario once
    hostlab.py --output FILE --follow CMD...  and again at each change, running CMD with FILE behind it each time
                                              (CMD is "labctl sync": it raises the events of what changed)

Needs the program "ip" (package iproute2) and /sys; the rest is Python's standard library. Every fact is the machine's
own: addresses and media from "ip", driver and identity from /sys, name servers from resolv.conf, neighbours from the
kernel's ARP table. What Linux does not know (a link speed, a PCI identity) is left out or 0, never made up.
"""

import argparse
import json
import os
import platform
import re
import select
import signal
import subprocess
import sys
import time
import uuid

# Kinds of interface that have no device below them and still are how a container or a test sees its network.
REAL_KINDS = {"veth", "macvlan", "ipvlan", "dummy", "vlan"}
NAMESPACE = uuid.UUID("7b0f6a0e-5a0f-4a3e-9a55-0f7e3f6b2c11")
NCF_VIRTUAL, NCF_PHYSICAL, NCF_HAS_UI = 0x1, 0x4, 0x80
MEDIUM_802_3, PHYSICAL_UNSPECIFIED, PHYSICAL_WIRELESS = 0, 0, 9


class Host:
    """Reads the machine. Tests put another one in its place."""

    def ip(self, *words):
        try:
            done = subprocess.run(["ip", "-j", *words], check=True, capture_output=True, text=True)
        except FileNotFoundError:
            sys.exit("hostlab: the program 'ip' is missing; install the package iproute2")
        except subprocess.CalledProcessError as error:
            sys.exit(f"hostlab: ip {' '.join(words)} failed: {error.stderr.strip()}")
        return json.loads(done.stdout or "[]")

    def text(self, path):
        """A small file, without the line end; empty if it cannot be read."""
        try:
            with open(path, encoding="utf-8", errors="replace") as file:
                return file.read().strip()
        except OSError:
            return ""

    def link(self, path):
        """Where a symbolic link leads, in full; empty if there is none."""
        return os.path.realpath(path) if os.path.islink(path) else ""

    def exists(self, path):
        return os.path.exists(path)

    def release(self):
        return platform.release()

    def hostname(self):
        return platform.node()


def version_number(text):
    """'6.1.0-13' as the driver version 0x00060001: first part in the high half, second in the low one."""
    parts = [int(part) for part in re.findall(r"\d+", text)[:2]] + [0, 0]
    return f"0x{(parts[0] & 0xFFFF) << 16 | parts[1] & 0xFFFF:08X}"


def identity(host, name):
    """Vendor, device and instance id of the PCI or USB device below the interface, climbing through virtio and the like."""
    path = host.link(f"/sys/class/net/{name}/device")
    while path.startswith("/sys/devices/") and path.count("/") > 3:
        for bus, first, second, form in (
            ("pci", "vendor", "device", "PCI\\VEN_{}&DEV_{}"),
            ("usb", "idVendor", "idProduct", "USB\\VID_{}&PID_{}"),
        ):
            if os.path.basename(host.link(path + "/subsystem")) == bus:
                ids = [host.text(f"{path}/{part}").lower().removeprefix("0x").upper() for part in (first, second)]
                if all(ids):
                    return ids[0], form.format(*ids) + "\\" + os.path.basename(path).replace(":", "_")
        path = os.path.dirname(path)
    return None, None


def is_real(host, interface):
    kind = interface.get("linkinfo", {}).get("info_kind", "")
    return host.exists(f"/sys/class/net/{interface['ifname']}/device") or kind in REAL_KINDS


def is_connected(host, interface):
    if "UP" not in interface.get("flags", []):
        return False
    state = interface.get("operstate", "UNKNOWN")
    if state == "UNKNOWN":  # drivers without carrier detection
        return host.text(f"/sys/class/net/{interface['ifname']}/carrier") != "0"
    return state == "UP"


def link_speed(host, name):
    """In bit/s; 0 where the driver does not say."""
    text = host.text(f"/sys/class/net/{name}/speed")
    return int(text) * 1000000 if re.fullmatch(r"\d+", text) and int(text) < 1000000 else 0


def adapter(host, interface, gateways, servers):
    name = interface["ifname"]
    kind = interface.get("linkinfo", {}).get("info_kind", "")
    driver = os.path.basename(host.link(f"/sys/class/net/{name}/device/driver")) or kind or "netdev"
    module = host.text(f"/sys/module/{driver}/version") or host.release()
    wireless = host.exists(f"/sys/class/net/{name}/wireless") or host.exists(f"/sys/class/net/{name}/phy80211")
    vendor, pnp = identity(host, name)
    mac = interface.get("address", "").upper() if interface.get("link_type") == "ether" else ""
    connected = is_connected(host, interface)
    # IPv4 before IPv6, as Windows lists them.
    addresses = sorted(
        (entry for entry in interface.get("addr_info", []) if "local" in entry), key=lambda entry: entry["family"] != "inet")
    listed = [{"address": entry["local"], "prefix": entry["prefixlen"]} for entry in addresses] if connected else []
    result = {
        "name": name,
        "guid": "{" + str(uuid.uuid5(NAMESPACE, name + mac)).upper() + "}",
        "index": interface["ifindex"],
        "interfaceIndex": interface["ifindex"],
        "alias": name,
        "description": f"{driver} {'wireless' if wireless else 'network'} adapter ({name})",
        "manufacturer": f"PCI vendor {vendor}" if vendor and pnp.startswith("PCI") else f"USB vendor {vendor}" if vendor else driver,
        "service": driver,
        "mac": mac or None,
        "pnpDeviceId": pnp or f"ROOT\\NET\\{name}",
        "characteristics": NCF_HAS_UI | (NCF_PHYSICAL if is_real(host, interface) else NCF_VIRTUAL),
        "media": "connected" if connected else "disconnected",
        "dhcp": {"enabled": any(entry.get("dynamic") for entry in addresses)},
        "addresses": listed,
        "gateways": gateways if connected else [],
        "dns": servers if connected and gateways else [],
        "dnsStatic": [],
        "driver": {
            "open": True,
            "medium": MEDIUM_802_3,
            "physicalMedium": PHYSICAL_WIRELESS if wireless else PHYSICAL_UNSPECIFIED,
            "vendorId": f"0x{int(vendor or mac.replace(':', '')[:6] or '0', 16):08X}",
            "vendorDescription": f"{driver} {module}",
            "driverVersion": version_number(module),
            "linkSpeed": link_speed(host, name),
        },
    }
    if result["dhcp"]["enabled"]:
        result["dhcp"]["lease"] = {"addresses": listed, "gateways": result["gateways"], "dns": result["dns"]}
    return result


def name_servers(host):
    """Servers and search list; behind a local stub resolver the servers that it asks."""
    servers, search = [], []
    for path in ("/etc/resolv.conf", "/run/systemd/resolve/resolv.conf"):
        for line in host.text(path).splitlines():
            words = line.split("#")[0].split()
            if len(words) > 1 and words[0] == "nameserver":
                servers.append(words[1])
            elif len(words) > 1 and words[0] in ("search", "domain"):
                search = words[1:]
        servers = [server for server in servers if not server.startswith("127.")]
        if servers:
            break
    return servers, search


def neighbours(host):
    entries = []
    for line in host.text("/proc/net/arp").splitlines()[1:]:
        words = line.split()
        if len(words) >= 6 and int(words[2], 16) & 0x2:  # complete
            entries.append({"address": words[0], "mac": words[3].upper()})
    return entries


def scenario(host):
    """The whole machine as a scenario."""
    gateways = {}
    for family in ("-4", "-6"):
        for route in host.ip(family, "route", "show", "default"):
            if "gateway" in route:
                gateways.setdefault(route["dev"], []).append(route["gateway"])
    servers, search = name_servers(host)
    interfaces = [entry for entry in host.ip("-d", "addr", "show") if "LOOPBACK" not in entry.get("flags", []) and "ifname" in entry]
    return {
        "scenario": "host",
        "hostName": host.hostname().split(".")[0].upper(),
        "adapters": [adapter(host, entry, gateways.get(entry["ifname"], []), servers) for entry in interfaces],
        "arp": neighbours(host),
        "suffixSearchOrder": search,
        "methods": {},
    }


def write(path, content):
    """Replaces the file as a whole, so that a reader never sees half of it."""
    with open(path + ".new", "w", encoding="utf-8") as file:
        json.dump(content, file, indent=1)
        file.write("\n")
    os.replace(path + ".new", path)


def essence(content):
    """What a change of the machine shows in: ARP entries come and go by themselves."""
    return {key: value for key, value in content.items() if key != "arp"}


def follow(host, path, command, seconds):
    """Waits for the kernel's notices and passes each change on. Ends with the time, or when told to."""
    monitor = subprocess.Popen(["ip", "monitor", "link", "address", "route"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)

    def end(*_):
        raise SystemExit(0)

    signal.signal(signal.SIGTERM, end)
    known = scenario(host)  # after the monitor has started: nothing is missed between the two
    write(path, known)
    subprocess.run([*command, path], check=False)
    last = time.monotonic() + seconds if seconds else None
    try:
        while last is None or time.monotonic() < last:
            # A second's glance on the side: operational states can change without a notice.
            ready, _, _ = select.select([monitor.stdout], [], [], 1.0)
            if ready:
                if not os.read(monitor.stdout.fileno(), 65536):
                    sys.exit("hostlab: ip monitor has ended")
                time.sleep(0.02)  # notices come in groups
            current = scenario(host)
            if essence(current) != essence(known):
                known = current
                write(path, known)
                done = subprocess.run([*command, path], check=False)
                if done.returncode != 0:
                    print(f"hostlab: {' '.join(command)} ended with {done.returncode}", file=sys.stderr)
    finally:
        monitor.terminate()
        monitor.wait()


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--output", required=True, help="the scenario file")
    parser.add_argument("--seconds", type=float, default=0, help="with --follow: stop after so long")
    parser.add_argument("--follow", nargs=argparse.REMAINDER, metavar="CMD", help="run CMD with the file behind it at each change")
    options = parser.parse_args()
    host = Host()
    if options.follow is None:
        write(options.output, scenario(host))
    elif not options.follow:
        parser.error("--follow wants a command")
    else:
        follow(host, options.output, options.follow, options.seconds)


if __name__ == "__main__":
    main()
