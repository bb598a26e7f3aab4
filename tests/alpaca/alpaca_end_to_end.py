#!/usr/bin/env python3
"""zor_alpaca as Alpaca clients meet it: the real server over HTTP and UDP on
loopback, with virtual focusers preloaded and steered through their control
socket.

    alpaca_end_to_end.py CASE SERVER PRELOAD [BLUEZ_SIM BUS_SCRIPT]

CASE is protocol (the standard's rules for paths, parameters, transaction
numbers and errors, as the conformance checker tries them, plus bad input
and a flood of requests), focuser (two focusers: connect, moves and limits,
retarget, halt, temperature compensation, a focuser without a probe),
discovery, restart (UniqueIDs across a restart; SIGINT and SIGTERM end it
with 0), setup (the setup pages in headless Chromium: the page renders, a
form changes the backlash, a post from another origin is refused) or
bluetooth (virtual Bluetooth focusers on a private bus beside a USB one: a
link dropped during a move shows no move running, and comes back; a focuser
named on the setup page is served at once and after a restart).
"""
import base64
import concurrent.futures
import http.client
import http.server
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import urllib.parse

case, server_path, preload = sys.argv[1:4]
bluez_sim, bus_script = (sys.argv[4:6] + ["", ""])[:2]
work = tempfile.mkdtemp(prefix="zor-alpaca.")
control = os.path.join(work, "sim.sock")
servers = []

OK, NOT_IMPLEMENTED, NOT_CONNECTED, ACTION_NOT_IMPLEMENTED = 0, 0x400, 0x407, 0x40C


class Failure(Exception):
    pass


def check(condition, what):
    if not condition:
        raise Failure(what)


