"""What counts as a passed test: only what the program itself reported and its exit code bears out."""
import json
import sys
import tempfile
import unittest
from collections import namedtuple
from contextlib import redirect_stdout
from io import StringIO
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent))

import googletest  # noqa: E402
import tests  # noqa: E402

Result = namedtuple('Result', 'returncode stdout')


def report_of(*verdicts):
    """A report with tests S.t0, S.t1 ..., each passed, failed or skipped."""
    suite = []
    for number, verdict in enumerate(verdicts):
        test = {'name': f't{number}', 'status': 'RUN', 'result': 'SKIPPED' if verdict == 'skipped' else 'COMPLETED'}
        if verdict == 'failed':
            test['failures'] = [{'failure': 'why'}]
        suite.append(test)
    return json.dumps({'testsuites': [{'name': 'S', 'testsuite': suite}]})


class FakePrefix:
    """Runs nothing: gives the next of the results, and leaves its report behind."""

    def __init__(self, report, *runs):
        self.report = report
        self.runs = list(runs)      # (exit code, output, report or None)

    def run(self, command, timeout, extra):
        returncode, stdout, report = self.runs.pop(0)
        if report:
            self.report.write_text(report, encoding='utf-8')
        return Result(returncode, stdout)


class Verdicts(unittest.TestCase):
    def run_tests(self, count, *runs):
        with tempfile.TemporaryDirectory() as folder:
            report = Path(folder) / 'report.json'
            self.prefix = FakePrefix(report, *runs)
            outcomes, _ = googletest.run(self.prefix, 'program', [f'S.t{n}' for n in range(count)], report)
        return outcomes

    def verdicts(self, count, *runs):
        return [o.verdict for o in self.run_tests(count, *runs)]

    def test_reported_verdicts_are_taken(self):
        run = (1, 'banner', report_of('passed', 'failed', 'skipped'))
        self.assertEqual(self.verdicts(3, run), ['passed', 'failed', 'skipped'])

    def test_exit_code_0_without_a_report_is_a_failure(self):
        self.assertEqual(self.verdicts(1, (0, 'banner', None)), ['failed'])

    def test_bad_exit_code_after_good_tests_fails_the_last_one(self):
        self.assertEqual(self.verdicts(2, (70, 'banner', report_of('passed', 'passed'))), ['passed', 'failed'])

    def test_crash_in_the_middle_fails_its_test_and_those_behind_it_never_ran(self):
        said = '[ RUN      ] S.t0\n[       OK ] S.t0 (1 ms)\n[ RUN      ] S.t1\n'
        outcomes = self.run_tests(3, (70, said, None))
        self.assertEqual([o.verdict for o in outcomes], ['passed', 'failed', 'failed'])
        self.assertEqual([o.never_ran for o in outcomes], [False, False, True])

    def test_program_that_said_nothing_and_ended_with_1_is_started_once_more_and_that_is_told(self):
        outcomes = self.run_tests(1, (1, '', None), (0, 'banner', report_of('passed')))
        self.assertEqual([(o.verdict, o.started_again) for o in outcomes], [('passed', True)])
        said = StringIO()
        with redirect_stdout(said):
            tally = tests.Tally()
            tally.add(outcomes[0])
            tally.summary(1)
        self.assertIn('started a second time, as Wine had ended before the program began: S.t0', said.getvalue())

    def test_program_that_says_nothing_twice_has_failed(self):
        self.assertEqual(self.verdicts(1, (1, '', None), (1, '', None)), ['failed'])

    def test_failing_program_that_spoke_is_not_started_again(self):
        self.run_tests(1, (1, 'banner', report_of('failed')), (0, 'banner', report_of('passed')))
        self.assertEqual(len(self.prefix.runs), 1)


if __name__ == '__main__':
    unittest.main()
