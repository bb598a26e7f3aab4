#!/usr/bin/env python3
"""A client of an INDI server that watches one device until told to stop.

    indi_listen.py PORT DEVICE STOP_FILE

Listens from the start until STOP_FILE exists, then prints the largest gap
between two updates of the device's ABS_FOCUS_POSITION and how many of its
properties the driver deleted meanwhile:

    largest gap <ms> ms over <n> updates   ("none" below two updates)
    deleted <k> properties
"""
import os
import re
import socket
import sys
import time


def main():
    port, device, stop_file = int(sys.argv[1]), sys.argv[2], sys.argv[3]
    sock = socket.create_connection(("localhost", port))
    sock.sendall(f"<getProperties version='1.7' device='{device}'/>".encode())
    sock.settimeout(0.05)
    tag = re.compile(r"<(setNumberVector|delProperty)\s[^>]*>")
    of_device = re.compile(rf"device=['\"]{re.escape(device)}['\"]")
    position = re.compile(r"name=['\"]ABS_FOCUS_POSITION['\"]")
    pending = ""
    updates = []
    deleted = 0
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
        for match in tag.finditer(pending):
            seen_to = match.end()
            if not of_device.search(match.group(0)):
                continue
            if match.group(1) == "delProperty":
                deleted += 1
            elif position.search(match.group(0)):
                updates.append(now)
        pending = pending[seen_to:][-2000:]  # a tag may be split between two reads
    gaps = [b - a for a, b in zip(updates, updates[1:])]
    largest = round(max(gaps) * 1000) if gaps else "none"
    print(f"largest gap {largest} ms over {len(updates)} updates")
    print(f"deleted {deleted} properties")


if __name__ == "__main__":
    main()
