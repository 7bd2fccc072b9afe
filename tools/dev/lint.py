"""Checks that need no compiler: layout, direction of includes, paths of somebody's machine, names of tests in documents."""
import re
import subprocess
from build import ROOT

# Who may include whom. A room that is not listed here may include anything.
ALLOWED = {
    'ComSupport': {'ComSupport'},
    'NetUtilities': {'NetUtilities'},
    'WiFiWrap': {'WiFiWrap', 'NetUtilities'},
    'Tunvex': {'Tunvex', 'NetUtilities'},
    'Halcyd': {'Halcyd', 'WiFiWrap', 'Tunvex', 'NetUtilities', 'ComSupport'},
    'HalcydPS': {'HalcydPS'},
    'clients': {'clients', 'NetUtilities'},
    'lab': {'lab'},
}
ROOMS = set(ALLOWED) | {'tests', 'bench'}


def tracked(*patterns):
    listed = subprocess.run(['git', 'ls-files', '-co', '--exclude-standard', '--', *patterns], cwd=ROOT,
                            capture_output=True, text=True)
    return [name for name in listed.stdout.splitlines() if (ROOT / name).is_file()]


def includes():
    """Lines of includes that point against the direction of dependencies."""
    wrong = []
    for name in tracked('*.h', '*.cpp', '*.c'):
        room = name.split('/')[0]
        if room not in ALLOWED:
            continue
        for number, line in enumerate((ROOT / name).read_text(errors='replace').splitlines(), 1):
            match = re.match(r'\s*#\s*include\s+"([^"/]+)/', line)
            if match and match.group(1) in ROOMS and match.group(1) not in ALLOWED[room]:
                wrong.append(f'{name}:{number}: {line.strip()}')
    return wrong


def layout():
    names = tracked('*.h', '*.cpp', '*.c')
    if not names:
        return []
    result = subprocess.run(['clang-format-19', '--dry-run', '-Werror', *names], cwd=ROOT, capture_output=True, text=True)
    return sorted({line.split(':')[0] for line in result.stderr.splitlines() if ': error:' in line or ': warning:' in line})


def machine_paths():
    """Nothing committed names a folder of the machine that it was written on."""
    home = re.compile(r'(?<![\w.])/(?:root|home/\w+|work)/')
    wrong = []
    for name in tracked():
        if name.startswith('tools/dev/lint.py'):
            continue
        try:
            text = (ROOT / name).read_text()
        except UnicodeDecodeError:
            continue
        for number, line in enumerate(text.splitlines(), 1):
            if home.search(line):
                wrong.append(f'{name}:{number}: {line.strip()[:100]}')
    return wrong


def named_tests():
    """Tests that the list of known behaviours names and that are not there (any more)."""
    there = set()
    for name in tracked('tests/*.cpp'):
        text = (ROOT / name).read_text(errors='replace')
        there |= {f'{suite}.{test}' for suite, test in re.findall(r'^TEST(?:_F)?\(\s*(\w+),\s*(\w+)\s*\)', text, re.M)}
    listed = 'docs/known-behaviours.md'
    named = re.findall(r'`([A-Z]\w+\.[A-Z]\w{11,})`', (ROOT / listed).read_text())
    return [f'{listed}: {name}' for name in named if name not in there]


def switched_off():
    """Tests that GoogleTest would leave out without a word."""
    wrong = []
    for name in tracked('tests/*.cpp', 'tests/*.h'):
        for number, line in enumerate((ROOT / name).read_text(errors='replace').splitlines(), 1):
            if 'DISABLED_' in line:
                wrong.append(f'{name}:{number}: {line.strip()}')
    return wrong


CHECKS = {
    'layout follows .clang-format': layout,
    'includes point one way': includes,
    'no path of a machine': machine_paths,
    'tests named in the documents exist': named_tests,
    'no test is switched off': switched_off,
}
