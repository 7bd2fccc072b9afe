"""Configure and build, quietly: one moving line while it works, the compiler's words in full when it fails."""
import os
import re
import subprocess
from pathlib import Path

from ui import Failure, Step

ROOT = Path(__file__).resolve().parents[2]


def folder(preset):
    return ROOT / 'build' / preset


def configure(preset, step, extra=()):
    result = subprocess.run(['cmake', '--preset', preset, *extra], cwd=ROOT, capture_output=True, text=True)
    if result.returncode != 0:
        step.done(ok=False)
        raise Failure(result.stdout + result.stderr)


def build(preset='gcc', targets=(), title=None):
    step = Step(title or f'building ({preset})')
    # Configured every time: it takes a second, and new files or packages are then never missed.
    configure(preset, step)
    environment = dict(os.environ, NINJA_STATUS='[%f/%t] ')
    process = subprocess.Popen(['ninja', '-C', str(folder(preset)), *targets], stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, text=True, errors='replace', env=environment)
    log = []
    count = ''
    for line in process.stdout:
        log.append(line)
        progress = re.match(r'\[(\d+)/(\d+)\] (.*)', line)
        if progress:
            count = progress.group(2)
            step.note(f'{progress.group(1)} of {count}  {progress.group(3)[-70:]}')
    if process.wait() != 0:
        step.done(ok=False)
        # From the first failure on; the command lines of ninja's progress are of no use to a reader.
        start = next((i for i, line in enumerate(log) if line.startswith('FAILED')), 0)
        shown = [line for line in log[start:] if not re.match(r'\[\d+/\d+\]', line) and 'ccache' not in line]
        raise Failure(''.join(shown[-200:]))
    step.done(f'{count} steps' if count and not any('no work to do' in line for line in log) else 'up to date')
    return folder(preset)
