"""Tests of hostlab.py against machines described here."""

import copy
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

import hostlab

ETH0 = {
    "ifindex": 4, "ifname": "eth0", "flags": ["BROADCAST", "UP", "LOWER_UP"], "operstate": "UP", "link_type": "ether",
    "address": "02:00:5e:00:53:01",
    "addr_info": [
        {"family": "inet6", "local": "fe80::1", "prefixlen": 64},
        {"family": "inet", "local": "192.0.2.7", "prefixlen": 24, "dynamic": True},
    ],
}
LO = {"ifindex": 1, "ifname": "lo", "flags": ["LOOPBACK", "UP"], "operstate": "UNKNOWN", "link_type": "loopback",
      "address": "00:00:00:00:00:00", "addr_info": [{"family": "inet", "local": "127.0.0.1", "prefixlen": 8}]}


class FakeHost:
    def __init__(self, interfaces, texts=None, links=None):
        self.interfaces = interfaces
        self.texts = texts or {}
        self.links = links or {}
        self.routes = {"-4": [{"dst": "default", "gateway": "192.0.2.1", "dev": "eth0"}], "-6": []}

    def ip(self, *words):
        return self.routes[words[0]] if "route" in words else copy.deepcopy(self.interfaces)

    def text(self, path):
        return self.texts.get(path, "")

    def link(self, path):
        return self.links.get(path, "")

    def exists(self, path):
        return path in self.links or path in self.texts

    def release(self):
        return "6.1.0-13-amd64"

    def hostname(self):
        return "box.example"


PCI = {
    "/sys/class/net/eth0/device": "/sys/devices/pci0000:00/0000:00:03.0/virtio2",
    "/sys/class/net/eth0/device/driver": "/sys/bus/virtio/drivers/virtio_net",
    "/sys/devices/pci0000:00/0000:00:03.0/virtio2/subsystem": "/sys/bus/virtio",
    "/sys/devices/pci0000:00/0000:00:03.0/subsystem": "/sys/bus/pci",
}
IDS = {"/sys/devices/pci0000:00/0000:00:03.0/vendor": "0x1af4", "/sys/devices/pci0000:00/0000:00:03.0/device": "0x1041"}


def only(host):
    adapters = hostlab.scenario(host)["adapters"]
    assert len(adapters) == 1, adapters
    return adapters[0]


class Adapters(unittest.TestCase):
    def test_real_adapter_has_its_mac_addresses_gateway_and_driver_text(self):
        found = only(FakeHost([LO, ETH0], IDS, PCI))
        self.assertEqual(found["mac"], "02:00:5E:00:53:01")
        self.assertEqual([entry["address"] for entry in found["addresses"]], ["192.0.2.7", "fe80::1"])
        self.assertEqual(found["gateways"], ["192.0.2.1"])
        self.assertEqual(found["driver"]["vendorDescription"], "virtio_net 6.1.0-13-amd64")
        self.assertEqual(found["driver"]["driverVersion"], "0x00060001")
        self.assertEqual(found["driver"]["vendorId"], "0x00001AF4")
        self.assertEqual(found["pnpDeviceId"], "PCI\\VEN_1AF4&DEV_1041\\0000_00_03.0")
        self.assertEqual(found["characteristics"] & 0x5, 0x4)
        self.assertTrue(found["dhcp"]["enabled"])

    def test_loopback_is_left_out(self):
        self.assertEqual(hostlab.scenario(FakeHost([LO]))["adapters"], [])

    def test_interface_set_down_is_disconnected_and_shows_no_addresses(self):
        down = dict(ETH0, flags=["BROADCAST"], operstate="DOWN")
        found = only(FakeHost([down], IDS, PCI))
        self.assertEqual(found["media"], "disconnected")
        self.assertEqual(found["addresses"], [])
        self.assertEqual(found["gateways"], [])

    def test_unknown_state_counts_as_connected_unless_the_carrier_is_off(self):
        unknown = dict(ETH0, operstate="UNKNOWN")
        self.assertEqual(only(FakeHost([unknown]))["media"], "connected")
        self.assertEqual(only(FakeHost([unknown], {"/sys/class/net/eth0/carrier": "0"}))["media"], "disconnected")

    def test_bridge_is_virtual_and_a_container_s_veth_is_real(self):
        for kind, virtual in (("bridge", True), ("tun", True), ("veth", False), ("dummy", False)):
            found = only(FakeHost([dict(ETH0, linkinfo={"info_kind": kind})]))
            self.assertEqual(bool(found["characteristics"] & 0x1), virtual, kind)

    def test_wireless_is_told_by_its_folder(self):
        found = only(FakeHost([ETH0], {"/sys/class/net/eth0/wireless": ""}))
        self.assertEqual(found["driver"]["physicalMedium"], 9)

    def test_link_speed_is_in_bits_and_0_where_unknown(self):
        self.assertEqual(only(FakeHost([ETH0], {"/sys/class/net/eth0/speed": "2500"}))["driver"]["linkSpeed"], 2500000000)
        self.assertEqual(only(FakeHost([ETH0], {"/sys/class/net/eth0/speed": "-1"}))["driver"]["linkSpeed"], 0)

    def test_identity_stays_the_same_from_run_to_run(self):
        self.assertEqual(only(FakeHost([ETH0]))["guid"], only(FakeHost([ETH0]))["guid"])
        self.assertRegex(only(FakeHost([ETH0]))["guid"], r"^\{[0-9A-F-]{36}\}$")

    def test_tunnel_without_mac_address_has_none(self):
        self.assertIsNone(only(FakeHost([dict(ETH0, link_type="none", address="")]))["mac"])


