#!/usr/bin/env python3
"""Sends one file to the manager, or to a file server.

usage: sbundle-upload.py [FILE] < REQUEST

REQUEST is one JSON object: "local_path", "generate_id", "manager_info" with "server", "port" and "thumbprint", and in
"manager_info" either "manager_uri", the target's path, or the names and addresses by which the manager is reached
("fqdn", "fqdn_required", "ipv4_address", "ipv6_address", each of several divided by blanks).  With "file_server_info"
the file goes to that server instead, by scp or sftp.  FILE, when given, has to be "local_path".

The manager is known by the SHA-256 of its certificate alone ("thumbprint"), the file server by the SHA-256 fingerprint
of its host key.  Nothing is sent before that has been compared.

Exit status: 0 sent, with one line that says so, which begins with "FS" for a file server; 4 the peer is not who it
should be, or does not let us in; 2 the request is wrong; 1 everything else, with the reason on standard error.
"""

import base64
import binascii
import ctypes
import hashlib
import hmac
import http.client
import json
import os
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import urllib.parse

LONGEST_REQUEST = 1 << 20
CONNECT_SECONDS = 20
# Between two pieces of the conversation, not for the whole file.
SILENCE_SECONDS = 300
PIECE = 1 << 20
# The password comes last and unescaped: everything between these two belongs to it.
PASSWORD_BEGIN = '"password": "'
PASSWORD_END = '"}}}}'

EXIT_FAILED, EXIT_USAGE, EXIT_IDENTITY = 1, 2, 4
PR_SET_PDEATHSIG = 1
# What a path may hold as it is; ids and tokens hold anything.
PATH_CHARACTERS = "/:@!$&'()*+,;="


class Refused(Exception):
    """Why the file is not sent; the text never holds a secret."""

    def __init__(self, text, code=EXIT_FAILED):
        super().__init__(text)
        self.code = code


def read_request(text):
    """The request as an object.  A quote or backslash in the file server's password would break the JSON around it."""
    password = None
    begin = text.find(PASSWORD_BEGIN, max(text.find('"file_server_info"'), 0))
    if begin >= 0 and text.rstrip().endswith(PASSWORD_END):
        begin += len(PASSWORD_BEGIN)
        end = text.rstrip().rfind(PASSWORD_END)
        password = text[begin:end]
        text = text[:begin] + text[end:]
    try:
        request = json.loads(text)
    except ValueError as error:
        raise Refused(f"the request is no JSON: {error}", EXIT_USAGE) from None
    if password is not None:
        request["file_server_info"]["protocol"]["authentication_scheme"]["password"] = password
    return request


def fingerprint_bytes(text):
    """A fingerprint as bytes: hexadecimal digits with or without colons, or the base64 of the ssh tools."""
    text = text.strip()
    if text.upper().startswith("SHA256:"):
        text = text[7:]
    digits = text.replace(":", "")
    try:
        if len(digits) == 64:
            return binascii.unhexlify(digits)
        return base64.b64decode(text + "=" * (-len(text) % 4), validate=True)
    except (binascii.Error, ValueError):
        return b""


def manager_hosts(info):
    """Where the manager may be, best first."""
    hosts = []
    if info.get("server"):
        hosts.append(info["server"])
    names = info.get("fqdn", "").split()
    addresses = info.get("ipv4_address", "").split() + info.get("ipv6_address", "").split()
    hosts += names if info.get("fqdn_required") else names + addresses
    if not hosts:
        raise Refused("the request names no server", EXIT_USAGE)
    return list(dict.fromkeys(hosts))


def connect(hosts, port):
    reasons = []
    for host in hosts:
        try:
            return host, socket.create_connection((host, port), timeout=CONNECT_SECONDS)
        except OSError as error:
            reasons.append(f"{host}:{port}: {error}")
    raise Refused("no connection: " + "; ".join(reasons))


def send_to_manager(path, request):
    info = request["manager_info"]
    uri = info.get("manager_uri") or f"api/v1/support-bundle/{request['generate_id']}/file"
    target = "/" + urllib.parse.quote(uri.lstrip("/"), safe=PATH_CHARACTERS, errors="surrogateescape")
    upload_id = request["generate_id"]
    # The HTTP library's own refusal would show it.
    if not (upload_id.isascii() and upload_id.isprintable()):
        raise Refused("the request's generate_id does not fit into a header", EXIT_USAGE)
    wanted = fingerprint_bytes(info["thumbprint"])
    with open(path, "rb") as content:
        size = os.fstat(content.fileno()).st_size
        host, plain = connect(manager_hosts(info), int(info["port"]))
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        # The thumbprint is the whole trust; names and authorities of a manager's own certificate say nothing.
        context.check_hostname = False
        context.verify_mode = ssl.CERT_NONE
        with context.wrap_socket(plain, server_hostname=None) as secure:
            found = hashlib.sha256(secure.getpeercert(binary_form=True)).digest()
            if not hmac.compare_digest(found, wanted):
                raise Refused(f"{host}: the certificate is not the one of the thumbprint", EXIT_IDENTITY)
            secure.settimeout(SILENCE_SECONDS)
            connection = http.client.HTTPSConnection(host, int(info["port"]))
            connection.sock = secure
            connection.putrequest("PUT", target)
            connection.putheader("Content-Type", "application/octet-stream")
            connection.putheader("Content-Length", str(size))
            connection.putheader("X-Upload-Id", upload_id)
            connection.endheaders()
            left = size
            while left > 0:
                piece = content.read(min(PIECE, left))
                if not piece:
                    raise Refused(f"{path} became shorter while it was sent")
                connection.send(piece)
                left -= len(piece)
            answer = connection.getresponse()
            answer.read(PIECE)
            if answer.status in (401, 403):
                raise Refused(f"{host} does not let us in: {answer.status}", EXIT_IDENTITY)
            if answer.status // 100 != 2:
                raise Refused(f"{host} refused the file: {answer.status} {answer.reason}")
    return f"{os.path.basename(path)} sent to {host}"


