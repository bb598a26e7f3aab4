#!/usr/bin/env python3
"""A temperature logger: prints the focuser's temperature and position as CSV
lines, one every interval, until Ctrl-C or the given count.

    python3 temperature_logger.py                       # the first focuser, every 60 s
    python3 temperature_logger.py --interval 10 --count 360 >> night.csv
"""

import argparse
import datetime
import sys
import time

import zorfocuser


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--id", type=int, help="focuser ID (default: the first one found)")
    parser.add_argument("--interval", type=float, default=60, help="seconds between readings (default 60)")
    parser.add_argument("--count", type=int, help="number of readings (default: until Ctrl-C)")
    arguments = parser.parse_args()
    if arguments.interval < 0:
        parser.error("--interval must not be negative")
    return arguments


def first_focuser_id():
    found = zorfocuser.focusers()
    if not found:
        sys.exit("No focuser found.")
    return found[0].id


def log(focuser, interval, count):
    print("time,temperature_c,position", flush=True)
    taken = 0
    while count is None or taken < count:
        if taken:
            time.sleep(interval)
        now = datetime.datetime.now().astimezone().isoformat(timespec="seconds")
        print(f"{now},{focuser.temperature:.1f},{focuser.position}", flush=True)
        taken += 1


def main():
    arguments = parse_arguments()
    focuser_id = arguments.id if arguments.id is not None else first_focuser_id()
    try:
        with zorfocuser.open(focuser_id) as focuser:
            log(focuser, arguments.interval, arguments.count)
    except zorfocuser.ZorError as e:
        sys.exit(f"temperature_logger: {e}")
    except KeyboardInterrupt:
        pass


if __name__ == "__main__":
    main()