class Machine(unittest.TestCase):
    def test_name_servers_come_from_behind_a_local_stub(self):
        host = FakeHost([ETH0], {"/etc/resolv.conf": "nameserver 127.0.0.53\nsearch a.example",
                                 "/run/systemd/resolve/resolv.conf": "nameserver 192.0.2.53 # main"})
        self.assertEqual(hostlab.name_servers(host), (["192.0.2.53"], ["a.example"]))

    def test_only_complete_neighbours_count(self):
        host = FakeHost([], {"/proc/net/arp": "IP address HW type Flags HW address Mask Device\n"
                             "192.0.2.1 0x1 0x2 02:fc:00:00:00:05 * eth0\n192.0.2.9 0x1 0x0 00:00:00:00:00:00 * eth0"})
        self.assertEqual(hostlab.neighbours(host), [{"address": "192.0.2.1", "mac": "02:FC:00:00:00:05"}])

    def test_arp_alone_is_no_change(self):
        self.assertEqual(hostlab.essence({"arp": [1], "x": 2}), hostlab.essence({"arp": [], "x": 2}))


# Runs inside a network namespace of its own: a pair of interfaces, the mirror at work, and changes while it looks.
# Each picture that the mirror passes on is one line of the log.
SCENE = """
set -e
ip link add d0 type veth peer name p0
ip link set p0 up; ip link set d0 up
ip addr add 203.0.113.5/24 dev d0
"$PYTHON" -B hostlab.py --output "$DIR/host.json" --follow sh -c 'tr -d "\\n" < "$0" >> "$DIR/log"; echo >> "$DIR/log"' &
mirror=$!
trap 'kill $mirror 2>/dev/null || true' EXIT
wait_lines() { for i in $(seq 200); do [ "$(wc -l 2>/dev/null < "$DIR/log" || echo 0)" -ge "$1" ] && return; sleep 0.05; done; exit 9; }
last() { tail -n 1 "$DIR/log"; }
until_line() { for i in $(seq 200); do last | grep -q "$1" && return; sleep 0.05; done; echo "never: $1" >&2; exit 9; }
wait_lines 1
ip addr add 203.0.113.6/24 dev d0; until_line '203.0.113.6'
ip link set d0 down; until_line '"name": "d0".*"media": "disconnected"'
ip link set d0 up; until_line '203.0.113.5'
kill $mirror; wait $mirror || true
"""


class Following(unittest.TestCase):
    def test_real_interface_that_changes_is_passed_on(self):
        probe = subprocess.run(["unshare", "-rn", "sh", "-c", "ip link add d0 type veth peer name p0"], capture_output=True, text=True,
                               check=False) if shutil.which("unshare") and shutil.which("ip") else None
        if probe is None or probe.returncode != 0:
            self.skipTest("this machine gives no network namespaces: " + (probe.stderr.strip() if probe else "no unshare or ip"))
        with tempfile.TemporaryDirectory() as folder:
            here = os.path.dirname(os.path.abspath(__file__))
            done = subprocess.run(["unshare", "-rn", "sh", "-c", SCENE], cwd=here, timeout=60, capture_output=True, text=True, check=False,
                                  env={**os.environ, "DIR": folder, "PYTHON": sys.executable})
            self.assertEqual(done.returncode, 0, done.stderr)
            with open(folder + "/log", encoding="utf-8") as log:
                pictures = [json.loads(line) for line in log]
        media = [next(a["media"] for a in picture["adapters"] if a["name"] == "d0") for picture in pictures]
        self.assertEqual([state for i, state in enumerate(media) if i == 0 or media[i - 1] != state],
                         ["connected", "disconnected", "connected"])


if __name__ == "__main__":
    unittest.main()
