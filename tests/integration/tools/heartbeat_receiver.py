#!/usr/bin/python3
"""A local unlocker's heartbeat endpoint for the daemon tests.

Checks every beat on its own, with Python's hmac and json rather than the
daemon's code, and appends one JSON line per beat to LOG: arrival time,
path, headers in order, raw body and the faults found (none, for a good beat).
Answers the n-th beat as the n-th item of --answers says ("hang" waits 15 s
before answering, a number is that HTTP status), then 204.

usage: heartbeat_receiver.py PORTFILE LOG SECRETFILE PROFILE [--answers a,b,...]
"""
import base64, hashlib, hmac, http.server, json, sys, threading, time

port_file, log_file, secret_file, profile = sys.argv[1:5]
answers = sys.argv[6].split(",") if len(sys.argv) > 6 and sys.argv[5] == "--answers" else []
secret = open(secret_file, "rb").read()
lock = threading.Lock()
count = 0
KEYS = ["bootIdentifier", "helperVersion", "hostName", "profileId"]


def faults_of(headers, body):
    faults = []
    names = [name for name, _ in headers]
    wanted = ["Content-Type", "X-Harborkeeper-Heartbeat-Timestamp", "X-Harborkeeper-Heartbeat-Signature"]
    if [n for n in names if n in wanted] != wanted:
        faults.append("header order %r" % names)
    values = dict(headers)
    if values.get("Content-Type") != "application/json":
        faults.append("content type")
    stamp = values.get("X-Harborkeeper-Heartbeat-Timestamp", "")
    if not stamp.isdigit() or abs(int(stamp) - time.time()) > 5:
        faults.append("timestamp %r" % stamp)
    mac = hmac.new(secret, stamp.encode() + b"." + body, hashlib.sha256).digest()
    expected = base64.urlsafe_b64encode(mac).rstrip(b"=").decode()
    if not hmac.compare_digest(values.get("X-Harborkeeper-Heartbeat-Signature", ""), expected):
        faults.append("signature")
    try:
        payload = json.loads(body)
    except ValueError:
        return faults + ["body is not JSON"]
    canonical = json.dumps(payload, sort_keys=True, separators=(",", ":"), ensure_ascii=False).encode()
    if canonical != body:
        faults.append("body not compact with sorted keys")
    if list(payload) != KEYS or not all(isinstance(payload[k], str) for k in KEYS):
        faults.append("keys %r" % list(payload))
    elif payload["profileId"] != profile or payload["helperVersion"] != "1.3":
        faults.append("profileId or helperVersion")
    elif not payload["bootIdentifier"].isdigit() or abs(int(payload["bootIdentifier"]) - (time.time() - time.clock_gettime(time.CLOCK_BOOTTIME))) > 5:
        faults.append("bootIdentifier %r" % payload["bootIdentifier"])
    return faults


class Receiver(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_POST(self):
        global count
        arrived = time.time()
        body = self.rfile.read(int(self.headers.get("Content-Length", "0")))
        headers = list(self.headers.items())
        with lock:
            answer = answers[count] if count < len(answers) else "204"
            count += 1
            with open(log_file, "a") as log:
                log.write(json.dumps({"arrived": arrived, "path": self.path, "headers": headers,
                                      "body": body.decode("utf-8", "replace"),
                                      "faults": faults_of(headers, body), "answer": answer}) + "\n")
        if answer == "hang":
            time.sleep(15)
            answer = "204"
        try:
            self.send_response(int(answer))
            self.send_header("Content-Length", "0")
            self.end_headers()
        except OSError:
            pass  # the daemon gave up waiting

    def log_message(self, *arguments):
        pass


server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Receiver)
server.daemon_threads = True
with open(port_file + ".tmp", "w") as out:
    out.write(str(server.server_address[1]))
import os
os.rename(port_file + ".tmp", port_file)
server.serve_forever()
