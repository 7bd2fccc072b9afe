"""./dev bench: each figure is a ratio of two things measured in the same run, in turn; absolute times are shown for
orientation only. Exit code 0 whatever the figures are: a busy machine must not turn into a red build."""
import copy
import json
import shutil
import time
from pathlib import Path

import build
import machine
import packages
import product
import wine
from ui import Failure, Step, bad, bold, dim, good

PROGRAMS = ('HalcydBench', 'BenchIdleServer')
ADAPTERS = 10
IDLE_SECONDS = 10
REST_SECONDS = 8  # Wine's pool lets a worker go after 5 s with nothing to do


class BenchPrefix(wine.Prefix):
    """A Windows as users have it. Tests switch the cache of text blocks off to find leaks; it is left on here."""

    def environment(self, extra=None):
        environment = super().environment(extra)
        environment.pop('OANOCACHE', None)
        return environment


class Figures:
    """The rows: what was measured, against what, and what it may be. A row without a limit only informs."""

    def __init__(self):
        self.rows = []

    def ratio(self, name, value, yardstick, limit, unit, detail='', at_least=False):
        """`value` over `yardstick`, both in `unit`; at most `limit`, or at least."""
        ratio = value / yardstick
        self._add(name, value, yardstick, unit, ratio, limit, at_least,
                  None if limit is None else ratio >= limit if at_least else ratio <= limit, detail)

    def plain(self, name, value, limit, unit, detail=''):
        """A value that stands for itself, at most `limit`."""
        self._add(name, value, None, unit, None, limit, False, None if limit is None else value <= limit, detail)

    def _add(self, name, value, yardstick, unit, ratio, limit, at_least, within, detail):
        self.rows.append({'name': name, 'value': value, 'yardstick': yardstick, 'unit': unit, 'ratio': ratio,
                          'limit': limit, 'limit_is': 'at least' if at_least else 'at most', 'within': within,
                          'detail': detail})

    def show(self):
        print()
        print(bold(f"{'':<50}{'value':>10}{'yardstick':>11} {'':<4}{'ratio':>7}{'limit':>9}"))
        for row in self.rows:
            verdict = dim('-') if row['within'] is None else good('within') if row['within'] else bad('short')
            yardstick = '' if row['yardstick'] is None else _number(row['yardstick'])
            ratio = '' if row['ratio'] is None else f"{row['ratio']:.2f}"
            sign = '>=' if row['limit_is'] == 'at least' else '<='
            limit = '' if row['limit'] is None else f"{sign} {row['limit']:g}"
            print(f"{row['name']:<50}{_number(row['value']):>10}{yardstick:>11} {row['unit']:<4}{bold(f'{ratio:>7}')}{limit:>9}"
                  f"  {verdict}")
            if row['detail']:
                print(dim(f"    {row['detail']}"))
        print()
        print(dim('Measured on this machine in this run; other work on it shifts every figure.'))


def _number(value):
    return str(value) if isinstance(value, int) else f'{value:.0f}' if value >= 1000 else f'{value:.1f}' if value >= 10 else f'{value:.2f}'


def _run(prefix, what, count, timeout=300):
    output = prefix.must([product.windows(f'{product.PRODUCT}/HalcydBench.exe'), what, str(count)], timeout)
    for line in output.splitlines():
        if line.startswith('{'):
            return json.loads(line)
    raise Failure(f'HalcydBench {what} printed no result:\n{output}')


def _scenario(folder, model_name, count):
    """A scenario of `count` adapters like one of the laptop's, so that the list has exactly as many."""
    scenario = json.loads((build.ROOT / 'lab' / 'scenarios' / 'laptop.json').read_text())
    model = next(a for a in scenario['adapters'] if a.get('name') == model_name)
    adapters = []
    for number in range(1, count + 1):
        adapter = copy.deepcopy(model)
        text = json.dumps(adapter).replace(model['guid'], f'{{4A1C7E{number:02X}-3B52-4D0F-9E61-0C5D8A2B{number:04X}}}')
        adapter = json.loads(text)
        adapter.update(name=f'eth{number}', index=number, mac=f'02:00:5E:00:54:{number:02X}',
                       description=f"{model['description']} {number}")
        adapters.append(adapter)
    scenario['adapters'] = adapters
    path = folder / f'{count}.json'
    path.write_text(json.dumps(scenario))
    return 'Z:' + str(path).replace('/', '\\')


def calls(prefix, figures):
    product.labctl(prefix, 'load', _scenario(prefix.path, 'eth0', ADAPTERS))
    got = _run(prefix, 'calls', 1000)
    if int(got['adapters']) != ADAPTERS:
        raise Failure(f"the list has {got['adapters']:.0f} adapters where {ADAPTERS} were expected")
    figures.ratio(f'list of {ADAPTERS} adapters against a null call, p50', got['list_p50_ns'] / 1e3, got['null_p50_ns'] / 1e3,
                  1.5, 'us', f"p99: {got['list_p99_ns'] / 1e3:.0f} us against {got['null_p99_ns'] / 1e3:.0f} us")


