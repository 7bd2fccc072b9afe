"""./dev test: everything, or what matches a name; one summary line at the end."""
import re
import shutil
import subprocess
import sys
import threading
import time
import traceback
from concurrent.futures import ThreadPoolExecutor
from contextlib import contextmanager
from os import cpu_count

import build
import fuzzing
import googletest
import lint
import packages
import product
import terminalchecks
import wine
from googletest import Outcome
from ui import Failure, Step, bad, bold, dim, good

RESULTS = build.ROOT / 'build' / 'test-results'
SPEED = 10          # of the clock in suites that are named Fast10_...
START_LIMIT = 15    # seconds in which the services of a fast Windows have to be there
LOCK_ORDER = '_LockOrder'   # ends the name of suites that run against the service whose lock order is asserted
WORKERS = max(2, cpu_count() or 2)


class TestStep(Step):
    """A step that failed when a test of it did."""

    def __init__(self, name, tally):
        self.tally = tally
        self.before = tally.count('failed')
        super().__init__(name)

    def end(self, text):
        self.done(text, ok=self.tally.count('failed') == self.before)


class Tally:
    """Outcomes as they come, printed when they are bad."""

    def __init__(self):
        self.outcomes = []
        self.lock = threading.Lock()

    def add(self, outcome, where=''):
        with self.lock:
            self.outcomes.append(outcome)
            if outcome.verdict == 'failed' and not outcome.never_ran:    # the test that ended the program says why
                print(f'\r\033[K{bad("FAILED")} {outcome.name}' if bold('') else f'FAILED {outcome.name}')
                for line in outcome.detail.rstrip().splitlines()[:60]:
                    print('    ' + line)
                if where:
                    print('    ' + dim(f'left behind: {where}'))

    def step(self, name):
        return TestStep(name, self)

    def count(self, verdict):
        return sum(1 for o in self.outcomes if o.verdict == verdict)

    def summary(self, seconds):
        print()
        failed = [o for o in self.outcomes if o.verdict == 'failed']
        if failed:
            print(bad('failed:'))
            for outcome in failed:
                if not outcome.never_ran:
                    print(f'    {outcome.name}')
            never = sum(1 for o in failed if o.never_ran)
            if never:
                print(f'    and {never} that never ran, because their program ended or hung before')
        for outcome in (o for o in self.outcomes if o.verdict == 'skipped'):
            print(f'skipped: {outcome.name} {outcome.detail.splitlines()[0] if outcome.detail else ""}')
        again = [o.name for o in self.outcomes if o.started_again]
        if again:
            print(f'started a second time, as Wine had ended before the program began: {", ".join(again[:5])}'
                  + (f' and {len(again) - 5} more' if len(again) > 5 else ''))
        print(dim(f'{len(self.outcomes)} tests in {seconds:.0f} s'))
        skipped = f', {self.count("skipped")} skipped' if self.count('skipped') else ''
        print(f'{self.count("passed")} passed, {len(failed)} failed{skipped}', flush=True)
        return 0 if not failed and self.count('passed') else 1


def _matches(name, pattern):
    return not pattern or re.search(pattern, name, re.IGNORECASE)


def run_lint(tally, pattern):
    for name, check in lint.CHECKS.items():
        label = f'lint: {name}'
        if _matches(label, pattern):
            wrong = check()
            tally.add(Outcome(label, 'failed' if wrong else 'passed', '\n'.join(wrong)))


def run_script_tests(tally, pattern):
    """Tests of scripts that run on the host, one by one as unittest names them."""
    for path in sorted(p for room in ('lab', 'tools') for p in (build.ROOT / room).glob('**/test_*.py')):
        result = subprocess.run([sys.executable, '-B', '-m', 'unittest', '-v', path.stem], cwd=path.parent,
                                stdin=subprocess.DEVNULL, capture_output=True, text=True)
        found = re.findall(r'^(\w+) \(.*?\)(?:\n.*?)?? \.\.\. (ok|FAIL|ERROR|skipped.*)$', result.stderr, re.MULTILINE)
        for name, verdict in found:
            label = f'script: {path.stem}: {name}'
            if _matches(label, pattern):
                outcome = 'passed' if verdict == 'ok' else 'skipped' if verdict.startswith('skipped') else 'failed'
                tally.add(Outcome(label, outcome, '' if verdict == 'ok' else result.stderr[-3000:]))
        if (result.returncode != 0 or not found) and _matches(f'script: {path.stem}', pattern) and \
                all(verdict == 'ok' for _, verdict in found):
            tally.add(Outcome(f'script: {path.stem}', 'failed', result.stderr[-3000:]))


