#!/usr/bin/env python3
"""Records when an INDI server sends one device's property, and reports the
largest gap between two of those messages.

    update_gaps.py PORT DEVICE PROPERTY STOP_FILE

Listens from the start until STOP_FILE exists, then prints
"largest gap <ms> ms over <n> updates".
"""
import os
import re
import socket
import sys
import time


def main():
    port, device, prop, stop_file = int(sys.argv[1]), sys.argv[2], sys.argv[3], sys.argv[4]
    sock = socket.create_connection(("localhost", port))
    sock.sendall(f"<getProperties version='1.7' device='{device}' name='{prop}'/>".encode())
    sock.settimeout(0.05)
    wanted = re.compile(
        rf"<setNumberVector\s[^>]*device=['\"]{re.escape(device)}['\"][^>]*name=['\"]{re.escape(prop)}['\"]"
        rf"|<setNumberVector\s[^>]*name=['\"]{re.escape(prop)}['\"][^>]*device=['\"]{re.escape(device)}['\"]")
    pending = ""
    times = []
    while not os.path.exists(stop_file):
        try:
            data = sock.recv(65536)
        except socket.timeout:
            continue
        if not data:
            break
        now = time.monotonic()
        pending += data.decode(errors="replace")
        seen_to = 0
        for match in wanted.finditer(pending):
            times.append(now)
            seen_to = match.end()
        pending = pending[seen_to:][-2000:]  # a tag may be split between two reads
    gaps = [b - a for a, b in zip(times, times[1:])]
    print(f"largest gap {round(max(gaps, default=float('inf')) * 1000)} ms over {len(times)} updates")


if __name__ == "__main__":
    main()
