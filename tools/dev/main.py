"""./dev: build, run, test, measure. Each command installs what is missing, builds what is stale, and says so."""
import argparse
import re
import signal
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent))

import build  # noqa: E402
import packages  # noqa: E402
from ui import Failure, bad  # noqa: E402


def command_build(options):
    packages.ensure(packages.BUILD, packages.TEST if options.preset == 'clang' else [])
    place = build.build(options.preset, options.target)
    print(f'built in {place.relative_to(build.ROOT)}')
    return 0


def command_test(options):
    import tests
    return tests.main(options.name, options.quick)


def command_run(options):
    import demo
    return demo.main(options.scenario, options.seconds)


def command_exec(options):
    import execute
    return execute.main(options.scenario, options.program)


def command_bench(options):
    import benchmarks
    return benchmarks.main(options.name, options.json)


def command_fuzz(options):
    import fuzzing
    return fuzzing.main(options.target, options.seconds)


def command_tidy(options):
    import tidy
    return tidy.main(options.name)


def pattern(text):
    try:
        re.compile(text)
    except re.error as error:
        raise argparse.ArgumentTypeError(f'"{text}" is no regular expression: {error}') from error
    return text


def seconds(text):
    if not text.isdigit() or int(text) == 0:
        raise argparse.ArgumentTypeError(f'"{text}" is no number of seconds from 1 on')
    return int(text)


class Help(argparse.HelpFormatter):
    """Wide enough for one line per command."""

    def __init__(self, prog):
        super().__init__(prog, max_help_position=28, width=110)


def parser():
    top = argparse.ArgumentParser(prog='./dev', description=__doc__, formatter_class=Help,
                                  epilog='./dev COMMAND --help tells more of each.')
    commands = top.add_subparsers(dest='command', metavar='COMMAND', title='commands')
    add = commands.add_parser
    commands.add_parser = lambda name, **more: add(name, formatter_class=Help, **more)

    one = commands.add_parser('run', help='the main job: service, clients and a simulated or the real network, live')
    one.add_argument('--scenario', default='laptop', help='laptop (default), desktop, ... or host: this machine\'s adapters')
    one.add_argument('--seconds', type=seconds, default=25, help='how long the live view lasts (default 25)')
    one.set_defaults(action=command_run)

    one = commands.add_parser('test', help='all tests, or those whose name matches')
    one.add_argument('name', nargs='?', type=pattern, help='regular expression, e.g. "unit: RegistryKey" or "system"')
    one.add_argument('--quick', action='store_true', help='leave out the second compiler')
    one.set_defaults(action=command_test)

    one = commands.add_parser('build', help='build what is stale')
    one.add_argument('--preset', choices=['gcc', 'clang', 'gcc-debug'], default='gcc')
    one.add_argument('target', nargs='*')
    one.set_defaults(action=command_build)

    one = commands.add_parser('bench', help='measurements, as ratios within one run')
    one.add_argument('name', nargs='?', help='one of them; a wrong name lists those that there are')
    one.add_argument('--json', metavar='FILE', help='write the numbers there too')
    one.set_defaults(action=command_bench)

    one = commands.add_parser('exec', help='run any Windows program or script with lab and service in place')
    one.add_argument('--scenario', default='laptop')
    one.add_argument('program', nargs='+', metavar='PROGRAM', help='behind --, with its arguments')
    one.set_defaults(action=command_exec)

    one = commands.add_parser('fuzz', help='random input for what needs no platform, natively, with sanitizers')
    one.add_argument('target', nargs='?', help='part of a name, e.g. IniText')
    one.add_argument('--seconds', type=seconds, default=20, help='for each target (default 20)')
    one.set_defaults(action=command_fuzz)

    one = commands.add_parser('tidy', help='clang-tidy over what ships (minutes)')
    one.add_argument('name', nargs='?', type=pattern, help='regular expression over file names')
    one.set_defaults(action=command_tidy)

    one = commands.add_parser('help', help='this text')
    one.set_defaults(action=lambda _: top.print_help() or 0)
    return top


def _end(number, _frame):
    """Ends like Ctrl+C: what was started is ended and removed on the way out."""
    raise KeyboardInterrupt(128 + number)


def main():
    commands = parser()
    options = commands.parse_args()
    if options.command is None:
        commands.print_help(sys.stderr)
        return 2
    signal.signal(signal.SIGTERM, _end)
    signal.signal(signal.SIGHUP, _end)
    try:
        return options.action(options)
    except Failure as failure:
        print(f'{bad("error:")} {failure}', file=sys.stderr)
        return 1
    except KeyboardInterrupt as ended:
        print()
        return ended.args[0] if ended.args else 130


if __name__ == '__main__':
    sys.exit(main())