def free_port(kind=socket.SOCK_STREAM):
    with socket.socket(socket.AF_INET, kind) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Server:
    """One zor_alpaca process on loopback with its own virtual focusers."""

    def __init__(self, sim, *extra, env=None):
        self.port, self.discovery = free_port(), free_port(socket.SOCK_DGRAM)
        env = dict(os.environ, LD_PRELOAD=preload, ZOR_SIM=sim, ZOR_SIM_CONTROL=control,
                   HOME=os.path.join(work, "home"), XDG_CONFIG_HOME=os.path.join(work, "config"),
                   XDG_RUNTIME_DIR=work, **(env or {}))
        self.log = open(os.path.join(work, "server.log"), "ab")
        self.process = subprocess.Popen(
            [server_path, "--port", str(self.port), "--discovery-port", str(self.discovery),
             "--bind", "127.0.0.1", *extra], env=env, stdout=self.log, stderr=self.log)
        servers.append(self)
        for _ in range(200):
            try:
                socket.create_connection(("127.0.0.1", self.port), timeout=1).close()
                return
            except OSError:
                check(self.process.poll() is None, "the server ended at start")
                time.sleep(0.05)
        raise Failure("the server did not listen")

    def request(self, method, path, params=None, headers=None, raw_body=None):
        """(status, parsed JSON or text) of one request; GET parameters go in
        the query, others in a form body, in the order given."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        body = raw_body
        query = urllib.parse.urlencode(params or [])
        headers = dict(headers or {})
        if method == "GET":
            path += "?" + query if query else ""
        elif body is None:
            body = query
            headers["Content-Type"] = "application/x-www-form-urlencoded"
        connection.request(method, path, body=body, headers=headers)
        response = connection.getresponse()
        text = response.read().decode("utf-8", "replace")
        connection.close()
        if response.getheader("Content-Type", "").startswith("application/json"):
            return response.status, json.loads(text)
        return response.status, text

    def api(self, method, member, params=None, device=0):
        status, answer = self.request(method, "/api/v1/focuser/%d/%s" % (device, member), params)
        check(status == 200, "%s %s %s: HTTP %d %s" % (method, member, params, status, answer))
        return answer

    def value(self, member, device=0):
        answer = self.api("GET", member, device=device)
        check(answer["ErrorNumber"] == 0, "%s: %s" % (member, answer))
        return answer["Value"]

    def put(self, member, device=0, **params):
        answer = self.api("PUT", member, list(params.items()), device)
        check(answer["ErrorNumber"] == 0, "PUT %s %s: %s" % (member, params, answer))

    def wait(self, condition, what, limit=30):
        end = time.monotonic() + limit
        while time.monotonic() < end:
            if condition():
                return
            time.sleep(0.05)
        raise Failure("waiting for " + what)

    def connect(self, device):
        self.put("connect", device)
        self.wait(lambda: not self.value("connecting", device), "connecting to end", 60)
        check(self.value("connected", device) is True, "focuser %d connected" % device)

    def stop(self, how=signal.SIGTERM):
        self.process.send_signal(how)
        code = self.process.wait(timeout=60)
        servers.remove(self)
        return code


def sim(command):
    with socket.socket(socket.AF_UNIX) as s:
        s.settimeout(10)
        s.connect(control)
        s.sendall((command + "\n").encode())
        answer = s.makefile().readline().strip()
    check(answer.startswith("ok"), "sim %s: %s" % (command, answer))
    return answer[3:]


def sim_state(device):
    return dict(pair.split("=") for pair in sim("state %d" % device).split())


# ---------------------------------------------------------------- protocol

def protocol():
    s = Server("pro/speed=20000/max=100000")
    first = s.api("GET", "description", [("ClientTransactionID", "3")])
    check(first["ServerTransactionID"] == 1, "the first ServerTransactionID is 1: %s" % first)
    check(set(first) == {"Value", "ClientTransactionID", "ServerTransactionID", "ErrorNumber", "ErrorMessage"},
          "envelope names: %s" % first)

    # Paths the standard rejects with HTTP 400 and a text, as the checker tries them.
    for method, path in [("GET", "/api/v1/FOCUSER/0/description"), ("GET", "/api/v1/baddevicetype/0/description"),
                         ("GET", "/api/v1/focuser/-1/description"), ("GET", "/api/v1/focuser/99999/description"),
                         ("GET", "/api/v1/focuser/1/description"), ("GET", "/api/v1/focuser/A/description"),
                         ("GET", "/api/v1/focuser/0/descrip"), ("GET", "/api/v1/focuser/0/Description"),
                         ("GET", "/api/V1/focuser/0/description"), ("GET", "/api/v2/focuser/0/description"),
                         ("GET", "/api/v1/focuser/0/move"), ("PUT", "/api/v1/focuser/0/position"),
                         ("POST", "/api/v1/focuser/0/connected"), ("DELETE", "/api/v1/focuser/0/connected"),
                         ("GET", "/api/v1/focuser/00/description"), ("GET", "/api/v1/focuser/4294967296/name"),
                         ("GET", "/api/v1/focuser/0/" + "a" * 8000)]:
        status, text = s.request(method, path, [("Connected", "true")] if method != "GET" else None)
        check(status == 400 and isinstance(text, str) and text.strip(), "%s %s: %d %r" % (method, path, status, text))

    # GET: names in any casing, an extra parameter ignored, bad IDs read as 0.
    ids = [("ClientID", "123456"), ("ClientTransactionID", "67890")]
    for member in ["connected", "connecting", "description", "driverinfo", "driverversion", "interfaceversion",
                   "name", "supportedactions"]:
        for params, expected in [(ids, 67890), (ids + [("ExtraParameter", "ExtraValue")], 67890),
                                 ([("clientid", "123456"), ("ClientTransactionID", "67890")], 67890),
                                 ([("ClientID", "123456"), ("clienttransactionid", "67890")], 67890),
                                 ([("CLIENTTRANSACTIONID", "4294967295")], 4294967295),
                                 ([("ClientTransactionID", "")], 0), ([("ClientTransactionID", " ")], 0),
                                 ([("ClientTransactionID", "-12345")], 0), ([("ClientTransactionID", "qwe")], 0),
                                 ([("ClientTransactionID", "4294967296")], 0), ([("ClientID", "-1")], 0)]:
            answer = s.api("GET", member, params)
            check(answer["ErrorNumber"] == 0 and answer["ClientTransactionID"] == expected,
                  "GET %s %s: %s" % (member, params, answer))
    check(s.value("interfaceversion") == 4 and s.value("supportedactions") == [], "interface version 4")

    # Server transaction numbers count up by one per answer.
    numbers = [s.api("GET", "name")["ServerTransactionID"] for _ in range(3)]
    check(numbers[1] == numbers[0] + 1 and numbers[2] == numbers[1] + 1, "ServerTransactionID counts: %s" % numbers)

    # PUT: names exactly as the API has them; a bad value or casing is 400.
    for params in [[("Connected", "")], [("Connected", "123456")], [("Connected", "asdqwe")], [("connected", "true")],
                   []]:
        status, text = s.request("PUT", "/api/v1/focuser/0/connected", ids + params)
        check(status == 400 and "Connected" in text, "PUT connected %s: %d %r" % (params, status, text))
    answer = s.api("PUT", "connected", [("ClientID", "1"), ("clienttransactionid", "55"), ("Connected", "True"),
                                        ("ExtraParameter", "x")])
    check(answer["ErrorNumber"] == 0 and answer["ClientTransactionID"] == 0 and "Value" not in answer,
          "a PUT's lower-case clienttransactionid is not the parameter: %s" % answer)
    check(s.value("connected") is True, "connected")

    # Wrong types and values never reach the focuser.
    before = sim_state(0)
    for position in ["1.5", "asduio6fghZZ", "", "99999999999", "0x10", " 5"]:
        status, _ = s.request("PUT", "/api/v1/focuser/0/move", ids + [("Position", position)])
        check(status == 400, "move to %r: %d" % (position, status))
    status, _ = s.request("PUT", "/api/v1/focuser/0/move", ids + [("position", "5")])
    check(status == 400, "move with a lower-case Position")
    for value in ["1", "yes", ""]:
        status, _ = s.request("PUT", "/api/v1/focuser/0/tempcomp", ids + [("TempComp", value)])
        check(status == 400, "tempcomp %r" % value)
    time.sleep(0.3)
    check(sim_state(0)["target"] == before["target"], "no bad value moved the focuser")

    # Members the focuser does not have.
    for member, params, number in [("action", [("Action", "x"), ("Parameters", "")], ACTION_NOT_IMPLEMENTED),
                                   ("commandblind", [("Command", "x"), ("Raw", "true")], NOT_IMPLEMENTED),
                                   ("commandbool", [("Command", "x"), ("Raw", "false")], NOT_IMPLEMENTED),
                                   ("commandstring", [("Command", "x"), ("Raw", "false")], NOT_IMPLEMENTED)]:
        answer = s.api("PUT", member, ids + params)
        check(answer["ErrorNumber"] == number and answer["ErrorMessage"] and answer["ClientTransactionID"] == 67890,
              "%s: %s" % (member, answer))
        status, _ = s.request("PUT", "/api/v1/focuser/0/" + member, ids)
        check(status == 400, "%s without its parameters" % member)
    check(s.api("GET", "stepsize")["ErrorNumber"] == NOT_IMPLEMENTED, "StepSize is not implemented")

    # Bad input on the wire: a body of 1 MB, a request line that is not HTTP,
    # a header without end; the server answers and stays up.
    status, _ = s.request("PUT", "/api/v1/focuser/0/halt", raw_body=b"Position=1&" + b"x" * (1 << 20),
                          headers={"Content-Type": "application/x-www-form-urlencoded"})
    check(status == 400, "a body of 1 MB: %d" % status)
    for garbage in [b"GARBAGE\r\n\r\n", b"GET /api/v1/focuser/0/name HTTP/9\r\n\r\n", b"\x00\xff\r\n\r\n",
                    b"GET " + b"/x" * 10000 + b" HTTP/1.1\r\n\r\n"]:
        with socket.create_connection(("127.0.0.1", s.port), timeout=10) as raw:
            raw.sendall(garbage)
            reply = raw.recv(200)
            check(reply == b"" or reply.startswith(b"HTTP/1.1 4"), "garbage %r: %r" % (garbage[:20], reply))
    status, text = s.request("GET", "/index.html")
    check(status == 404, "no file is served: %d" % status)

    # A flood of concurrent requests: every answer is right.
    def poll(n):
        member = ["position", "ismoving", "name", "devicestate"][n % 4]
        return member, s.api("GET", member, [("ClientTransactionID", str(n + 1))]), n + 1

    with concurrent.futures.ThreadPoolExecutor(64) as pool:
        for member, answer, n in pool.map(poll, range(800)):
            check(answer["ErrorNumber"] == 0 and answer["ClientTransactionID"] == n, "flood %s: %s" % (member, answer))
    check(s.stop() == 0, "exit status 0")


# ---------------------------------------------------------------- focuser

def focuser():
    s = Server("pro/speed=20000/max=100000/temp=20,pro/speed=20000/max=100000/noprobe")
    # Before connecting, operational members answer NotConnected.
    for member in ["position", "ismoving", "maxstep", "devicestate", "temperature", "tempcomp", "absolute"]:
        check(s.api("GET", member)["ErrorNumber"] == NOT_CONNECTED, member + " before connecting")
    check(s.api("PUT", "move", [("Position", "10")])["ErrorNumber"] == NOT_CONNECTED, "move before connecting")
    check(s.value("connected") is False and s.value("connecting") is False, "not connected at start")
    check(s.value("name") and s.value("description"), "name and description when not connected")
    s.connect(0)
    s.connect(1)
    check(s.value("absolute") is True and s.value("maxstep") == 100000 and s.value("maxincrement") == 100000,
          "absolute, MaxStep, MaxIncrement")

    # Temperature compensation is the service's: on with a coefficient
    # (set on the setup page), a warmer probe moves the focuser.
    origin = {"Origin": "http://127.0.0.1:%d" % s.port, "Host": "127.0.0.1:%d" % s.port}
    check(s.value("tempcompavailable") is True and s.value("temperature") == 20.0, "a probe reads 20")
    status, _ = s.request("POST", "/setup/v1/focuser/0/setup",
                          [("form", "compensation"), ("stepsperdegree", "100"), ("threshold", "1")], origin)
    check(status == 303, "compensation coefficient set: %d" % status)
    start = s.value("position")
    s.put("tempcomp", TempComp="true")
    check(s.value("tempcomp") is True, "TempComp reads back on at once")
    s.wait(lambda: "Focus was set at 20 " in s.request("GET", "/setup/v1/focuser/0/setup")[1], "the reference")
    sim("temperature 0 25")
    s.wait(lambda: s.value("position") == start + 500 and not s.value("ismoving"), "a compensation move of 500")
    s.put("tempcomp", TempComp="false")
    check(s.value("tempcomp") is False, "TempComp off")
    sim("temperature 0 30")
    time.sleep(1.0)
    check(s.value("position") == start + 500, "no compensation while off")

    # Moves: IsMoving right after Move, the limits, a retarget, Halt.
    for target, end in [(50000, 50000), (250000, 100000), (-40, 0), (100000, 100000)]:
        s.put("move", Position=target)
        check(s.value("ismoving") is True, "IsMoving right after Move to %d" % target)
        s.wait(lambda: not s.value("ismoving"), "the move to %d" % target)
        check(s.value("position") == end, "a move to %d ends at %d, not %d" % (target, end, s.value("position")))
    s.put("move", Position=0)
    time.sleep(0.3)
    s.put("move", Position=90000)
    s.wait(lambda: not s.value("ismoving"), "the retarget")
    check(s.value("position") == 90000, "a move while moving retargets")
    s.put("move", Position=0)
    time.sleep(0.5)
    s.put("halt")
    s.wait(lambda: not s.value("ismoving"), "halt")
    halted = s.value("position")
    time.sleep(0.5)
    check(0 < halted < 90000 and s.value("position") == halted, "halted at %d" % halted)
    state = {entry["Name"]: entry["Value"] for entry in s.value("devicestate")}
    check(set(state) == {"IsMoving", "Position", "Temperature", "TimeStamp"} and state["Position"] == halted
          and state["TimeStamp"].endswith("Z"), "DeviceState: %s" % state)

    # The second focuser moves on its own and has no probe.
    s.put("move", 1, Position=70000)
    check(s.value("ismoving", 1) is True, "focuser 1 moves")
    check(s.value("tempcompavailable", 1) is False and s.value("tempcomp", 1) is False, "focuser 1: no probe")
    check(s.api("GET", "temperature", device=1)["ErrorNumber"] == NOT_IMPLEMENTED, "no Temperature without a probe")
    check(s.api("PUT", "tempcomp", [("TempComp", "true")], 1)["ErrorNumber"] == NOT_IMPLEMENTED, "no TempComp")
    check("Temperature" not in [e["Name"] for e in s.value("devicestate", 1)], "DeviceState without Temperature")
    s.wait(lambda: s.value("position", 1) == 70000, "focuser 1 at 70000")
    check(s.value("position") == halted, "focuser 0 stayed")

    # Disconnect, and Connected = false/true, which return once done.
    s.put("disconnect", 1)
    s.wait(lambda: not s.value("connecting", 1), "disconnecting")
    check(s.value("connected", 1) is False and s.api("GET", "position", device=1)["ErrorNumber"] == NOT_CONNECTED,
          "disconnected")
    # A Connect() that fails: the read of Connecting that finds it done
    # answers with the failure, once.
    sim("fail-opens 1 1")
    s.put("connect", 1)
    outcome = {}
    s.wait(lambda: outcome.update(s.api("GET", "connecting", device=1)) or outcome["ErrorNumber"]
           or outcome["Value"] is False, "the failed connect")
    check(outcome["ErrorNumber"] >= 0x500 and "open" in outcome["ErrorMessage"], "the failure told: %s" % outcome)
    check(s.value("connecting", 1) is False and s.value("connected", 1) is False, "told once; not connected")
    s.put("connected", 1, Connected="true")
    check(s.value("position", 1) == 70000, "connected again, where it was")
    s.put("connected", 0, Connected="false")
    check(s.api("GET", "ismoving")["ErrorNumber"] == NOT_CONNECTED, "Connected = false")
    check(s.stop(signal.SIGINT) == 0, "exit status 0")


# ---------------------------------------------------------------- discovery

def discovery():
    s = Server("pro")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as udp:
        udp.settimeout(5)
        udp.sendto(b"alpacadiscovery1", ("127.0.0.1", s.discovery))
        reply, sender = udp.recvfrom(200)
        check(json.loads(reply) == {"AlpacaPort": s.port} and sender[1] == s.discovery, "discovery reply %r" % reply)
        udp.settimeout(0.5)
        for query in [b"alpacadiscovery", b"hello", b""]:
            udp.sendto(query, ("127.0.0.1", s.discovery))
            try:
                check(False, "an answer to %r: %r" % (query, udp.recvfrom(200)[0]))
            except socket.timeout:
                pass
        udp.settimeout(5)
        udp.sendto(b"alpacadiscovery1", ("127.0.0.1", s.discovery))
        check(json.loads(udp.recvfrom(200)[0]) == {"AlpacaPort": s.port}, "still answering")
    check(s.stop() == 0, "exit status 0")


# ---------------------------------------------------------------- restart

def restart():
    def unique_ids(sim_description):
        s = Server(sim_description)
        status, answer = s.request("GET", "/management/v1/configureddevices", [("ClientTransactionID", "8")])
        check(status == 200 and answer["ClientTransactionID"] == 8, "configureddevices: %s" % answer)
        devices = answer["Value"]
        check([d["DeviceNumber"] for d in devices] == list(range(len(devices)))
              and all(d["DeviceType"] == "Focuser" for d in devices), "device list %s" % devices)
        check(s.request("GET", "/management/apiversions")[1]["Value"] == [1], "API versions")
        check(s.request("GET", "/management/v1/description")[1]["Value"]["ServerName"] == "zor_alpaca", "description")
        s.connect(0)
        s.put("move", Position=31000)
        check(s.stop() == 0, "exit status 0 after SIGTERM")
        return [d["UniqueID"] for d in devices]

    first = unique_ids("pro/sn=00000000000000a1,pro/sn=00000000000000a2")
    check(len(set(first)) == 2, "two UniqueIDs: %s" % first)
    check(unique_ids("pro/sn=00000000000000a1,pro/sn=00000000000000a2") == first, "the same UniqueIDs after a restart")
    check(unique_ids("pro/sn=00000000000000a2")[0] == first[1], "a focuser keeps its UniqueID on another number")


# ---------------------------------------------------------------- setup pages in a browser

class DevTools:
    """The smallest client of Chromium's DevTools protocol: one page, over a
    WebSocket, commands answered in order."""

    def __init__(self, port):
        connection = http.client.HTTPConnection("127.0.0.1", port, timeout=10)
        connection.request("GET", "/json/list")
        page = [t for t in json.loads(connection.getresponse().read()) if t["type"] == "page"][0]
        url = urllib.parse.urlparse(page["webSocketDebuggerUrl"])
        self.socket = socket.create_connection((url.hostname, url.port), timeout=30)
        key = base64.b64encode(os.urandom(16)).decode()
        self.socket.sendall(("GET %s HTTP/1.1\r\nHost: %s\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                             "Sec-WebSocket-Key: %s\r\nSec-WebSocket-Version: 13\r\n\r\n"
                             % (url.path, url.netloc, key)).encode())
        self.buffer = b""
        while b"\r\n\r\n" not in self.buffer:
            self.buffer += self.socket.recv(4096)
        check(self.buffer.startswith(b"HTTP/1.1 101"), "DevTools WebSocket")
        self.buffer = self.buffer.split(b"\r\n\r\n", 1)[1]
        self.next_id = 0

    def _read(self, count):
        while len(self.buffer) < count:
            chunk = self.socket.recv(65536)
            check(chunk, "DevTools closed")
            self.buffer += chunk
        data, self.buffer = self.buffer[:count], self.buffer[count:]
        return data

    def call(self, method, **params):
        self.next_id += 1
        payload = json.dumps({"id": self.next_id, "method": method, "params": params}).encode()
        mask = os.urandom(4)
        header = bytes([0x81]) + (bytes([0x80 | len(payload)]) if len(payload) < 126
                                  else bytes([0x80 | 126]) + len(payload).to_bytes(2, "big"))
        self.socket.sendall(header + mask + bytes(b ^ mask[i % 4] for i, b in enumerate(payload)))
        while True:
            first, second = self._read(2)
            length = second & 0x7F
            if length == 126:
                length = int.from_bytes(self._read(2), "big")
            elif length == 127:
                length = int.from_bytes(self._read(8), "big")
            message = json.loads(self._read(length)) if first & 0x0F == 1 else {}
            if message.get("id") == self.next_id:
                check("error" not in message, "%s: %s" % (method, message))
                return message["result"]

    def evaluate(self, expression):
        return self.call("Runtime.evaluate", expression=expression, returnByValue=True)["result"].get("value")

    def load(self, url, title_wanted=None):
        """Navigates to `url` and waits until that page (not the one before
        it) has loaded: its address is `url`, or its title `title_wanted`
        (for a page that posts on)."""
        self.call("Page.navigate", url=url)
        end = time.monotonic() + 30
        while time.monotonic() < end:
            arrived = self.evaluate("document.title") == title_wanted if title_wanted else \
                self.evaluate("location.href") == url
            if arrived and self.evaluate("document.readyState") == "complete":
                return
            time.sleep(0.1)
        raise Failure("loading " + url)


def setup():
    s = Server("pro/speed=20000/max=100000")
    s.connect(0)
    browser = subprocess.Popen(["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                                "--no-first-run", "--user-data-dir=" + os.path.join(work, "chromium"),
                                "--remote-debugging-port=0", "about:blank"], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                               env=dict(os.environ, HOME=os.path.join(work, "home")))
    try:
        port = None
        for line in browser.stderr:
            line = line.decode(errors="replace")
            if "DevTools listening on ws://" in line:
                port = int(line.split("ws://")[1].split("/")[0].rsplit(":", 1)[1])
                break
        check(port, "Chromium's DevTools port")
        threading.Thread(target=lambda: browser.stderr.read(), daemon=True).start()
        page = DevTools(port)
        base = "http://127.0.0.1:%d" % s.port

        # The server's page lists the focuser and links to its page.
        page.load(base + "/setup")
        check("focuser/0" in page.evaluate("document.body.innerText"), "the server's page lists focuser/0")
        check(page.evaluate("document.scripts.length") == 0, "no scripts")
        page.load(base + "/setup/v1/focuser/0/setup")
        check(page.evaluate("document.title") == "Focuser 0 setup", "the focuser's page")
        check(page.evaluate("document.querySelector('input[name=backlash]').value") == "0", "backlash shown as 0")

        # The form, filled in and sent as a user would.
        page.evaluate("document.querySelector('input[name=backlash]').value = '77';"
                      "document.querySelector('button[type=submit]').click()")
        s.wait(lambda: sim_state(0)["backlash"] == "77", "the backlash set from the form")
        s.wait(lambda: 'name="backlash" value="77"' in s.request("GET", "/setup/v1/focuser/0/setup")[1],
               "the backlash read back")
        page.load(base + "/setup/v1/focuser/0/setup?again")
        check(page.evaluate("document.querySelector('input[name=backlash]').value") == "77", "backlash shown as 77")

        # A page of another origin posts the same form: refused.
        evil_dir = os.path.join(work, "evil")
        os.makedirs(evil_dir)
        with open(os.path.join(evil_dir, "index.html"), "w") as f:
            f.write("<!DOCTYPE html><title>elsewhere</title><form method=post action='%s/setup/v1/focuser/0/setup'>"
                    "<input name=form value=all><input name=backlash value=12><input name=maxstep value=100000>"
                    "<input name=stepsperdegree value=0><input name=threshold value=1></form>"
                    "<script>document.forms[0].submit()</script>" % base)
        class Elsewhere(http.server.SimpleHTTPRequestHandler):
            def __init__(self, *args, **kwargs):
                super().__init__(*args, directory=evil_dir, **kwargs)

            def log_message(self, *args):
                pass

        evil = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Elsewhere)
        threading.Thread(target=evil.serve_forever, daemon=True).start()
        page.load("http://127.0.0.1:%d/index.html" % evil.server_address[1], "Refused")
        evil.shutdown()
        time.sleep(0.5)
        check(sim_state(0)["backlash"] == "77", "a cross-origin post changed nothing")
        # Without Origin or Referer (not a browser's own form) it is refused too.
        status, _ = s.request("POST", "/setup/v1/focuser/0/setup", [("form", "all"), ("backlash", "5")])
        check(status == 403, "a post naming no page: %d" % status)
    finally:
        browser.kill()
        browser.wait()
    check(s.stop() == 0, "exit status 0")


# ---------------------------------------------------------------- Bluetooth

def bluetooth():
    bus = subprocess.Popen([bus_script], env=dict(os.environ, ZOR_BLUEZ_SIM=bluez_sim,
                                                  ZOR_BLE_SIM="pro@382/name=Garage/speed=2000,pro@382/name=Shed"),
                           stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    try:
        address = ""
        for line in bus.stdout:
            if line.startswith("DBUS_SYSTEM_BUS_ADDRESS="):
                address = line.strip().split("=", 1)[1]
                break
        check(address, "a private bus")
        s = Server("pro/speed=4000", "--ble", "Garage", env={"DBUS_SYSTEM_BUS_ADDRESS": address})
        devices = s.request("GET", "/management/v1/configureddevices")[1]["Value"]
        check(len(devices) == 2 and "Garage" in devices[1]["DeviceName"]
              and devices[0]["UniqueID"] != devices[1]["UniqueID"], "USB, then Bluetooth: %s" % devices)
        s.connect(0)
        s.connect(1)
        s.put("move", 1, Position=45000)
        check(s.value("ismoving", 1) is True, "the Bluetooth focuser moves")
        subprocess.run(["dbus-send", "--bus=" + address, "--print-reply", "--dest=com.zor.Sim", "/com/zor/Sim",
                        "com.zor.Sim.DropLink", "string:Garage"], check=True, stdout=subprocess.DEVNULL)
        s.wait(lambda: s.api("GET", "ismoving", device=1)["ErrorNumber"] == NOT_CONNECTED, "the lost link shown", 15)
        check(s.value("connected", 1) is False, "not connected while the link is lost")
        check(s.value("position", 0) == 30000, "the USB focuser answers meanwhile")
        s.wait(lambda: s.api("GET", "position", device=1)["ErrorNumber"] == OK, "the link regained", 60)
        check(s.value("connected", 1) is True, "connected again")

        # Another one, named on the setup page: served at once, and again
        # after a restart.
        origin = {"Origin": "http://127.0.0.1:%d" % s.port, "Host": "127.0.0.1:%d" % s.port}
        status, _ = s.request("POST", "/setup", [("ble", "Shed")], origin)
        check(status == 303, "Shed added: %d" % status)
        s.connect(2)
        check("Shed" in s.value("name", 2), "focuser 2 is Shed")
        check(s.stop() == 0, "exit status 0")
        s = Server("pro/speed=4000", env={"DBUS_SYSTEM_BUS_ADDRESS": address})
        names = [d["DeviceName"] for d in s.request("GET", "/management/v1/configureddevices")[1]["Value"]]
        check(len(names) == 2 and "Shed" in names[1], "Shed served after a restart: %s" % names)
        check(s.stop() == 0, "exit status 0")
    finally:
        bus.terminate()
        bus.wait()


try:
    {"bluetooth": bluetooth, "protocol": protocol, "focuser": focuser, "discovery": discovery, "restart": restart, "setup": setup}[case]()
    print("Alpaca %s: passed" % case)
except Failure as failure:
    print("FAIL: %s" % failure, file=sys.stderr)
    for server in list(servers):
        server.process.kill()
    with open(os.path.join(work, "server.log"), "rb") as log:
        sys.stderr.write(log.read()[-4000:].decode(errors="replace"))
    sys.exit(1)
finally:
    for server in list(servers):
        server.process.kill()
        server.process.wait()
    shutil.rmtree(work, ignore_errors=True)
