#!/usr/bin/python3
# Stands in for the phone approval middleware over HTTPS on 127.0.0.1.
#
#   approval_middleware.py --dir DIR --cert PEM --key PEM [--prefix /api]
#
# It checks every request on its own terms, never trusting the client: the
# listener HMAC over the canonical text, the device's ECDSA assertion against
# the key the device registered, header names and order, and that bodies are
# JSON with sorted keys and the expected members. A request that fails a check
# gets 401 (or 400) and a line in DIR/faults.log, which a passing run leaves
# absent. Files in DIR:
#   port            the port, once listening (also printed)
#   requests.jsonl  one {"method", "path", "headers", "body"} per request
#   faults.log      one line per failed check
#   next.json       written by the test: {"status": N, "body": TEXT} or
#                   {"status": N, "oversize": BYTES} answers the next request
#                   instead (after its checks), then is removed
import argparse
import base64
import hashlib
import hmac
import http.server
import json
import os
import re
import secrets
import socketserver
import ssl
import sys
import threading
import time
import uuid

from cryptography.exceptions import InvalidSignature
from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.hazmat.primitives.asymmetric.utils import encode_dss_signature

SIGNED_HEADERS = ["content-type", "accept", "cache-control", "authorization"]
UNSIGNED_HEADERS = ["content-type", "accept", "cache-control"]
DEVICE_HEADERS = ["accept", "cache-control", "x-harborkeeper-device-assertion"]
WATCHED = set(SIGNED_HEADERS + DEVICE_HEADERS)
EXPECTED_VALUES = {"content-type": "application/json", "accept": "application/json", "cache-control": "no-store"}
CLOCK_SKEW = 300

HMAC_HEADER = re.compile(r"Harborkeeper-HMAC listenerId=([^,]+),timestamp=(0|[1-9][0-9]*),signature=([A-Za-z0-9_-]{43})")
DEVICE_HEADER = re.compile(r"Harborkeeper-Device deviceId=([^,]+),timestamp=(0|[1-9][0-9]*),signature=([A-Za-z0-9_-]{86})")


class Refusal(Exception):
    def __init__(self, status, message, fault=True):
        super().__init__(message)
        self.status = status
        self.fault = fault


def b64url(data):
    return base64.urlsafe_b64encode(data).rstrip(b"=").decode("ascii")


def b64url_decode(text):
    if not re.fullmatch(r"[A-Za-z0-9_-]*", text):
        raise ValueError("not base64url")
    return base64.urlsafe_b64decode(text + "=" * (-len(text) % 4))


def now_text(offset=0):
    return time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(time.time() + offset))


def sorted_object(pairs):
    keys = [key for key, _ in pairs]
    if keys != sorted(keys) or len(set(keys)) != len(keys):
        raise Refusal(400, "body keys are not sorted and unique: %s" % keys)
    return dict(pairs)


def expect_members(body, members):
    if not isinstance(body, dict) or set(body) != set(members):
        raise Refusal(400, "body members %s, expected %s" % (sorted(body) if isinstance(body, dict) else body, sorted(members)))
    for key, kind in members.items():
        if type(body[key]) is not kind:
            raise Refusal(400, "body member %s is not %s" % (key, kind.__name__))


def jwk_public_key(jwk):
    expect_members(jwk, {"crv": str, "kty": str, "x": str, "y": str})
    if jwk["kty"] != "EC" or jwk["crv"] != "P-256":
        raise Refusal(400, "JWK is not an EC P-256 key")
    try:
        x, y = b64url_decode(jwk["x"]), b64url_decode(jwk["y"])
        if len(x) != 32 or len(y) != 32:
            raise ValueError("coordinates are not 32 bytes")
        numbers = ec.EllipticCurvePublicNumbers(int.from_bytes(x, "big"), int.from_bytes(y, "big"), ec.SECP256R1())
        return numbers.public_key()
    except ValueError as error:
        raise Refusal(400, "JWK is not a point on P-256: %s" % error)


