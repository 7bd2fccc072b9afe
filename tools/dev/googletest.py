"""Running GoogleTest programs so that nothing but a finished, successful test reads as a pass."""
import json
import re
from dataclasses import dataclass

CRASHED = 'did not finish: the program ended in the middle'


@dataclass
class Outcome:
    name: str           # Suite.Test
    verdict: str        # passed, failed or skipped
    detail: str = ''    # why
    seconds: float = 0.0
    never_ran: bool = False     # another test of the same program did not let it come to that
    started_again: bool = False     # Wine ended before its program had begun, the first time


def parse_list(text):
    """Names from --gtest_list_tests."""
    names, suite = [], ''
    for line in text.splitlines():
        line = line.split('#')[0].rstrip()
        if re.match(r'^\S+\.$', line):
            suite = line
        elif line.startswith('  ') and suite:
            names.append(suite + line.strip())
    return names


def list_tests(prefix, program):
    return parse_list(prefix.must([program, '--gtest_list_tests']))


def _results(path):
    """What the program itself reported: name -> Outcome. Empty if it never got to write its report."""
    try:
        report = json.loads(path.read_text(encoding='utf-8', errors='replace'))
    except (OSError, ValueError):
        return {}
    outcomes = {}
    for suite in report.get('testsuites', []):
        for test in suite.get('testsuite', []):
            name = f"{suite['name']}.{test['name']}"
            seconds = float(test.get('time', '0s').rstrip('s'))
            if test.get('status') != 'RUN':
                continue
            if test.get('result') == 'SKIPPED':
                outcomes[name] = Outcome(name, 'skipped', '', seconds)
            elif test.get('failures'):
                why = '\n'.join(failure['failure'] for failure in test['failures'])
                outcomes[name] = Outcome(name, 'failed', why, seconds)
            else:
                outcomes[name] = Outcome(name, 'passed', '', seconds)
    return outcomes


def run(prefix, program, names, report, pattern=None, timeout=300, extra=None):
    """Runs the named tests in one process. A test counts as passed only if the program said so in its report and
    ended with the code that fits; a test without a report failed, whatever the exit code was."""
    report.parent.mkdir(parents=True, exist_ok=True)
    report.unlink(missing_ok=True)
    windows_report = 'Z:' + str(report).replace('/', '\\')
    command = [program, f'--gtest_filter={pattern or ":".join(names)}', f'--gtest_output=json:{windows_report}',
               '--gtest_color=no']
    result = prefix.run(command, timeout, extra)
    # Wine now and then does not get as far as the program: not a word, not even the banner. Nothing of ours has run yet,
    # so it is started once more, and the summary says so.
    started_again = result.returncode == 1 and not result.stdout
    if started_again:
        result = prefix.run(command, timeout, extra)
    reported = _results(report)
    outcomes = []
    for name in names:
        outcome = reported.get(name)
        if outcome is None:
            started = f'[ RUN      ] {name}' in result.stdout
            ended = re.search(r'\[\s+(OK|FAILED|SKIPPED)\s+\] ' + re.escape(name) + r'\b', result.stdout)
            if ended and ended.group(1) == 'OK' and started:
                # Finished before the crash of a later one: its own checks all held.
                outcome = Outcome(name, 'passed')
            else:
                why = 'ran out of time' if result.returncode == -1 else f'{CRASHED} (exit code {result.returncode})'
                tail = result.stdout[-3000:] if started else ''
                outcome = Outcome(name, 'failed', f'{why if started else "never ran: " + why}\n{tail}',
                                  never_ran=not started and '[ RUN      ]' in result.stdout)
        outcome.started_again = started_again
        outcomes.append(outcome)
    # All tests fine but the program says otherwise: a crash on the way out.
    if result.returncode != 0 and all(o.verdict != 'failed' for o in outcomes):
        last = outcomes[-1]
        last.verdict, last.detail = 'failed', f'the program ended with {result.returncode} after its tests\n{result.stdout[-2000:]}'
    return outcomes, result
