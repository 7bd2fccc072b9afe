"""A real interface, in a network namespace that the runner has made for this program: what happens to it reaches a
client of the shipped service. Prints 'ok NAME' or 'not ok NAME: why' for each check, 'skip: why' if the kernel has no
interface to offer, and 'done' at its end."""
import json
import queue
import subprocess
import sys
import threading
import time

import machine
import product
import wine

OWN, OTHER = 'hal0', 'hal1'
ADDRESS, EXTRA, GATEWAY = '192.0.2.2', '192.0.2.77', '192.0.2.1'
GATEWAY_MAC = '02:00:5E:00:53:FE'
PATIENCE = 60   # seconds; only a failing check waits so long


def ip(*words):
    return subprocess.run(['ip', *words], capture_output=True, text=True)


def must_ip(*words):
    done = ip(*words)
    if done.returncode != 0:
        raise RuntimeError(f'ip {" ".join(words)}: {done.stderr.strip()}')


def connect():
    """What a plug in a socket gives: a link, a way out, a neighbour."""
    must_ip('link', 'set', OWN, 'up')
    must_ip('neigh', 'replace', GATEWAY, 'lladdr', GATEWAY_MAC, 'dev', OWN)
    must_ip('route', 'replace', 'default', 'via', GATEWAY, 'dev', OWN)


class Watch:
    """halcydctl watch: a client like any other, its lines as they come."""

    def __init__(self, prefix):
        self.process = prefix.popen([product.windows(f'{product.PRODUCT}/halcydctl.exe'), 'watch', '--json', '--no-table'],
                                    stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.lines = queue.Queue()
        self.seen = []
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.process.stdout:
            try:
                self.lines.put(json.loads(line))
            except ValueError:
                continue

    def wait(self, **wanted):
        """The next line that has these fields; nothing when the time is over."""
        end = time.monotonic() + PATIENCE
        while True:
            try:
                line = self.lines.get(timeout=max(0, end - time.monotonic()))
            except queue.Empty:
                return None
            self.seen.append(line)
            if all(line.get(key) == value for key, value in wanted.items()):
                return line

    def end(self):
        self.process.terminate()
        self.process.wait()


def adapters(prefix):
    return json.loads(product.halcydctl(prefix, 'list', '--as-is', '--json').stdout)['adapters']


def adapter(prefix, name):
    return next((a for a in adapters(prefix) if a['description'].endswith(f'({name})')), None)


def until(look):
    """What `look` returns once that is true; its last answer when the time is over."""
    end = time.monotonic() + PATIENCE
    answer = look()
    while not answer and time.monotonic() < end:
        time.sleep(0.1)
        answer = look()
    return answer


def check(name, held, why=''):
    print(f'ok {name}' if held else f'not ok {name}: {why}', flush=True)


def story(prefix, watch):
    own = adapter(prefix, OWN)
    check('the interface is in the list, with its address and its gateway',
          own and own['connected'] and own['address'] == ADDRESS and own['gateway'] == GATEWAY, own)
    if not own:
        return
    must_ip('addr', 'add', f'{EXTRA}/24', 'dev', OWN)
    told = watch.wait(name='enumEventIpChange')
    check('an added address is told', told and told['deviceId'] == 'no node', watch.seen[-3:])
    heard = product.labctl(prefix, 'journal', '--json', '--call', 'UnicastIpAddressChangeCallback')
    check('and it is that address', f'"address":"{EXTRA}","type":"add"' in heard, heard[-300:])

    must_ip('link', 'set', OWN, 'down')
    told = watch.wait(name='enumEventMediaDisconnect', deviceId=own['id'])
    check('an interface set down is told as disconnected', told, watch.seen[-3:])
    now = until(lambda: (lambda a: a if a and not a['connected'] else None)(adapter(prefix, OWN)))
    check('and the list has it so, without an address', now and not now['address'], adapter(prefix, OWN))

    connect()
    told = watch.wait(name='enumEventMediaConnect', deviceId=own['id'])
    check('set up again it is told as connected, with the neighbour\'s MAC', told and told['adjacentMac'].upper() == GATEWAY_MAC,
          told or watch.seen[-3:])
    now = adapter(prefix, OWN)
    check('and the list has the address and the gateway again',
          now and now['connected'] and now['address'] == ADDRESS and now['gateway'] == GATEWAY, now)

    must_ip('link', 'del', OWN)
    told = watch.wait(name='enumEventAdapterRemove', deviceId=own['id'])
    check('an interface that goes is told as removed', told, watch.seen[-3:])
    check('and is in the list no more', adapter(prefix, OWN) is None, adapter(prefix, OWN))


def main(place):
    made = ip('link', 'add', OWN, 'type', 'veth', 'peer', 'name', OTHER)
    if made.returncode != 0:
        print(f'skip: no interface can be made here: {made.stderr.strip()}')
        return
    must_ip('addr', 'add', f'{ADDRESS}/24', 'dev', OWN)
    must_ip('link', 'set', OTHER, 'up')
    connect()
    prefix = wine.Prefix(place, owned=False)
    follower = watch = None
    try:
        prefix.start()
        prefix.boot()
        until(lambda: ip('-j', 'link', 'show', OWN).stdout.find('"operstate":"UP"') > 0)
        machine.load(prefix, 'host')
        machine.start_service(prefix)
        follower = machine.follow_host(prefix)
        watch = Watch(prefix)
        check('a client watches', watch.wait(kind='started'), 'halcydctl watch did not start')
        story(prefix, watch)
    finally:
        if watch:
            watch.end()
        if follower:
            follower.terminate()
            follower.wait()
        prefix.stop()
    print('done', flush=True)


if __name__ == '__main__':
    main(sys.argv[1])
