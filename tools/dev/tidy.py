"""./dev tidy: clang-tidy over what ships. Too slow for every test run; worth it before a change is handed in."""
import re
import subprocess
from concurrent.futures import ThreadPoolExecutor
from os import cpu_count

import build
import lint
import packages
from ui import Failure, Step

ROOMS = ['ComSupport', 'NetUtilities', 'WiFiWrap', 'Tunvex', 'Halcyd', 'clients']
GENERATED = ['HalcydIdlFiles', 'TraceLogIdlFiles']    # headers that sources of those rooms include


def _findings(name):
    """The findings in one source file and in our headers that it includes, each on a line."""
    result = subprocess.run(['clang-tidy-19', '-p', str(build.folder('clang')), '--quiet', name], cwd=build.ROOT,
                            capture_output=True, text=True)
    ours = re.compile(rf'^{re.escape(str(build.ROOT))}/(?!build/)(.+: (?:warning|error): .+)$', re.MULTILINE)
    found = ours.findall(result.stdout)
    if result.returncode != 0 and not found:
        found = [f'{name}: clang-tidy ended with {result.returncode}\n{result.stdout}{result.stderr}']
    return found


def main(pattern):
    packages.ensure(packages.BUILD, packages.TEST, packages.TIDY)
    build.build('clang', GENERATED, 'headers')
    names = [n for n in lint.tracked(*(f'{room}/**.cpp' for room in ROOMS)) if not pattern or re.search(pattern, n)]
    if not names:
        raise Failure(f'no source file of the product matches "{pattern}"')
    step = Step('clang-tidy')
    found = set()
    with ThreadPoolExecutor(max(1, cpu_count() or 1)) as pool:
        for number, lines in enumerate(pool.map(_findings, names), 1):
            step.note(f'{number} of {len(names)}  {names[number - 1]}')
            found.update(lines)
    step.done(f'{len(names)} files', ok=not found)
    print('\n'.join(sorted(found)) if found else 'no findings')
    return 1 if found else 0