def run_fuzz(tally, pattern):
    """A short run of each fuzz target; ./dev fuzz is for the long ones."""
    names = [p.stem.removesuffix('Fuzz') for p in sorted((build.ROOT / 'tests' / 'fuzz').glob('*Fuzz.cpp'))]
    wanted = [n for n in names if _matches(f'fuzz: {n}', pattern)]
    if not wanted:
        return
    programs = fuzzing.compile_targets()
    step = tally.step('fuzz targets')
    for name in wanted:
        held, count, said = fuzzing.run_target(name, programs[name], f'-runs={fuzzing.SMOKE_RUNS}')
        held = held and count >= fuzzing.SMOKE_RUNS
        tally.add(Outcome(f'fuzz: {name}', 'passed' if held else 'failed', said[-4000:]),
                  fuzzing.FOLDER.relative_to(build.ROOT) / 'found')
    step.end(f'{len(wanted)} targets, {fuzzing.SMOKE_RUNS} inputs each')


def run_unit(tally, built, preset, pattern):
    programs = sorted((built / 'tests' / 'unit').glob('UnitTests*.exe'))
    base = wine.template()
    step = tally.step(f'unit tests ({preset})')
    before = len(tally.outcomes)

    def one(program):
        with wine.Prefix.clone_of(base, name='unit') as prefix:
            names = googletest.list_tests(prefix, program)
            wanted = [n for n in names if _matches(f'unit: {n}', pattern)]
            if not wanted:
                return
            whole = wanted == names
            outcomes, _ = googletest.run(prefix, program, wanted, RESULTS / f'{preset}-{program.stem}.json',
                                         pattern='*' if whole else None, timeout=300)
            for outcome in outcomes:
                outcome.name = f'unit ({preset}): {outcome.name}'
                tally.add(outcome)
                step.note(f'{len(tally.outcomes) - before}')

    with ThreadPoolExecutor(WORKERS) as pool:
        list(pool.map(one, programs))
    step.end(f'{len(tally.outcomes) - before} tests')


def run_runner_checks(tally, built, pattern):
    """The runner itself: programs that crash, fail, hang or leave in the middle must read as failures."""
    probe = built / 'tests' / 'runner' / 'RunnerProbe.exe'
    expected = {'Probe.Passes': 'passed', 'Probe.Fails': 'failed', 'Probe.WritesThroughANullPointer': 'failed',
                'Probe.ThrowsOnAThread': 'failed', 'Probe.Aborts': 'failed', 'Probe.LeavesWithZeroInTheMiddle': 'failed',
                'Probe.TerminatesItselfWithZero': 'failed', 'Probe.Hangs': 'failed', 'Probe.CrashesOnTheWayOut': 'failed'}
    if not probe.exists() or not any(_matches(f'runner: {n}', pattern) for n in expected):
        return
    step = tally.step('the test runner itself')

    def one(item):
        name, verdict = item
        with wine.Prefix.clone_of(wine.template(), name='runner') as prefix:
            outcomes, _ = googletest.run(prefix, probe, [name], RESULTS / 'runner' / f'{name}.json',
                                         timeout=5 if name.endswith('Hangs') else 60)
        got = outcomes[0].verdict
        label = f'runner: {name} reads as {verdict}'
        tally.add(Outcome(label, 'passed' if got == verdict else 'failed', f'it read as {got}'))

    with ThreadPoolExecutor(WORKERS) as pool:
        list(pool.map(one, expected.items()))
    step.end(f'{len(expected)} checks')


