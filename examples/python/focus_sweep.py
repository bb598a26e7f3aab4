#!/usr/bin/env python3
"""A focus sweep: moves a focuser through evenly spaced positions and prints,
at each, where it stopped and the temperature; then returns to where it began.

    python3 focus_sweep.py                      # the first focuser, 5 points, 1000 steps either side
    python3 focus_sweep.py --id 0 --from 28000 --to 32000 --points 9

Take an image at each point (or measure the star size) to find best focus.
"""

import argparse
import sys

import zorfocuser


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--id", type=int, help="focuser ID (default: the first one found)")
    parser.add_argument("--from", dest="start", type=int, help="first position (default: current - 1000)")
    parser.add_argument("--to", dest="stop", type=int, help="last position (default: current + 1000)")
    parser.add_argument("--points", type=int, default=5, help="number of positions, at least 2 (default 5)")
    parser.add_argument("--timeout", type=float, default=120, help="seconds allowed per move (default 120)")
    arguments = parser.parse_args()
    if arguments.points < 2:
        parser.error("--points must be at least 2")
    return arguments


def first_focuser_id():
    found = zorfocuser.focusers()
    if not found:
        sys.exit("No focuser found.")
    return found[0].id


def sweep(focuser, start, stop, points, timeout):
    print(f"{'TARGET':>8} {'POSITION':>9} {'TEMPERATURE':>12}")
    for i in range(points):
        target = start + round(i * (stop - start) / (points - 1))
        position = focuser.move_to(target, wait=True, timeout=timeout)
        print(f"{target:>8} {position:>9} {focuser.temperature:>9.1f} °C", flush=True)


def main():
    arguments = parse_arguments()
    focuser_id = arguments.id if arguments.id is not None else first_focuser_id()
    try:
        with zorfocuser.open(focuser_id) as focuser:
            home = focuser.position
            start = arguments.start if arguments.start is not None else max(0, home - 1000)
            stop = arguments.stop if arguments.stop is not None else home + 1000
            sweep(focuser, start, stop, arguments.points, arguments.timeout)
            print(f"Back at {focuser.move_to(home, wait=True, timeout=arguments.timeout)}.")
    except (zorfocuser.ZorError, TimeoutError) as e:
        sys.exit(f"focus_sweep: {e}")
    except KeyboardInterrupt:
        sys.exit("Interrupted; the focuser was stopped.")


if __name__ == "__main__":
    main()
