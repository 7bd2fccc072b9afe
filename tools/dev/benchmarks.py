"""./dev bench: each figure is a ratio of two things measured in the same run, in turn; absolute times are shown for
orientation only. Exit code 0 whatever the figures are: a busy machine must not turn into a red build."""
import copy
import json
import shutil
import time
from pathlib import Path

import build
import packages
import product
import wine
from ui import Failure, Step, bad, bold, dim, good

ADAPTERS = 10
IDLE_SECONDS = 10


class Figures:
    def __init__(self):
        self.rows = []

    def add(self, name, value, limit, detail, unit='x'):
        self.rows.append({'name': name, 'value': value, 'unit': unit, 'detail': detail,
                          'within': None if limit is None else bool(limit(value))})

    def show(self):
        print()
        for row in self.rows:
            verdict = dim('-') if row['within'] is None else good('within') if row['within'] else bad('short ')
            value = f"{row['value']:.2f} {row['unit']}" if isinstance(row['value'], float) else f"{row['value']} {row['unit']}"
            print(f"{row['name']:<46} {bold(f'{value:>14}')}  {verdict}  {dim(row['detail'])}")
        print()
        print(dim('Measured on this machine in this run; other work on it shifts every figure.'))


def _at_most(limit):
    def check(value):
        return value <= limit
    return check


def _at_least(limit):
    def check(value):
        return value >= limit
    return check


def _run(prefix, what, count, timeout=300):
    output = prefix.must([product.windows(f'{product.PRODUCT}/HalcydBench.exe'), what, str(count)], timeout)
    for line in output.splitlines():
        if line.startswith('{'):
            return json.loads(line)
    raise Failure(f'HalcydBench {what} printed no result:\n{output}')


def _ten_adapters(folder):
    """A scenario of wired adapters only, so that the list has exactly as many as the figure speaks of."""
    scenario = json.loads((build.ROOT / 'lab' / 'scenarios' / 'laptop.json').read_text())
    model = next(a for a in scenario['adapters'] if a.get('name') == 'eth0')
    adapters = []
    for number in range(1, ADAPTERS + 1):
        adapter = copy.deepcopy(model)
        text = json.dumps(adapter).replace(model['guid'], f'{{4A1C7E{number:02X}-3B52-4D0F-9E61-0C5D8A2B{number:04X}}}')
        adapter = json.loads(text)
        adapter.update(name=f'eth{number}', index=number, mac=f'02:00:5E:00:54:{number:02X}')
        adapters.append(adapter)
    scenario['adapters'] = adapters
    path = folder / 'ten.json'
    path.write_text(json.dumps(scenario))
    return 'Z:' + str(path).replace('/', '\\')


def calls(prefix, figures):
    product.labctl(prefix, 'load', _ten_adapters(prefix.path))
    got = _run(prefix, 'calls', 400)
    if int(got['adapters']) != ADAPTERS:
        raise Failure(f"the list has {got['adapters']:.0f} adapters where {ADAPTERS} were expected")
    figures.add('adapter list against a null call, p50', got['list_p50_ns'] / got['null_p50_ns'], _at_most(1.5),
                f"{got['list_p50_ns'] / 1e3:.0f} us against {got['null_p50_ns'] / 1e3:.0f} us, at most 1.5")


def start(prefix, figures):
    got = _run(prefix, 'start', 9)
    figures.add('start to running against an idle service, p50', got['product_p50_ns'] / got['idle_p50_ns'], _at_most(1.3),
                f"{got['product_p50_ns'] / 1e6:.0f} ms against {got['idle_p50_ns'] / 1e6:.0f} ms, at most 1.3")


def trace(prefix, figures):
    got = _run(prefix, 'trace-cost', 60)
    figures.add('accepted trace line against spdlog async, p50', got['accepted_p50_ns'] / got['spdlog_p50_ns'], _at_most(2.0),
                f"{got['accepted_p50_ns']:.0f} ns against {got['spdlog_p50_ns']:.0f} ns, at most 2")
    figures.add('rejected plain trace line, p50', got['rejected_p50_ns'], _at_most(50.0), 'at most 50 ns', 'ns')
    got = _run(prefix, 'trace-delivery', 4000)
    figures.add('trace lines per second against bare COM calls', got['lines_per_second'] / got['bare_calls_per_second'],
                _at_least(0.8), f"{got['lines_per_second']:.0f} against {got['bare_calls_per_second']:.0f}, at least 0.8")


def _process(prefix, name):
    for pid in prefix.processes():
        try:
            if open(f'/proc/{pid}/comm', encoding='utf-8').read().strip() == name[:15]:
                return pid
        except OSError:
            continue
    raise Failure(f'{name} is not running')


def _private_kilobytes(pid):
    total = 0
    for line in open(f'/proc/{pid}/smaps_rollup', encoding='utf-8'):
        if line.startswith(('Private_Clean:', 'Private_Dirty:')):
            total += int(line.split()[1])
    return total


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
    prefix.run(['sc', 'start', 'Halcyd'])
    time.sleep(3)  # both come to rest
    ours, other = _process(prefix, 'Halcyd.exe'), _process(prefix, 'BenchIdleServer.exe')
    mine, yardstick = _private_kilobytes(ours), _private_kilobytes(other)
    figures.add('private memory at rest against an idle service', mine / yardstick, _at_most(1.5),
                f'{mine} KiB against {yardstick} KiB, at most 1.5')
    before = _switches(ours)
    time.sleep(IDLE_SECONDS)
    # A thread that ended meanwhile takes its count with it; one that came has all of its own.
    wakes = sum(count - before.get(thread, 0) for thread, count in _switches(ours).items())
    figures.add(f'wake-ups of all threads in {IDLE_SECONDS} s at rest', wakes, _at_most(0), 'none', '')
    prefix.run(['sc', 'stop', 'HalcydBenchIdle'])


def size(_prefix, figures):
    exe = build.folder('gcc') / 'Halcyd' / 'Halcyd.exe'
    figures.add('stripped executable', exe.stat().st_size / 1e6, _at_most(2.0), 'under 2 MB', 'MB')


BENCHES = {'calls': calls, 'start': start, 'trace': trace, 'idle': idle, 'size': size}


def main(name=None, json_file=None):
    if name and name not in BENCHES:
        raise Failure(f'no bench "{name}"; there are {", ".join(BENCHES)}')
    packages.ensure(packages.BUILD, packages.RUN)
    built = build.build('gcc')
    base = product.installed(built)
    figures = Figures()
    for key, bench in BENCHES.items():
        if name and key != name:
            continue
        step = Step(f'measuring: {key}')
        with wine.Prefix.clone_of(base, name='bench') as prefix:
            for program in ('HalcydBench.exe', 'BenchIdleServer.exe'):
                shutil.copy2(built / 'bench' / program, prefix.c(product.PRODUCT))
            bench(prefix, figures)
        step.done()
    figures.show()
    if json_file:
        with open(json_file, 'w', encoding='utf-8') as out:
            json.dump({'figures': figures.rows}, out, indent=2)
        print(f'written to {json_file}')
    return 0