def run_system(tally, built, pattern):
    program = built / 'tests' / 'system' / 'HalcydSystemTests.exe'
    scripts = sorted((build.ROOT / 'tests' / 'automation').glob('*.vbs')) + \
        sorted((build.ROOT / 'tests' / 'automation').glob('*.js'))
    with wine.Prefix.clone_of(wine.template(), name='list') as prefix:
        names = googletest.list_tests(prefix, program) if program.exists() else []
    work = [('test', n) for n in names if _matches(f'system: {n}', pattern)]
    work += [('script', s) for s in scripts if _matches(f'automation: {s.stem}', pattern)]
    if not work:
        return
    base = product.installed(built)
    step = tally.step('system tests')
    finished = [0]

    def one(item):
        kind, what = item
        outcomes = _script(base, what) if kind == 'script' else _system_test(base, built, program, what)
        for outcome, where in outcomes:
            tally.add(outcome, where)
        finished[0] += 1
        step.note(f'{finished[0]} of {len(work)}  {what if kind == "test" else what.stem}')

    with ThreadPoolExecutor(WORKERS) as pool:
        list(pool.map(one, work))
    step.end(f'{len(work)} in prefixes of their own')


def _boot_fast(prefix):
    """Starts a fast Windows and tells whether its services came up. The clock makes the limits of their start short too:
    on a loaded machine COM gives up on the trace service before that can answer, and without it the service ends."""
    prefix.boot()
    limit = time.monotonic() + START_LIMIT
    while time.monotonic() < limit:
        if any(prefix.c('ProgramData/QRLS/Sorvane/Data/Trace').glob('Trace-*')):
            return True
        time.sleep(0.1)
    return False


@contextmanager
def _windows_for_test(base, speed, service=None):
    """A clone that runs, with another service executable in the shipped one's place if one is given. A fast one whose
    services did not come up is thrown away for another; the last one is used as it is, and the test says what is wrong."""
    for attempt in range(3):
        with wine.Prefix.clone_of(base, speed=speed, name='system') as prefix:
            if service:
                shutil.copy2(service, prefix.c(product.PRODUCT))    # before anything has started it
            if speed == 1 or _boot_fast(prefix) or attempt == 2:
                yield prefix
                return


def _system_test(base, built, program, name):
    speed = SPEED if name.startswith('Fast10_') else 1
    evidence = RESULTS / 'system' / name
    shutil.rmtree(evidence, ignore_errors=True)
    checked = built / 'Halcyd' / 'lockorder' / 'Halcyd.exe' if name.split('.')[0].endswith(LOCK_ORDER) else None
    with _windows_for_test(base, speed, checked) as prefix:
        outcomes, result = googletest.run(prefix, program, [name], evidence / 'report.json', timeout=240)
        outcome = outcomes[0]
        outcome.name = f'system: {name}'
        if outcome.verdict == 'failed':
            (evidence / 'output.txt').write_text(result.stdout)
            product.keep_evidence(prefix, evidence)
            return [(outcome, evidence.relative_to(build.ROOT))]
    shutil.rmtree(evidence, ignore_errors=True)
    return [(outcome, '')]


def _script(base, script):
    """A late-bound client. It prints 'ok NAME' or 'not ok NAME: why' for each check and 'done' at its end."""
    evidence = RESULTS / 'automation' / script.stem
    shutil.rmtree(evidence, ignore_errors=True)
    with wine.Prefix.clone_of(base, name='script') as prefix:
        result = prefix.run(['cscript', '//nologo', 'Z:' + str(script).replace('/', '\\')], timeout=180)
        outcomes = _lines_of_checks(result.stdout, f'automation: {script.stem}')
        # A statement that raises under "On Error Resume Next" is passed over, a check as well: each one that stands at
        # the left margin has to have spoken.
        written = len(re.findall(r'^(?:Check|Succeeds|Lab) ', script.read_text(encoding='utf-8'), re.MULTILINE))
        if len(outcomes) < written:
            outcomes.append(Outcome(f'automation: {script.stem}: every check is made', 'failed',
                                    f'{len(outcomes)} of {written}\n{result.stdout[-2000:]}'))
        if result.returncode != 0 or 'done' not in result.stdout.split():
            outcomes.append(Outcome(f'automation: {script.stem}', 'failed',
                                    f'ended early with {result.returncode}\n{result.stdout[-2000:]}'))
        if any(o.verdict == 'failed' for o in outcomes):
            product.keep_evidence(prefix, evidence)
            (evidence / 'output.txt').write_text(result.stdout)
            return [(o, evidence.relative_to(build.ROOT)) for o in outcomes]
    return [(o, '') for o in outcomes]