class Middleware:
    def __init__(self, directory):
        self.directory = directory
        self.lock = threading.Lock()
        self.listeners = {}  # id -> secret
        self.tokens = {}  # token -> listener
        self.devices = {}  # id -> {"listenerId", "displayName", "registeredAt", "key"}
        self.requests = {}  # id -> record, with "expiresAtEpoch"

    def path(self, name):
        return os.path.join(self.directory, name)

    def append(self, name, line):
        with open(self.path(name), "a", encoding="utf-8") as f:
            f.write(line + "\n")

    def take_override(self):
        try:
            os.rename(self.path("next.json"), self.path("next.taken"))
        except FileNotFoundError:
            return None
        with open(self.path("next.taken"), encoding="utf-8") as f:
            override = json.load(f)
        os.remove(self.path("next.taken"))
        return override

    # --- checks -----------------------------------------------------------

    def check_headers(self, headers, expected):
        seen = [(name, value) for name, value in headers if name.lower() in WATCHED]
        if [name for name, _ in seen] != expected:
            raise Refusal(401, "headers %s, expected %s" % ([name for name, _ in seen], expected))
        for name, value in seen:
            if name in EXPECTED_VALUES and value != EXPECTED_VALUES[name]:
                raise Refusal(401, "header %s is %r" % (name, value))
        return dict(seen)

    def check_time(self, stamp):
        if abs(int(stamp) - time.time()) > CLOCK_SKEW:
            raise Refusal(401, "timestamp %s is not now" % stamp)

    def listener_of(self, headers, method, path, body):
        values = self.check_headers(headers, SIGNED_HEADERS)
        match = HMAC_HEADER.fullmatch(values["authorization"])
        if not match:
            raise Refusal(401, "authorization header malformed: %r" % values["authorization"])
        listener, stamp, signature = match.groups()
        secret = self.listeners.get(listener)
        if secret is None:
            raise Refusal(401, "unknown listener %s" % listener)
        self.check_time(stamp)
        canonical = "\n".join([method.upper(), path, stamp, b64url(hashlib.sha256(body).digest())])
        expected = b64url(hmac.new(secret.encode("utf-8"), canonical.encode("utf-8"), hashlib.sha256).digest())
        if not hmac.compare_digest(expected, signature):
            raise Refusal(401, "HMAC does not verify for %s %s" % (method, path))
        return listener

    def device_of(self, headers, method, path, request_id, decision):
        values = self.check_headers(headers, DEVICE_HEADERS)
        match = DEVICE_HEADER.fullmatch(values["x-harborkeeper-device-assertion"])
        if not match:
            raise Refusal(401, "device assertion malformed: %r" % values["x-harborkeeper-device-assertion"])
        device_id, stamp, signature = match.groups()
        device = self.devices.get(device_id)
        if device is None:
            raise Refusal(403, "unknown or revoked device %s" % device_id, fault=False)
        self.check_time(stamp)
        raw = b64url_decode(signature)
        der = encode_dss_signature(int.from_bytes(raw[:32], "big"), int.from_bytes(raw[32:], "big"))
        canonical = "\n".join([method.upper(), path, request_id, decision, stamp])
        try:
            device["key"].verify(der, canonical.encode("utf-8"), ec.ECDSA(hashes.SHA256()))
        except InvalidSignature:
            raise Refusal(401, "device signature does not verify for %s" % path)
        return device_id, device

    @staticmethod
    def json_body(body):
        try:
            return json.loads(body.decode("utf-8"), object_pairs_hook=sorted_object)
        except (UnicodeDecodeError, json.JSONDecodeError) as error:
            raise Refusal(400, "body is not JSON: %s" % error)

    @staticmethod
    def expect_empty(body):
        if body:
            raise Refusal(400, "unexpected body %r" % body[:100])

    # --- records ----------------------------------------------------------

    def device_record(self, device_id):
        device = self.devices[device_id]
        return {key: device[key] for key in ("listenerId", "displayName", "registeredAt")} | {"deviceId": device_id}

    def request_record(self, request_id):
        record = self.requests[request_id]
        if record["status"] == "pending" and time.time() >= record["expiresAtEpoch"]:
            record["status"] = "expired"
        return {key: value for key, value in record.items() if key != "expiresAtEpoch"}

    def owned_request(self, listener, request_id):
        record = self.requests.get(request_id)
        if record is None or record["listenerId"] != listener:
            raise Refusal(404, "no approval request %s" % request_id, fault=False)
        return request_id

    def owned_device(self, listener, device_id):
        device = self.devices.get(device_id)
        if device is None or device["listenerId"] != listener:
            raise Refusal(404, "no device %s" % device_id, fault=False)
        return device_id

    # --- routes -----------------------------------------------------------

    def handle(self, method, path, headers, body):
        parts = path.split("/")[1:]
        if parts[:2] == ["v1", "listeners"]:
            return self.listener_route(method, path, parts[2:], headers, body)
        if parts[:2] == ["v1", "approval-requests"]:
            return self.request_route(method, path, parts[2:], headers, body)
        raise Refusal(404, "no route %s %s" % (method, path), fault=False)

    def listener_route(self, method, path, rest, headers, body):
        if method == "POST" and not rest:
            self.check_headers(headers, UNSIGNED_HEADERS)
            request = self.json_body(body)
            expect_members(request, {"displayName": str})
            listener = "lst_" + secrets.token_hex(8)
            self.listeners[listener] = secrets.token_urlsafe(32)
            return {"listenerId": listener, "listenerSecret": self.listeners[listener],
                    "registeredAt": now_text(), "secretShownOnce": True}
        listener = self.listener_of(headers, method, path, body)
        if not rest or rest[0] != listener:
            raise Refusal(401, "signed by %s for listener path %s" % (listener, path))
        rest = rest[1:]
        if method == "POST" and rest == ["device-pairing-tokens"]:
            request = self.json_body(body)
            expect_members(request, {"displayName": str, "expiresInSeconds": int})
            token = "pt_" + secrets.token_urlsafe(16)
            self.tokens[token] = listener
            return {"listenerId": listener, "pairingToken": token, "displayName": request["displayName"],
                    "expiresAt": now_text(request["expiresInSeconds"]), "secretShownOnce": True}
        if rest == ["devices"] and method == "POST":
            request = self.json_body(body)
            expect_members(request, {"displayName": str, "apnsToken": str, "devicePublicKeyJwk": dict})
            device_id = "dev_" + secrets.token_hex(8)
            self.devices[device_id] = {"listenerId": listener, "displayName": request["displayName"],
                                       "registeredAt": now_text(), "apnsToken": request["apnsToken"],
                                       "key": jwk_public_key(request["devicePublicKeyJwk"])}
            return self.device_record(device_id)
        if rest == ["devices"] and method == "GET":
            self.expect_empty(body)
            return {"devices": [self.device_record(d) for d, v in self.devices.items() if v["listenerId"] == listener]}
        if rest == ["devices", "test-notification"] and method == "POST":
            if body != b"{}":
                raise Refusal(400, "test notification body is %r" % body)
            paired = any(v["listenerId"] == listener for v in self.devices.values())
            return {"testId": "tst_" + secrets.token_hex(6), "listenerId": listener, "queued": paired,
                    "createdAt": now_text()}
        if len(rest) == 2 and rest[0] == "devices" and method == "PATCH":
            device_id = self.owned_device(listener, rest[1])
            request = self.json_body(body)
            expect_members(request, {"displayName": str})
            self.devices[device_id]["displayName"] = request["displayName"]
            return self.device_record(device_id)
        if len(rest) == 2 and rest[0] == "devices" and method == "DELETE":
            self.expect_empty(body)
            del self.devices[self.owned_device(listener, rest[1])]
            return {"deviceId": rest[1], "revoked": True}
        raise Refusal(404, "no route %s %s" % (method, path), fault=False)

    def request_route(self, method, path, rest, headers, body):
        if method == "POST" and len(rest) == 2 and rest[1] in ("approve", "deny"):
            self.expect_empty(body)
            decision = "approved" if rest[1] == "approve" else "denied"
            device_id, device = self.device_of(headers, method, path, rest[0], decision)
            request_id = self.owned_request(device["listenerId"], rest[0])
            if self.request_record(request_id)["status"] != "pending":
                raise Refusal(409, "request %s is not pending" % request_id, fault=False)
            self.requests[request_id]["status"] = decision
            return self.request_record(request_id)
        listener = self.listener_of(headers, method, path, body)
        if method == "POST" and not rest:
            request = self.json_body(body)
            expect_members(request, {"profileId": str, "macName": str, "localHostname": str, "expiresInSeconds": int})
            try:
                uuid.UUID(request["profileId"])
            except ValueError:
                raise Refusal(400, "profileId %r is not a UUID" % request["profileId"])
            request_id = "apr_" + secrets.token_hex(8)
            ttl = request["expiresInSeconds"]
            self.requests[request_id] = {
                "requestId": request_id, "listenerId": listener, "profileId": request["profileId"],
                "macName": request["macName"], "localHostname": request["localHostname"],
                "createdAt": now_text(), "expiresAt": now_text(ttl), "status": "pending",
                "expiresAtEpoch": time.time() + ttl}
            return self.request_record(request_id)
        if method == "GET" and len(rest) == 1:
            self.expect_empty(body)
            return self.request_record(self.owned_request(listener, rest[0]))
        if method == "POST" and len(rest) == 2 and rest[1] == "consume":
            self.expect_empty(body)
            request_id = self.owned_request(listener, rest[0])
            if self.request_record(request_id)["status"] != "approved":
                raise Refusal(409, "request %s is not approved" % request_id, fault=False)
            self.requests[request_id]["status"] = "consumed"
            return self.request_record(request_id)
        raise Refusal(404, "no route %s %s" % (method, path), fault=False)


