"""halcydctl on a terminal, with somebody who types: what it draws, and Ctrl+C. Each check is a pair (name, why not)."""
import json
import re
import subprocess

import machine
import product
from terminal import CTRL_C, Terminal

CLIENT = product.windows(f'{product.PRODUCT}/halcydctl.exe')
RECORD = r'HKLM\SOFTWARE\QRLS\Sorvane\AdapterControl\MultiHomingPrevention'
RED, GREEN = '\x1b[91m', '\x1b[92m'


def _binding_paths(prefix):
    return {p['path']: p['enabled'] for p in json.loads(product.labctl(prefix, 'bindings', 'show', '--json'))}


def _complete_the_record(prefix):
    """The disable call makes keys without the value that a restore asks for; an administrator's hand adds it."""
    keys = re.findall(r'(?m)^(HKEY_LOCAL_MACHINE\\.*\\\{.*\})\s*$', prefix.must(['reg', 'query', RECORD, '/s']))
    for key in keys:
        prefix.must(['reg', 'add', key, '/v', 'BindingDisabledByQRL', '/t', 'REG_DWORD', '/d', '1', '/f'])
    return len(keys)


def watch_draws_in_colour_and_ends_with_ctrl_c(prefix):
    with Terminal(prefix, [CLIENT, 'watch']) as terminal:
        yield 'watch says how it is ended', None if terminal.shows('Watching. Ctrl+C ends.') else terminal.text()
        product.labctl(prefix, 'cable', 'out', 'eth0')
        told = terminal.shows('media disconnected')
        yield 'an event comes as a line', None if told else terminal.text()
        redrawn = told and terminal.shows('disconnected  1 Gbit/s', told)
        yield 'and the table is drawn again below it', None if redrawn else terminal.text()
        written = terminal.raw.decode('utf-8', 'replace')
        yield 'with the adapter that lost its cable in red', None if RED + 'disconnected' in written else repr(written)
        yield 'and one that is connected in green', None if GREEN + 'connected' in written else repr(written)
        terminal.type(CTRL_C)
        code = terminal.exit_code()
        yield 'Ctrl+C ends it with 0', None if code == 0 else f'{code}: {terminal.text()}'
        yield 'and with the number of events', None if terminal.shows(' events.') else terminal.text()


def follow_of_the_trace_ends_with_ctrl_c(prefix):
    with Terminal(prefix, [CLIENT, 'trace', '--follow']) as terminal:
        yield 'trace --follow shows the lines there are', None if terminal.shows('Service Halcyd') else terminal.text()
        terminal.type(CTRL_C)
        code = terminal.exit_code()
        yield 'Ctrl+C ends trace --follow with 0', None if code == 0 else f'{code}: {terminal.text()}'


def ctrl_c_restores_disabled_bindings(prefix):
    before = _binding_paths(prefix)
    kept = next(path for path in before if path.startswith('ms_tcpip->')).removeprefix('ms_tcpip->')
    with Terminal(prefix, [CLIENT, 'bindings', 'disable', kept]) as terminal:
        done = terminal.shows('The bindings of all other adapters are disabled. Ctrl+C restores them.')
        yield 'bindings disable says how it is ended', None if done else terminal.text()
        off = [path for path, enabled in _binding_paths(prefix).items() if not enabled]
        yield 'bindings are disabled meanwhile', None if off else 'all paths are on'
        yield 'and not those of the adapter that keeps them', None if not any(kept in path for path in off) else off
        completed = _complete_the_record(prefix)
        yield 'and recorded', None if completed == len(off) else f'{completed} keys for {off}'
        terminal.type(CTRL_C)
        restored = terminal.shows('Restoring ...') and terminal.shows('The bindings are restored.')
        yield 'Ctrl+C restores', None if restored else terminal.text()
        code = terminal.exit_code()
        yield 'and ends it with 0', None if code == 0 else f'{code}: {terminal.text()}'
    yield 'with all bindings as before', None if _binding_paths(prefix) == before else _binding_paths(prefix)


def early_ctrl_c_waits_for_the_outcome_and_restores_then(prefix):
    before = _binding_paths(prefix)
    kept = next(path for path in before if path.startswith('ms_tcpip->')).removeprefix('ms_tcpip->')
    holder = prefix.popen([product.windows(f'{product.LAB}/labctl.exe'), 'lock', 'netcfg', 'Other program',
                           '--seconds', '4'], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
    yield 'another program holds the lock', None if b'locked' in holder.stdout.readline() else 'it does not'
    with Terminal(prefix, [CLIENT, 'bindings', 'disable', kept]) as terminal:
        working = terminal.shows('working for 1 s')
        yield 'the disable waits for the lock', None if working else terminal.text()
        terminal.type(CTRL_C)
        put_off = terminal.shows('Restoring, as soon as the service has told what came of it ...')
        yield 'an early Ctrl+C says that it waits', None if put_off else terminal.text()
        done = put_off and terminal.shows('The bindings of all other adapters are disabled.', put_off)
        yield 'the outcome is told', None if done else terminal.text()
        restored = done and terminal.shows('The bindings are restored.', done)
        yield 'the restore comes behind it', None if restored else terminal.text()
        code = terminal.exit_code()
        yield 'and the client ends with 0', None if code == 0 else f'{code}: {terminal.text()}'
    holder.wait(60)


CHECKS = (watch_draws_in_colour_and_ends_with_ctrl_c, follow_of_the_trace_ends_with_ctrl_c,
          ctrl_c_restores_disabled_bindings, early_ctrl_c_waits_for_the_outcome_and_restores_then)


def run(prefix, check):
    """The outcomes of one check, on a Windows of its own with the lab's laptop."""
    prefix.boot()
    machine.load(prefix, 'laptop')
    machine.start_service(prefix)
    return list(check(prefix))
