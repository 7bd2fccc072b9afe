"""halcydctl on a terminal, with somebody who types: what it draws, and Ctrl+C. Each check is a pair (name, why not)."""
import json
import re

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


CHECKS = (watch_draws_in_colour_and_ends_with_ctrl_c, follow_of_the_trace_ends_with_ctrl_c,
          ctrl_c_restores_disabled_bindings)


def run(prefix, check):
    """The outcomes of one check, on a Windows of its own with the lab's laptop."""
    prefix.boot()
    machine.load(prefix, 'laptop')
    machine.start_service(prefix)
    return list(check(prefix))