class Handler(http.server.BaseHTTPRequestHandler):
    server_version = "ApprovalStandIn/1"

    def log_message(self, format, *args):  # noqa: A002 - the base class's name
        sys.stderr.write("%s %s\n" % (self.address_string(), format % args))

    def do_GET(self):
        self.serve()

    do_POST = do_PATCH = do_DELETE = do_PUT = do_GET

    def read_body(self):
        if "Transfer-Encoding" in self.headers:
            raise Refusal(400, "chunked bodies are not expected")
        return self.rfile.read(int(self.headers.get("Content-Length", "0")))

    def serve(self):
        middleware = self.server.middleware
        prefix = self.server.prefix
        headers = list(self.headers.items())
        with middleware.lock:
            status, answer = 200, None
            try:
                body = self.read_body()
                middleware.append("requests.jsonl", json.dumps({
                    "method": self.command, "path": self.path, "headers": headers,
                    "body": body.decode("utf-8", "replace")}))
                if not self.path.startswith(prefix + "/"):
                    raise Refusal(404, "outside %s/: %s" % (prefix, self.path), fault=False)
                answer = middleware.handle(self.command, self.path[len(prefix):], headers, body)
            except Refusal as refusal:
                if refusal.fault:
                    middleware.append("faults.log", "%s %s: %s" % (self.command, self.path, refusal))
                status, answer = refusal.status, {"error": str(refusal)}
            override = middleware.take_override()
        if override is not None:
            status = override["status"]
            payload = b"x" * override["oversize"] if "oversize" in override else override.get("body", "").encode()
        else:
            payload = json.dumps(answer, sort_keys=True).encode()
        self.send_response(status)
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(len(payload)))
        self.end_headers()
        if status != 204 or payload:
            self.wfile.write(payload)


class Server(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True

    def __init__(self, context, middleware, prefix):
        super().__init__(("127.0.0.1", 0), Handler)
        self.context = context
        self.middleware = middleware
        self.prefix = prefix

    # The handshake runs on the connection's own thread, so a client that
    # rejects our certificate only ends its own connection.
    def finish_request(self, request, client_address):
        try:
            request = self.context.wrap_socket(request, server_side=True)
        except (ssl.SSLError, OSError) as error:
            sys.stderr.write("handshake failed: %s\n" % error)
            self.middleware.append("handshakes.log", str(error))
            return
        super().finish_request(request, client_address)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--dir", required=True)
    parser.add_argument("--cert", required=True)
    parser.add_argument("--key", required=True)
    parser.add_argument("--prefix", default="")
    options = parser.parse_args()
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(options.cert, options.key)
    server = Server(context, Middleware(options.dir), options.prefix.rstrip("/"))
    port = server.server_address[1]
    with open(os.path.join(options.dir, "port.tmp"), "w", encoding="utf-8") as f:
        f.write(str(port))
    os.rename(os.path.join(options.dir, "port.tmp"), os.path.join(options.dir, "port"))
    print(port, flush=True)
    server.serve_forever()


if __name__ == "__main__":
    main()