def known_hosts(server, port, wanted):
    """The server's line for known_hosts, when its key is the expected one."""
    scan = subprocess.run(["ssh-keyscan", "-T", str(CONNECT_SECONDS), "-p", str(port), "--", server],
                          stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    lines = [line for line in scan.stdout.splitlines() if line and not line.startswith("#")]
    if not lines:
        raise Refused(f"{server}:{port} shows no host key")
    for line in lines:
        key = base64.b64decode(line.split()[2])
        if hmac.compare_digest(hashlib.sha256(key).digest(), wanted):
            return line + "\n"
    raise Refused(f"{server}: the host key is not the one of the fingerprint", EXIT_IDENTITY)


def send_to_file_server(path, info):
    server, port, protocol = info["server"], int(info["port"]), info["protocol"]
    scheme = protocol["authentication_scheme"]
    line = known_hosts(server, port, fingerprint_bytes(protocol["ssh_fingerprint"]))
    # One file for everything that the client reads; it holds no secret.
    with tempfile.TemporaryDirectory(prefix="sbundle-upload-") as folder:
        hosts = os.path.join(folder, "hosts")
        with open(hosts, "w", encoding="utf-8") as out:
            out.write(line)
        asker = os.path.join(folder, "ask")
        with open(asker, "w", encoding="utf-8") as out:
            out.write('#!/bin/sh\nprintf "%s\\n" "$SBUNDLE_PASSWORD"\n')
        os.chmod(asker, 0o700)
        options = ["-o", f"UserKnownHostsFile={hosts}", "-o", "GlobalKnownHostsFile=/dev/null",
                   "-o", "StrictHostKeyChecking=yes", "-o", "NumberOfPasswordPrompts=1",
                   "-o", "PreferredAuthentications=password,keyboard-interactive", "-o", "PubkeyAuthentication=no",
                   "-o", f"ConnectTimeout={CONNECT_SECONDS}", "-o", "ServerAliveInterval=60", "-P", str(port)]
        target = f"{scheme['username']}@[{server}]:{info['uri']}"
        # The old protocol only where it is asked for; both put the file under the same name.
        command = ["scp", "-q"] + (["-O"] if protocol["name"] == "scp" else ["-s"]) + options + ["--", path, target]
        environment = dict(os.environ, SSH_ASKPASS=asker, SSH_ASKPASS_REQUIRE="force",
                           SBUNDLE_PASSWORD=scheme["password"])
        environment.setdefault("PATH", "/usr/bin:/bin")
        done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, env=environment,
                              check=False)
    if done.returncode != 0:
        text = done.stderr.strip()[-1000:]
        denied = "Permission denied" in text and scheme["username"] + "@" in text
        raise Refused(f"{server}: {text}", EXIT_IDENTITY if denied else EXIT_FAILED)
    return f"FS {os.path.basename(path)} sent to {server}"


def ended(number, _frame):
    # The next one comes when the caller has lost patience; it must not break the way out off.
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    signal.signal(signal.SIGTERM, signal.SIG_IGN)
    raise SystemExit(128 + number)


def main(arguments):
    # On the way out the client of the file server ends as well, and its folder goes.
    signal.signal(signal.SIGINT, ended)
    signal.signal(signal.SIGTERM, ended)
    # Nobody would wait for the outcome once the agent is gone.
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGTERM, 0, 0, 0)
    try:
        text = sys.stdin.read(LONGEST_REQUEST + 1)
        if len(text) > LONGEST_REQUEST:
            raise Refused("the request is too long", EXIT_USAGE)
        request = read_request(text)
        path = request["local_path"]
        if len(arguments) > 1 or (arguments and arguments[0] != path):
            raise Refused("the file is not the one of the request", EXIT_USAGE)
        file_server = request.get("file_server_info")
        print(send_to_file_server(path, file_server) if file_server else send_to_manager(path, request))
    except Refused as error:
        print(error, file=sys.stderr)
        return error.code
    except (KeyError, TypeError, ValueError, AttributeError) as error:
        print(f"the request is wrong: {type(error).__name__} {error}", file=sys.stderr)
        return EXIT_USAGE
    except (OSError, http.client.HTTPException) as error:
        print(error, file=sys.stderr)
        return EXIT_FAILED
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
