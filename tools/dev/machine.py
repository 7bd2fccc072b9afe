"""A prepared Windows for the commands that show, measure or run something: lab loaded, service and trace service up."""
import re
import shutil
import subprocess
import sys
import time
from contextlib import contextmanager

import build
import packages
import product
import wine
from ui import Failure, Step

START_LIMIT = 60    # seconds
# Folders of the build tree: product, clients and lab, without the tests.
NEEDED = ('Halcyd/all', 'HalcydPS/all', 'clients/all', 'lab/all', 'tests/runner/all')
HOST_MIRROR = build.ROOT / 'lab' / 'host' / 'hostlab.py'


def prepare():
    """Installs what is missing, builds what is stale; the folder of the build and the installed prefix."""
    packages.ensure(packages.BUILD, packages.RUN)
    wine.sweep()
    built = build.build('gcc', NEEDED)
    return built, product.installed(built)


def scenarios():
    """The names that a scenario can have."""
    return sorted(p.stem for p in (build.ROOT / 'lab' / 'scenarios').glob('*.json')) + ['host']


def check_scenario(scenario):
    """Before anything is built or started: a wrong name is told at once."""
    if scenario not in scenarios():
        raise Failure(f'there is no scenario "{scenario}"; there are {", ".join(scenarios())}')


@contextmanager
def running(name, scenario):
    """A clone with this scenario loaded and the service running. Nothing of it is left afterwards, except after a
    failure: trace, journal and dumps then lie in the folder that the failure names."""
    check_scenario(scenario)
    built, base = prepare()
    with wine.Prefix.clone_of(base, name=name) as prefix:
        try:
            step = Step(f'starting Windows, scenario {scenario}')
            try:
                prefix.boot()
                load(prefix, scenario)
                start_service(prefix)
            except Failure:
                step.done(ok=False)
                raise
            step.done()
            follower = follow_host(prefix) if scenario == 'host' else None
            try:
                yield built, prefix
            finally:
                if follower:
                    follower.terminate()
                    follower.wait()
        except Failure as failure:
            raise Failure(f'{failure}\nleft behind: {keep_evidence(prefix, name)}') from failure


def keep_evidence(prefix, name):
    """Trace, journal and dumps of a run that went wrong; the folder, as seen from the root of the tree."""
    place = build.ROOT / 'build' / f'{name}-failed'
    shutil.rmtree(place, ignore_errors=True)
    product.keep_evidence(prefix, place)
    return place.relative_to(build.ROOT)


def follow_host(prefix):
    """Keeps the lab's machine the same as this one: a real interface that goes down does so there too."""
    return subprocess.Popen([sys.executable, '-B', HOST_MIRROR, '--output', prefix.c('host.json'), '--follow',
                             wine.loader(), product.windows(f'{product.LAB}/labctl.exe'), 'sync'],
                            env=prefix.environment(), cwd=build.ROOT, stdin=subprocess.DEVNULL,
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def load(prefix, scenario):
    if scenario == 'host':
        mirrored = subprocess.run([sys.executable, '-B', HOST_MIRROR, '--output', prefix.c('host.json')],
                                  capture_output=True, text=True)
        if mirrored.returncode != 0:
            raise Failure(mirrored.stderr.strip() or mirrored.stdout.strip())
        scenario = 'C:\\host.json'
    done = prefix.run([product.windows(f'{product.LAB}/labctl.exe'), 'load', scenario])
    if done.returncode != 0:
        raise Failure(done.stdout.strip())


def service_state(prefix):
    answer = prefix.run(['sc', 'query', 'Halcyd']).stdout
    found = re.search(r'STATE\s*:\s*\d+\s+(\w+)', answer)
    return found.group(1) if found else 'missing'


def start_service(prefix):
    """Starts the service and waits until it says that it runs."""
    limit = time.monotonic() + START_LIMIT
    while time.monotonic() < limit:
        state = service_state(prefix)
        if state == 'RUNNING':
            return
        if state == 'STOPPED':
            prefix.run(['net', 'start', 'Halcyd'])
        time.sleep(0.2)
    raise Failure(f'the service did not come up within {START_LIMIT} s: {state}')


def stop_service(prefix):
    prefix.run(['net', 'stop', 'Halcyd'])
    limit = time.monotonic() + START_LIMIT
    while service_state(prefix) != 'STOPPED':
        if time.monotonic() > limit:
            raise Failure(f'the service did not stop within {START_LIMIT} s')
        time.sleep(0.1)


def host_ids(prefix, program):
    """Ids of the host's processes that run a program of the prefix, found by its file name."""
    found = []
    for pid in prefix.processes():
        try:
            with open(f'/proc/{pid}/cmdline', 'rb') as file:
                words = file.read().split(b'\0')
        except OSError:
            continue
        if program.lower() in words[0].decode('utf-8', 'replace').strip('"').lower().replace('/', '\\').split('\\')[-1]:
            found.append(pid)
    return found
