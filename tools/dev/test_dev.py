"""What ./dev answers before it builds or starts anything: help, wrong words, names that do not exist."""
import io
import subprocess
import sys
import tempfile
import unittest
from contextlib import ExitStack, contextmanager, redirect_stdout
from pathlib import Path
from unittest import mock

sys.path.insert(0, str(Path(__file__).parent))

import execute  # noqa: E402
import machine  # noqa: E402
from ui import Failure  # noqa: E402

MAIN = Path(__file__).with_name('main.py')
COMMANDS = ('run', 'test', 'build', 'bench', 'exec', 'fuzz', 'help')


def dev(*words):
    return subprocess.run([sys.executable, '-B', MAIN, *words], capture_output=True, text=True, stdin=subprocess.DEVNULL,
                          timeout=60)


class Help(unittest.TestCase):
    def test_help_and_its_options_list_every_command(self):
        for words in (['help'], ['--help'], ['-h']):
            done = dev(*words)
            self.assertEqual(done.returncode, 0, words)
            for command in COMMANDS:
                self.assertRegex(done.stdout, rf'(?m)^ +{command} +\S', words)

    def test_no_command_shows_the_help_and_is_an_error(self):
        done = dev()
        self.assertEqual((done.returncode, done.stdout), (2, ''))
        self.assertIn('commands:', done.stderr)

    def test_every_command_has_help(self):
        for command in COMMANDS:
            done = dev(command, '--help')
            self.assertEqual(done.returncode, 0, command)
            self.assertIn(f'./dev {command}', done.stdout)


class WrongWords(unittest.TestCase):
    def refused(self, *words):
        done = dev(*words)
        self.assertEqual(done.returncode, 2, words)
        self.assertNotIn('Traceback', done.stderr)
        return done.stderr

    def test_unknown_command_names_those_that_there_are(self):
        self.assertIn("'run', 'test'", self.refused('frobnicate'))

    def test_name_that_is_no_regular_expression_is_told(self):
        self.assertIn('no regular expression', self.refused('test', '['))

    def test_seconds_are_a_number_from_1_on(self):
        for text in ('x', '0', '-1', ''):
            self.assertIn('seconds', self.refused('run', '--seconds', text))

    def test_json_without_a_file_is_told(self):
        self.assertIn('--json', self.refused('bench', '--json'))


class Names(unittest.TestCase):
    def test_unknown_scenario_is_told_before_anything_is_built(self):
        with self.assertRaisesRegex(Failure, 'there are .*laptop.*host'):
            machine.check_scenario('nope')
        machine.check_scenario('laptop')
        machine.check_scenario('host')

    def test_script_that_is_not_there_is_told_before_anything_is_built(self):
        for name in ('nosuch.vbs', 'folder/nosuch.js', 'nosuch.cmd'):
            with self.assertRaisesRegex(Failure, f'no file {name}'):
                execute.check_program([name])

    def test_programs_and_names_of_windows_are_left_to_windows(self):
        for name in ('halcydctl', 'cmd', 'C:\\scripts\\a.vbs', 'reg.exe', str(MAIN)):
            execute.check_program([name, 'nosuch.vbs'])


class FakePrefix:
    """A Windows that is only a folder."""

    def __init__(self, path):
        self.path = path

    def c(self, *parts):
        return self.path / 'drive_c' / Path(*parts)

    def boot(self):
        journal = self.c('ProgramData/HalcydLab/journal.jsonl')
        journal.parent.mkdir(parents=True)
        journal.write_text('what was called')


class Evidence(unittest.TestCase):
    def running(self, start_service):
        """The run of a command in a Windows whose service starts, or not, as told."""
        @contextmanager
        def clone(_base, name):
            yield FakePrefix(self.root / name)

        with ExitStack() as stack:
            self.root = Path(stack.enter_context(tempfile.TemporaryDirectory()))
            for patch in (mock.patch.multiple(machine, prepare=lambda: ('built', 'base'), load=lambda *_: None,
                                              start_service=start_service, check_scenario=lambda _: None),
                          mock.patch.object(machine.wine.Prefix, 'clone_of', clone),
                          mock.patch.object(machine.build, 'ROOT', self.root),
                          redirect_stdout(io.StringIO())):
                stack.enter_context(patch)
            try:
                with machine.running('run', 'laptop'):
                    pass
                return None, []
            except Failure as failure:
                return str(failure), sorted(p.name for p in (self.root / 'build').glob('**/*') if p.is_file())

    def test_failed_start_keeps_its_files_and_says_where(self):
        def never(_prefix):
            raise Failure('the service did not come up')
        said, kept = self.running(never)
        self.assertEqual(said, 'the service did not come up\nleft behind: build/run-failed')
        self.assertEqual(kept, ['journal.jsonl'])

    def test_run_that_goes_well_leaves_nothing(self):
        self.assertEqual(self.running(lambda _: None), (None, []))


class Words(unittest.TestCase):
    def test_a_script_gets_its_interpreter_and_the_name_under_which_windows_sees_it(self):
        script = MAIN.parents[2] / 'tests' / 'automation' / 'objects.vbs'
        self.assertEqual(execute.command_line([str(script), 'x']),
                         ['cscript', '//nologo', 'Z:' + str(script).replace('/', '\\'), 'x'])

    def test_switches_of_windows_programs_stay_as_they_are(self):
        self.assertEqual(execute.command_line(['net', 'start', '/y']), ['net', 'start', '/y'])


if __name__ == '__main__':
    unittest.main()