def run_terminal(tally, built, pattern):
    """The client as a person at a terminal has it."""
    wanted = [(f'terminal: {check.__name__}', check) for check in terminalchecks.CHECKS]
    wanted = [(label, check) for label, check in wanted if _matches(label, pattern)]
    if not wanted:
        return
    base = product.installed(built)
    step = tally.step('the client on a terminal')

    def one(item):
        label, check = item
        evidence = RESULTS / 'terminal' / check.__name__
        with wine.Prefix.clone_of(base, name='terminal') as prefix:
            try:
                results = terminalchecks.run(prefix, check)
            except Exception:   # a check that breaks is one that fails, and the others go on
                results = [('runs to its end', traceback.format_exc())]
            if any(why is not None for _, why in results):
                product.keep_evidence(prefix, evidence)
        for name, why in results:
            outcome = Outcome(f'{label}: {name}', 'passed' if why is None else 'failed', str(why))
            tally.add(outcome, evidence.relative_to(build.ROOT) if why is not None else '')
        return len(results)

    with ThreadPoolExecutor(WORKERS) as pool:
        count = sum(pool.map(one, wanted))
    step.end(f'{count} checks')


def run_host_network(tally, built, pattern):
    """A real interface of this machine, in a network namespace made for it, down to a client's events."""
    label = 'host: real interface'
    if not _matches(label, pattern):
        return
    allowed = subprocess.run(['unshare', '-rn', 'true'], capture_output=True, text=True)
    if allowed.returncode != 0:
        tally.add(Outcome(label, 'skipped', f'no network namespace here: {allowed.stderr.strip()}'))
        return
    step = tally.step('a real interface')
    evidence = RESULTS / 'host'
    with wine.Prefix.clone_of(product.installed(built), name='host') as prefix:
        try:
            result = subprocess.run(['unshare', '-rn', sys.executable, '-B', str(build.ROOT / 'tools' / 'dev' / 'hostnetwork.py'),
                                     str(prefix.path)], capture_output=True, text=True, timeout=400, stdin=subprocess.DEVNULL)
            code, said, wrong = result.returncode, result.stdout, result.stderr
        except subprocess.TimeoutExpired as late:
            code, said, wrong = -1, (late.stdout or b'').decode(), 'ran out of time'
        outcomes = _lines_of_checks(said, label)
        for line in said.splitlines():
            if line.startswith('skip: '):
                tally.add(Outcome(label, 'skipped', line[6:]))
                step.end('skipped')
                return
        if code != 0 or 'done' not in said.split():
            outcomes.append(Outcome(label, 'failed', f'ended early with {code}\n{said[-1000:]}\n{wrong[-2000:]}'))
        failed = any(o.verdict == 'failed' for o in outcomes)
        if failed:
            product.keep_evidence(prefix, evidence)
        for outcome in outcomes:
            tally.add(outcome, evidence.relative_to(build.ROOT) if outcome.verdict == 'failed' else '')
    step.end(f'{len(outcomes)} checks')


def _lines_of_checks(text, label):
    """'ok NAME' and 'not ok NAME: why', a line each, as outcomes."""
    outcomes = []
    for line in text.splitlines():
        match = re.match(r'(not ok|ok) (.*)', line.strip())
        if match:
            name, _, why = match.group(2).partition(': ')
            outcomes.append(Outcome(f'{label}: {name}', 'passed' if match.group(1) == 'ok' else 'failed', why))
    return outcomes


def main(pattern=None, quick=False):
    started = time.monotonic()
    packages.ensure(packages.BUILD, packages.RUN, packages.TEST)
    shutil.rmtree(RESULTS, ignore_errors=True)
    RESULTS.mkdir(parents=True)
    wine.sweep()
    tally = Tally()
    run_lint(tally, pattern)
    run_script_tests(tally, pattern)
    try:
        built = build.build('gcc')
    except Failure as failure:
        tally.add(Outcome('build (gcc)', 'failed', str(failure)))
        return tally.summary(time.monotonic() - started)
    run_runner_checks(tally, built, pattern)
    run_unit(tally, built, 'gcc', pattern)
    run_fuzz(tally, pattern)
    run_system(tally, built, pattern)
    run_terminal(tally, built, pattern)
    run_host_network(tally, built, pattern)
    if not quick and not pattern:
        try:
            run_unit(tally, build.build('clang'), 'clang', pattern)
        except Failure as failure:
            tally.add(Outcome('build (clang)', 'failed', str(failure)))
    if not tally.outcomes:
        raise Failure(f'no test matches "{pattern}"')
    return tally.summary(time.monotonic() - started)