def start(prefix, figures):
    got = _run(prefix, 'start', 15)
    milliseconds = {key: value / 1e6 for key, value in got.items() if key.endswith('_ns')}
    figures.ratio('start to running against an idle service, p50', milliseconds['product_p50_ns'],
                  milliseconds['idle_p50_ns'], 1.3, 'ms',
                  f"without the lab, the trace service already there; with the lab {milliseconds['with_lab_p50_ns']:.0f} ms, of which the lab's own "
                  f"{milliseconds['with_lab_p50_ns'] - milliseconds['product_p50_ns']:.0f} ms")
    figures.ratio('  the quickest of the same starts', milliseconds['product_min_ns'], milliseconds['idle_min_ns'], None,
                  'ms', 'what is left when the rest of the machine was quiet')
    figures.ratio('  processor time of the same starts, p50', milliseconds['product_cpu_p50_ns'],
                  milliseconds['idle_cpu_p50_ns'], None, 'ms',
                  f"with the lab {milliseconds['with_lab_cpu_p50_ns']:.0f} ms; the product has the trace's thread beside the start")


def open_call(prefix, figures):
    product.labctl(prefix, 'load', 'laptop')
    got = _run(prefix, 'open-call', 9)
    figures.ratio('null call beside an open DisableIpBindings, p99', got['with_p99_ns'] / 1e3, got['without_p99_ns'] / 1e3,
                  1.2, 'us', f"{got['calls']:.0f} calls each, median of 9 groups; p50: {got['with_p50_ns'] / 1e3:.0f} us "
                  f"against {got['without_p50_ns'] / 1e3:.0f} us")


def events(prefix, figures):
    product.labctl(prefix, 'load', 'laptop')
    got = _run(prefix, 'events', 150)
    microseconds = {key: value / 1e3 for key, value in got.items() if key.endswith('_ns')}
    for percentile in ('p50', 'p99'):
        whole, bare, calls_made, key, process = (
            microseconds[f'{what}_{percentile}_ns'] for what in ('event', 'bare', 'calls', 'key', 'process'))
        figures.ratio(f'Wi-Fi connect, from Indicate to Invoke, {percentile}', whole, bare + calls_made, 1.5, 'us',
                      f"bare event call {bare:.0f} us, the path's {got['calls']:.0f} WMI and driver calls {calls_made:.0f} us")
        figures.ratio(f'  against all platform calls of the path, {percentile}', whole, bare + calls_made + key + process,
                      None, 'us', f"the same, the search for the client's process {process:.0f} us, the adapter's key in "
                      f'the registry {key:.0f} us')
    rates = _run(prefix, 'event-rates', 300)
    figures.plain('connect events per second, 1 client', rates['one_client'], None, '/s')
    figures.plain('connect events per second, 4 clients', rates['four_clients'], None, '/s', 'each event to each client')
    for count in (1, 8, 64):
        product.labctl(prefix, 'load', _scenario(prefix.path, 'wlan0', count))
        got = _run(prefix, 'event-list', 60)
        figures.plain(f'Wi-Fi connect with {count} adapters in the list, p50', got['event_p50_ns'] / 1e3, None, 'us')


def trace(prefix, figures):
    got = _run(prefix, 'trace-cost', 60)
    figures.ratio('accepted trace line against spdlog async, p50', got['accepted_p50_ns'], got['spdlog_p50_ns'], 2.0, 'ns')
    figures.plain('rejected plain trace line, p50', got['rejected_p50_ns'], 50.0, 'ns')
    got = _run(prefix, 'trace-delivery', 4000)
    figures.ratio('trace lines per second against bare COM calls', got['lines_per_second'], got['bare_calls_per_second'],
                  0.8, '/s', at_least=True)


def _process(prefix, name):
    for pid in prefix.processes():
        try:
            if open(f'/proc/{pid}/comm', encoding='utf-8').read().strip() == name[:15]:
                return pid
        except OSError:
            continue
    raise Failure(f'{name} is not running')


class _Memory:
    """What a process holds that no other can share: its anonymous pages, in KiB. Pages of the program and its DLLs as
    they are in the file are not among them: they are the machine's, as on Windows."""

    STACK_SPACE = range(0x200000, 0x400000)  # a thread's stack with the room that Wine keeps behind it

    def __init__(self, pid):
        self.total = self.stacks = self.stack_count = 0
        self.threads = len(list(Path(f'/proc/{pid}/task').iterdir()))
        size = 0
        for line in open(f'/proc/{pid}/smaps', encoding='utf-8'):
            words = line.split()
            if '-' in words[0] and not words[0].endswith(':'):
                start, end = (int(x, 16) for x in words[0].split('-'))
                size = end - start if len(words) == 5 and words[1] == 'rw-p' else 0
            elif words[0] == 'Anonymous:':
                kilobytes = int(words[1])
                self.total += kilobytes
                # Wine touches nearly 1 MB of each stack before the thread begins, whoever starts it.
                if size in self.STACK_SPACE and kilobytes > 900:
                    self.stacks += kilobytes
                    self.stack_count += 1

    def __str__(self):
        return f'{self.total} KiB, of it {self.stacks} in {self.stack_count} stacks ({self.threads} threads alive)'


