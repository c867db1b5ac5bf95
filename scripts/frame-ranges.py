#!/usr/bin/env python3
"""Splits a camera path's frames into contiguous --frames ranges, one per
array-job index (a Kubernetes Indexed Job or a Slurm job array), so that
several machines render one path into a shared frame folder; one final
`quorvane --path ... --encode-only` run then writes the video.

The frame count is `--count N`, or is read from a path.json (strict JSON;
for a JSON5 file pass --count, which `quorvane --path p.json --frames-dir d
--encode-only` prints as "= N frames"). It follows the renderer's rule:
round(fps x duration) + 1 with halves away from zero, fps from --fps or the
file (default 30), duration from duration_s or the keyframes' time span.

Ranges are contiguous (the temporal denoiser warms up only once per range)
and their sizes differ by at most one frame, the larger ones first. An index
beyond the frame count gets no range: nothing is printed, and a worker
should then exit successfully.

    frame-ranges.py --count 301 --tasks 8 --index 3      ->  114:151
    frame-ranges.py --path walk.json --tasks 8 --all     ->  one "index A:B" line each
    frame-ranges.py --count 301 --tasks 8 --index-from-env
        (JOB_COMPLETION_INDEX, else SLURM_ARRAY_TASK_ID minus SLURM_ARRAY_TASK_MIN)

Exit status 0 on success, 2 on bad arguments or an unreadable path file.
Python 3 standard library only.
"""

import argparse
import json
import math
import os
import sys


def round_half_away(x):
    return math.floor(abs(x) + 0.5) * (1 if x >= 0 else -1)


def frame_count_from_path(path, fps_override=None):
    with open(path, encoding='utf-8') as f:
        doc = json.load(f)
    if not isinstance(doc, dict):
        raise ValueError('%s: not a JSON object' % os.path.basename(path))
    keys = doc.get('keyframes')
    if not isinstance(keys, list) or len(keys) < 2 or not all(isinstance(k, dict) for k in keys):
        raise ValueError('%s: needs a "keyframes" array with at least 2 entries' % os.path.basename(path))
    times = [k.get('t_s') for k in keys]
    if not all(isinstance(t, (int, float)) and not isinstance(t, bool) for t in times):
        raise ValueError('%s: every keyframe needs a numeric t_s' % os.path.basename(path))
    fps = fps_override if fps_override is not None else doc.get('fps', 30)
    duration = doc.get('duration_s', times[-1] - times[0])
    if not isinstance(fps, (int, float)) or not 0 < fps <= 240:
        raise ValueError('%s: fps %r is outside 1-240' % (os.path.basename(path), fps))
    if not isinstance(duration, (int, float)) or not math.isfinite(duration) or duration < 0:
        raise ValueError('%s: duration_s %r is not a usable length in seconds' % (os.path.basename(path), duration))
    return int(round_half_away(fps * duration)) + 1


def ranges(count, tasks):
    """[(first, last)] for indices 0 .. tasks - 1; None where an index has no frames."""
    base, extra = divmod(count, tasks)
    out, first = [], 0
    for i in range(tasks):
        size = base + (1 if i < extra else 0)
        out.append((first, first + size - 1) if size > 0 else None)
        first += size
    return out


def index_from_env(env):
    if 'JOB_COMPLETION_INDEX' in env:
        return int(env['JOB_COMPLETION_INDEX'])
    if 'SLURM_ARRAY_TASK_ID' in env:
        return int(env['SLURM_ARRAY_TASK_ID']) - int(env.get('SLURM_ARRAY_TASK_MIN', '0'))
    raise ValueError('no array index: neither JOB_COMPLETION_INDEX nor SLURM_ARRAY_TASK_ID is set')


def main(argv):
    ap = argparse.ArgumentParser(description='Per-index --frames ranges for array jobs over one camera path.')
    src = ap.add_mutually_exclusive_group(required=True)
    src.add_argument('--count', type=int, help='frames in the whole path')
    src.add_argument('--path', help='path.json (strict JSON) to count the frames of')
    ap.add_argument('--fps', type=float, help='frame rate, as given to quorvane --fps')
    ap.add_argument('--tasks', type=int, required=True, help='array size (Kubernetes completions, Slurm task count)')
    which = ap.add_mutually_exclusive_group(required=True)
    which.add_argument('--index', type=int, help='the array index, from 0')
    which.add_argument('--index-from-env', action='store_true',
                       help='JOB_COMPLETION_INDEX, else SLURM_ARRAY_TASK_ID - SLURM_ARRAY_TASK_MIN')
    which.add_argument('--all', action='store_true', help='print "index A:B" for every index')
    args = ap.parse_args(argv)

    try:
        if args.tasks is None or args.tasks < 1:
            raise ValueError('--tasks must be at least 1')
        count = args.count if args.count is not None else frame_count_from_path(args.path, args.fps)
        if count < 1:
            raise ValueError('--count must be at least 1')
        table = ranges(count, args.tasks)
        if args.all:
            for i, r in enumerate(table):
                if r is not None:
                    print('%d %d:%d' % (i, r[0], r[1]))
            return 0
        index = args.index if args.index is not None else index_from_env(os.environ)
        if not 0 <= index < args.tasks:
            raise ValueError('index %d is outside 0-%d' % (index, args.tasks - 1))
    except (OSError, ValueError) as e:
        print('frame-ranges: %s' % e, file=sys.stderr)
        return 2
    r = table[index]
    if r is not None:
        print('%d:%d' % r)
    return 0


if __name__ == '__main__':
    sys.exit(main(sys.argv[1:]))