def _switches(pid):
    """Voluntary context switches of each thread by its id."""
    counts = {}
    for status in Path(f'/proc/{pid}/task').glob('*/status'):
        for line in status.read_text().splitlines():
            if line.startswith('voluntary_ctxt_switches'):
                counts[status.parent.name] = int(line.split()[1])
    return counts


def idle(prefix, figures):
    server = product.windows(f'{product.PRODUCT}/BenchIdleServer.exe')
    prefix.must(['sc', 'create', 'HalcydBenchIdle', 'binPath=', f'"{server}" -service', 'start=', 'demand'])
    prefix.must(['sc', 'start', 'HalcydBenchIdle'])
    _restart(prefix, first=True)
    time.sleep(REST_SECONDS)
    before = _switches(_process(prefix, 'Halcyd.exe'))
    time.sleep(IDLE_SECONDS)
    # A thread that ended meanwhile takes its count with it; one that came has all of its own.
    wakes = sum(count - before.get(thread, 0) for thread, count in _switches(_process(prefix, 'Halcyd.exe')).items())
    with_lab = _Memory(_process(prefix, 'Halcyd.exe'))
    _run(prefix, 'lab-off', 1)
    _restart(prefix)
    time.sleep(REST_SECONDS)
    uncalled = _Memory(_process(prefix, 'Halcyd.exe')), _Memory(_process(prefix, 'BenchIdleServer.exe'))
    _run(prefix, 'touch', 1)
    time.sleep(REST_SECONDS)
    mine, other = _Memory(_process(prefix, 'Halcyd.exe')), _Memory(_process(prefix, 'BenchIdleServer.exe'))
    figures.ratio('private memory at rest against an idle service', mine.total, other.total, 1.5, 'KiB',
                  f'both without the lab, after one client that came and went; {mine}; idle service {other}')
    figures.ratio('  the same before any client came', uncalled[0].total, uncalled[1].total, None, 'KiB',
                  f'{uncalled[0]}; idle service {uncalled[1]}: it has not answered a call, the product has called itself')
    figures.ratio('  the same but for the stacks', mine.total - mine.stacks, other.total - other.stacks, None, 'KiB',
                  f"what the product's own code and data take; with the lab in its process {with_lab}")
    figures.plain(f'wake-ups of all threads in {IDLE_SECONDS} s at rest', wakes, 0, '')
    prefix.run(['sc', 'stop', 'HalcydBenchIdle'])


def _restart(prefix, first=False):
    """The service, freshly started and running. It starts with Windows too."""
    _wait_for_state(prefix, 'RUNNING')
    if not first:
        prefix.must(['sc', 'stop', 'Halcyd'])
        _wait_for_state(prefix, 'STOPPED')
        time.sleep(1)  # its process goes a moment later
        prefix.must(['sc', 'start', 'Halcyd'])
        _wait_for_state(prefix, 'RUNNING')


def _wait_for_state(prefix, state, seconds=30):
    end = time.monotonic() + seconds
    while state not in prefix.run(['sc', 'query', 'Halcyd']).stdout:
        if time.monotonic() > end:
            raise Failure(f'the service is not {state} after {seconds} s')
        time.sleep(0.1)


def size(_prefix, figures):
    exe = build.folder('gcc') / 'Halcyd' / 'Halcyd.exe'
    figures.plain('stripped executable', exe.stat().st_size / 1e6, 2.0, 'MB')


BENCHES = {'calls': calls, 'start': start, 'open-call': open_call, 'events': events, 'trace': trace, 'idle': idle, 'size': size}


def main(name=None, json_file=None):
    if name and name not in BENCHES:
        raise Failure(f'no bench "{name}"; there are {", ".join(BENCHES)}')
    packages.ensure(packages.BUILD, packages.RUN)
    built = build.build('gcc', machine.NEEDED + PROGRAMS)
    base = product.installed(built)
    figures = Figures()
    for key, bench in BENCHES.items():
        if name and key != name:
            continue
        step = Step(f'measuring: {key}')
        with BenchPrefix.clone_of(base, name='bench') as prefix:
            for program in PROGRAMS:
                shutil.copy2(built / 'bench' / f'{program}.exe', prefix.c(product.PRODUCT))
            bench(prefix, figures)
        step.done()
    figures.show()
    if json_file:
        with open(json_file, 'w', encoding='utf-8') as out:
            json.dump({'figures': figures.rows}, out, indent=2)
        print(f'written to {json_file}')
    return 0
