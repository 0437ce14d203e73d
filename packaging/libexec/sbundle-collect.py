#!/usr/bin/env python3
"""Collects a support bundle of this node: logs, options, the agent's own view, state.

usage: sbundle-collect.py FOLDER [LABEL [ALL|DEFAULT|EAL4_AUDIT [DAYS [true|false]]]]

Makes FOLDER/zem-sbundle-<host>-<time>-<pid>.tgz, which only root can read, and prints its path.  EAL4_AUDIT leaves all
but options and audit logs out; ALL takes whole logs where DEFAULT takes their ends.  DAYS leaves older logs out (0: none).
"true" adds a list of the node's core files; the files themselves hold whatever was in memory and are never taken.

Works with the agent running, hanging or dead.  What is collected is a list of allowed files; links are not followed.
Secrets are replaced by "******": what stands under a name such as "password" in options, logs or answers, private keys,
and every value that was found so in an option, wherever it turns up.

In the folder of temporary files (/tmp) the agent removes bundles when it starts: to keep one, give another folder.

Exit status: 0 made; 4 FOLDER cannot be written; 63 no space left; 64 wrong usage; 68 there is nothing to collect; 70 an
error of this script; 124 it took longer than ten minutes; 27 somebody ended it.
"""

import ctypes
import fnmatch
import gzip
import html
import io
import json
import os
import re
import signal
import socket
import stat
import subprocess
import sys
import tarfile
import time
import urllib.parse
import xml.etree.ElementTree

EXIT_FOLDER, EXIT_ENDED, EXIT_SPACE, EXIT_USAGE, EXIT_NOTHING, EXIT_BROKEN, EXIT_TIME = 4, 27, 63, 64, 68, 70, 124

TIME_LIMIT_S = 600
PR_SET_PDEATHSIG = 1
HIDDEN = "******"
# A value that is shorter says nothing when it stands elsewhere, and would tear texts apart.
SHORTEST_SECRET = 6

LOGS = ["/var/log/zem-tarvik*", "/var/log/zemaLum.*", "/var/log/zem-idps/*.log", "/var/log/syslog", "/var/log/messages"]
AUDIT_LOGS = ["/var/log/audit/audit.log*", "/var/log/auth.log*"]
OPTIONS = ["/etc/orlane/zem-tarvik/*.xml", "/etc/orlane/zem-tarvik/*.json", "/etc/orlane/zem/*.xml", "/etc/zem_issue"]
# Only that they are there: name, size and time.
LISTED = ["/etc/orlane/zema/*", "/etc/orlane/zem/*", "/etc/orlane/zem-tarvik/*", "/var/run/orlane/zem-tarvik/*", "/tmp/zem/*"]
CORES = ["/var/core/*", "/var/lib/systemd/coredump/*", "/core*"]
AGENT = "zem-tarvik"
AGENT_FACTS = ["status", "limits", "io", "smaps_rollup", "wchan"]
SYSTEM_FACTS = ["/proc/meminfo", "/proc/loadavg", "/proc/uptime", "/proc/version", "/proc/mounts", "/proc/net/dev",
                "/proc/net/tcp", "/proc/net/unix"]
TOOLS = [["ps", "-C"], ["ip", "address"], ["ip", "route"], ["df", "-k"]]

LARGEST_OPTION = 1 << 20
END_OF_LOG = 4 << 20
WHOLE_LOG = 256 << 20
LARGEST_BUNDLE = 1 << 30
TOOL_SECONDS = 10

COMMAND_SOCKET = "/var/run/orlane/zem-tarvik/tarvik-cli"
COMMAND_SECONDS = 3
LONGEST_ANSWER = 8 << 20
# Commands without an answer, after which no more are asked.
MOST_SILENT = 3

NAME = (r"(?:pass(?:wd|word|phrase|code)?|pwd|secret|token|credentials?|psk|community|cookie|jsessionid"
        r"|(?:private|api|access|encryption|shared|signing)[ _-]?key)")
SECRET_NAME = re.compile(NAME, re.IGNORECASE)
# One of these stands in every line that the patterns below can match: looking for them is what makes most lines cheap.
WORDS = ("pass", "pwd", "secret", "token", "credential", "psk", "community", "cookie", "jsessionid", "key", "authorization",
         "bearer", "basic", "//", "eyj", "$")
# All repetitions within a word have a limit, else a long word would take the square of its length.
REST = r"[\w.-]{0,64}"
QUOTED = r"""[bu]?(?:"(?:\\.|[^"\\\n])*"|'(?:\\.|[^'\\\n])*')|(?P<slashes>\\+)(?P<quote>["']).*?(?P=slashes)(?P=quote)"""
# NAME=VALUE, "NAME": VALUE, NAME="VALUE" of an attribute, also as a text within a text.  Without quotes around the name the
# value goes on to the next blank.
ASSIGNED = re.compile(
    r"(?P<open>" + NAME + REST + r"""(?:(?P<quoted>\\*["']|&quot;|%22)?\s*(?::=|=>|==?|:|\\u003d|%3D)\s*))"""
    r"(?P<value>" + QUOTED + r"""|\\*["'].*|\{[^{}\n]*\}|\[[^\[\]\n]*\]|[{\[].*|(?(quoted)[^\s"',;<>&}\]]+|\S+))""",
    re.IGNORECASE)
NEXT_LINE = re.compile(r"(?P<open>" + NAME + REST + r"""["']\s*:\s*\n\s*)(?P<value>"(?:\\.|[^"\\\n])*")""", re.IGNORECASE)
# Whether the two that go over several lines can match at all.
OPENED = re.compile(r"""["'][^\S\n]*:[^\S\n]*[{\[\n]""")
# "name": "NAME", "value": "VALUE", with anything between that is no other object.
PAIR = re.compile(r"""(?P<open>["'][\w .:-]{0,64}?""" + NAME + REST + r"""\\*["'][^<>{}\n]{0,200}?\bvalue\\*["']?\s*[:=]\s*)"""
                  r"(?P<value>" + QUOTED + ")", re.IGNORECASE)
OPTION = re.compile(r"(?P<open>(?:--?[\w.-]{0,64}?" + NAME + REST + r"|\bsshpass\s+-p)\s+)(?P<value>" + QUOTED + r"|\S+)",
                    re.IGNORECASE)
ELEMENT = re.compile(r"(?P<open><(?P<tag>[\w:.-]{0,64}?" + NAME + r"[\w:.-]{0,64})(?:\s[^<>]*)?>)"
                     r"(?P<value>(?:[^<]+|.{1,1024}?))(?=</(?P=tag)\s*>)", re.IGNORECASE | re.DOTALL)
# Of a document over several lines, which may be a broken one.
BLOCK = re.compile(r"(?P<open>" + NAME + REST + r"""["']\s*:\s*[{\[])(?P<value>(?:[^{}\[\]]|[{\[][^{}\[\]]*[}\]])+)""",
                   re.IGNORECASE)
ESCAPED_ELEMENT = re.compile(r"(?P<open>&lt;(?P<tag>[\w:.-]{0,64}?" + NAME + r"[\w:.-]{0,64})&gt;)"
                             r"(?P<value>.{1,1024}?)(?=&lt;/(?P=tag)&gt;)", re.IGNORECASE)
HEADER = re.compile(r"""(?P<open>authorization\\*["']?\s*[:=]\s*)(?P<value>""" + QUOTED + r"|.*)", re.IGNORECASE)
SCHEME = re.compile(r"(?P<open>\b(?:[Bb]earer|Basic)\s+)(?P<value>[A-Za-z0-9+/=._~-]{6,})")
USER_INFO = re.compile(r"""(?P<open>//[^\s/:@]{0,256}:)(?P<value>[^\s"'<>]{1,512})(?=@)""")
WEB_TOKEN = re.compile(r"(?P<open>)(?P<value>\beyJ[\w-]{5,4096}\.[\w-]{5,4096}\.[\w-]*)")
HASH = re.compile(r"(?P<open>\$(?:1|2[abxy]|5|6|y)\$)(?P<value>[\w./$=,-]{8,})")
IN_LINES = (HEADER, SCHEME, PAIR, ASSIGNED, OPTION, ESCAPED_ELEMENT, USER_INFO, WEB_TOKEN, HASH)
# Of a key whose first line was cut off.
KEY_LINE = re.compile(r"\s*[A-Za-z0-9+/=]{60,}\s*")
KEY_BEGIN = re.compile(r"-{4,5} ?BEGIN [A-Z0-9 ]*PRIVATE KEY(?: BLOCK)? ?-{4,5}")
KEY_END = re.compile(r"-{4,5} ?END [A-Z0-9 ]*PRIVATE KEY(?: BLOCK)? ?-{4,5}")
# Says nothing by itself, under whatever name it stands.
NO_SECRET = re.compile(r"(?:true|false|yes|no|null|none|\d{1,3})?", re.IGNORECASE)


def hide(match):
    return match.group("open") + HIDDEN


class Failed(Exception):
    def __init__(self, code, text):
        super().__init__(text)
        self.code = code


class Secrets:
    """Takes secrets out of texts, and remembers those that stand in options, to find them elsewhere as well."""

    def __init__(self):
        self.known = set()
        # Too short to be looked for anywhere but as a whole value of an option.
        self.short = set()

    def learn(self, value):
        value = value.strip().strip("\"'")
        if HIDDEN in value or NO_SECRET.fullmatch(value):
            return
        if len(value) < SHORTEST_SECRET:
            self.short.add(value)
            return
        # A text holds it as its own format writes it.
        self.known.update((value, json.dumps(value)[1:-1], json.dumps(value, ensure_ascii=False)[1:-1],
                           html.escape(value), html.escape(value, quote=False), urllib.parse.quote(value, safe="")))
        for line in value.splitlines():
            if len(line.strip()) >= SHORTEST_SECRET:
                self.known.add(line.strip())

    def learn_from(self, text):
        for pattern in (ASSIGNED, PAIR, NEXT_LINE, ELEMENT, USER_INFO):
            for match in pattern.finditer(text):
                if not match.group("value").startswith(("{", "[")) and "<" not in match.group("value"):
                    self.learn(match.group("value").rstrip(",;"))

    def learn_below(self, node, hidden=False):
        """The values of a JSON document that stand below a secret's name."""
        if isinstance(node, dict):
            named = any(isinstance(node.get(key), str) and SECRET_NAME.search(node[key]) for key in ("name", "key"))
            for name, value in node.items():
                self.learn_below(value, hidden or SECRET_NAME.search(name) is not None or (named and name == "value"))
        elif isinstance(node, list):
            for value in node:
                self.learn_below(value, hidden)
        elif hidden and node is not None:
            self.learn(str(node))

    def learn_tree(self, element, hidden=False):
        hidden = hidden or SECRET_NAME.search(element.tag) is not None
        named = any(SECRET_NAME.search(element.get(key, "")) for key in ("name", "key"))
        for name, value in element.attrib.items():
            if hidden or SECRET_NAME.search(name) or (named and name == "value"):
                self.learn(value)
        if (hidden or named) and element.text:
            self.learn(element.text)
        for child in element:
            self.learn_tree(child, hidden or named)

    def learn_option(self, text):
        self.learn_from(text)
        try:
            self.learn_below(json.loads(text))
        except ValueError:
            pass
        try:
            self.learn_tree(xml.etree.ElementTree.fromstring(text))
        except xml.etree.ElementTree.ParseError:
            pass

    def clean_option(self, text):
        text = self.clean(text)
        for value in self.short:
            text = re.sub(r"(?<=[>\"'])(\s*)" + re.escape(value) + r"(?=\s*[<\"'])", r"\1" + HIDDEN, text)
        return text

    def clean(self, text):
        text = text.replace("\0", "").lstrip("\ufeff")
        # The longest first, since one may be a part of another.
        for value in sorted(self.known, key=len, reverse=True):
            text = text.replace(value, HIDDEN)
        text = ELEMENT.sub(hide, text)
        if OPENED.search(text):
            text = NEXT_LINE.sub(hide, BLOCK.sub(hide, text))
        return "".join(self.without_keys(text.splitlines(keepends=True)))

    def without_keys(self, lines):
        """The lines, each cleaned; without private keys, which stand on lines of their own."""
        in_key = False
        for line in lines:
            if not in_key and "BEGIN" in line and KEY_BEGIN.search(line):
                in_key = not KEY_END.search(line)
                yield HIDDEN + "\n"
            elif in_key:
                in_key = not KEY_END.search(line)
            elif KEY_LINE.fullmatch(line):
                yield HIDDEN + "\n"
            else:
                yield self.clean_line(line)

    @staticmethod
    def clean_line(line):
        lower = line.lower()
        if not any(word in lower for word in WORDS):
            return line
        for pattern in IN_LINES:
            line = pattern.sub(hide, line)
        return line


def allowed_files(patterns):
    """The regular files that match, without following a link at any place below the pattern's fixed part."""
    for pattern in patterns:
        folder, name = os.path.split(pattern)
        try:
            entries = sorted(os.listdir(folder))
        except OSError:
            continue
        for entry in fnmatch.filter(entries, name):
            path = os.path.join(folder, entry)
            try:
                info = os.lstat(path)
            except OSError:
                continue
            if stat.S_ISREG(info.st_mode):
                yield path, info


def open_allowed(path):
    fd = os.open(path, os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_CLOEXEC)
    info = os.fstat(fd)
    # Another name of a file from elsewhere would bring that file along.
    if not stat.S_ISREG(info.st_mode) or info.st_nlink > 1:
        os.close(fd)
        raise OSError("no regular file of its own")
    return os.fdopen(fd, "rb")


class Bundle:
    def __init__(self, path, secrets):
        self.path = path
        self.secrets = secrets
        self.size = 0
        self.members = 0
        self.notes = []
        fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW | os.O_CLOEXEC, 0o600)
        self.file = os.fdopen(fd, "wb")
        self.tar = tarfile.open(fileobj=self.file, mode="w:gz", compresslevel=6)

    def add(self, name, data, modified=None):
        if self.size + len(data) > LARGEST_BUNDLE:
            self.note(name, "left out, the bundle is full")
            return
        member = tarfile.TarInfo(name.lstrip("/"))
        member.size = len(data)
        member.mtime = int(time.time() if modified is None else modified)
        member.mode = 0o600
        self.tar.addfile(member, io.BytesIO(data))
        self.size += len(data)
        self.members += 1

    def add_text(self, name, text, modified=None):
        self.add(name, self.secrets.clean(text).encode("utf-8", "replace"), modified)

    def note(self, name, text):
        self.notes.append("%s: %s\n" % (name, text))

    def close(self):
        self.add_text("notes", "".join(self.notes))
        self.tar.close()
        self.file.flush()
        os.fsync(self.file.fileno())
        self.file.close()


def read_option(path):
    with open_allowed(path) as file:
        # Also one in an encoding of two bytes can be searched then.
        return file.read(LARGEST_OPTION).decode("utf-8", "replace").replace("\0", "")


def add_options(bundle):
    texts = []
    for path, info in allowed_files(OPTIONS):
        try:
            text = read_option(path)
        except OSError as error:
            bundle.note(path, error)
            continue
        bundle.secrets.learn_option(text)
        texts.append((path, text, info.st_mtime))
    # Only when all are known: one file may repeat what is secret in another.
    for path, text, modified in texts:
        bundle.add("options" + path, bundle.secrets.clean_option(text).encode("utf-8", "replace"), modified)


def read_log(path, limit):
    """The end of a log; of a packed one the end of what is in it."""
    with open_allowed(path) as file:
        if path.endswith(".gz"):
            with gzip.open(file) as packed:
                data = packed.read(WHOLE_LOG)
            return data[-limit:]
        size = os.fstat(file.fileno()).st_size
        file.seek(max(0, size - limit))
        return file.read(limit)


def add_logs(bundle, patterns, limit, oldest):
    for path, info in allowed_files(patterns):
        if info.st_mtime < oldest:
            continue
        try:
            data = read_log(path, limit)
        except (OSError, EOFError, gzip.BadGzipFile) as error:
            bundle.note(path, error)
            continue
        text = data.decode("utf-8", "replace")
        if len(data) == limit:
            # Half a line may be half a secret.
            text = text[text.find("\n") + 1:]
        bundle.add_text("logs" + path.removesuffix(".gz"), text, info.st_mtime)


def ask(client, method, number):
    client.sendall(json.dumps({"id": number, "method": method, "params": []}).encode())
    decoder = json.JSONDecoder()
    received = ""
    deadline = time.monotonic() + COMMAND_SECONDS
    while len(received) < LONGEST_ANSWER:
        client.settimeout(max(0.01, deadline - time.monotonic()))
        piece = client.recv(65536)
        if not piece:
            raise OSError("the agent closed the connection")
        received += piece.decode("utf-8", "replace")
        try:
            reply, _ = decoder.raw_decode(received)
        except ValueError:
            continue
        if reply.get("id") == number:
            return reply["result"] if reply.get("error") is None else "error: %s" % reply["error"]
        received = ""
    raise OSError("the answer is too long")


def connected():
    client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    try:
        client.settimeout(COMMAND_SECONDS)
        client.connect(COMMAND_SOCKET)
    except OSError:
        client.close()
        raise
    return client


def add_answers(bundle):
    """What the agent answers to each of its "get/..." commands; nothing of a dead one, and no long wait for one that hangs."""
    try:
        with connected() as client:
            names = re.findall(r"^\s*(get/\S+)", ask(client, "list-commands", 0), re.MULTILINE)
    except (OSError, KeyError, TypeError, AttributeError) as error:
        bundle.note("commands", "the agent does not answer: %s" % error)
        return
    silent = 0
    for number, name in enumerate(names, 1):
        try:
            # A connection each: an answer that is late belongs to no other command.
            with connected() as client:
                text = ask(client, name, number) + "\n"
        except (OSError, KeyError, TypeError, AttributeError) as error:
            bundle.note("commands/" + name, "no answer: %s" % error)
            silent += 1
            if silent == MOST_SILENT:
                bundle.note("commands", "the agent does not answer any more")
                return
            continue
        bundle.add_text("commands/" + name.replace("/", "_"), text)


def agents():
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open("/proc/%s/comm" % entry, encoding="utf-8", errors="replace") as file:
                comm = file.read().strip()
            # The main thread has another name than the program.
            if os.path.basename(os.readlink("/proc/%s/exe" % entry)) == AGENT or comm == AGENT:
                yield entry
        except OSError:
            continue


def add_fact(bundle, name, path):
    try:
        with open(path, "rb") as file:
            bundle.add_text(name, file.read(1 << 20).decode("utf-8", "replace"))
    except OSError as error:
        bundle.note(path, error)


def add_threads(bundle, pid):
    text = ""
    for thread in sorted(os.listdir("/proc/%s/task" % pid), key=int):
        facts = []
        for fact in ("comm", "wchan"):
            try:
                with open("/proc/%s/task/%s/%s" % (pid, thread, fact), encoding="utf-8", errors="replace") as file:
                    facts.append(file.read().strip())
            except OSError:
                facts.append("?")
        text += "%s %s\n" % (thread, " ".join(facts))
    bundle.add_text("state/agent-%s/threads" % pid, text)


def add_state(bundle):
    running = list(agents())
    if not running:
        bundle.note("state", "no agent runs")
    for pid in running:
        for fact in AGENT_FACTS:
            add_fact(bundle, "state/agent-%s/%s" % (pid, fact), "/proc/%s/%s" % (pid, fact))
        try:
            add_threads(bundle, pid)
        except OSError as error:
            bundle.note("threads of %s" % pid, error)
    for path in SYSTEM_FACTS:
        add_fact(bundle, "state" + path, path)
    environment = {"PATH": "/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin", "LC_ALL": "C"}
    for tool in TOOLS:
        try:
            done = subprocess.run(tool, stdin=subprocess.DEVNULL, capture_output=True, timeout=TOOL_SECONDS,
                                  check=False, env=environment)
            bundle.add_text("state/" + "_".join(tool), done.stdout.decode("utf-8", "replace"))
        except (OSError, subprocess.TimeoutExpired) as error:
            bundle.note(" ".join(tool), error)


def add_list(bundle, name, patterns):
    lines = ["%s %d %s\n" % (time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(info.st_mtime)), info.st_size, path)
             for path, info in allowed_files(patterns)]
    bundle.add_text(name, "".join(lines))


def collect(bundle, label, content, days, cores):
    oldest = time.time() - days * 86400 if days > 0 else 0
    # First, because they tell what is secret.
    add_options(bundle)
    add_logs(bundle, AUDIT_LOGS, WHOLE_LOG if content == "ALL" else END_OF_LOG, oldest)
    if content != "EAL4_AUDIT":
        add_logs(bundle, LOGS, WHOLE_LOG if content == "ALL" else END_OF_LOG, oldest)
        add_answers(bundle)
        add_state(bundle)
        add_list(bundle, "state/files", LISTED)
    if cores:
        add_list(bundle, "state/cores", CORES)
    if bundle.members == 0:
        raise Failed(EXIT_NOTHING, "there is nothing to collect")
    bundle.add_text("label", label + "\n" + content + "\n")


def arguments(words):
    if not 1 <= len(words) <= 5:
        raise Failed(EXIT_USAGE, __doc__.split("\n\n")[1])
    folder, label, content, days, cores = words + ["", "DEFAULT", "0", "false"][len(words) - 1:]
    if content not in ("ALL", "DEFAULT", "EAL4_AUDIT") or cores not in ("true", "false") or not days.isdigit():
        raise Failed(EXIT_USAGE, __doc__.split("\n\n")[1])
    return folder, label, content, int(days), cores == "true"


def end_with(code, text):
    def handler(_number, _frame):
        raise Failed(code, text)

    return handler


def main(words):
    # The agent that runs this may be killed: nobody would remove the bundle.
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGTERM, 0, 0, 0)
    path = None
    try:
        folder, label, content, days, cores = arguments(words)
        signal.signal(signal.SIGTERM, end_with(EXIT_ENDED, "ended"))
        signal.signal(signal.SIGINT, end_with(EXIT_ENDED, "ended"))
        signal.signal(signal.SIGALRM, end_with(EXIT_TIME, "it takes too long"))
        signal.alarm(TIME_LIMIT_S)
        os.umask(0o077)
        host = re.sub(r"[^A-Za-z0-9-]", "_", socket.gethostname())
        name = "zem-sbundle-%s-%s-%d.tgz" % (host, time.strftime("%Y%m%dT%H%M%SZ", time.gmtime()), os.getpid())
        path = os.path.join(folder, name)
        try:
            bundle = Bundle(path, Secrets())
        except OSError as error:
            path = None
            raise Failed(EXIT_FOLDER, "%s: %s" % (folder, error.strerror)) from None
        collect(bundle, label, content, days, cores)
        bundle.close()
        signal.alarm(0)
        print(path, flush=True)
        return 0
    except Failed as failed:
        code, text = failed.code, str(failed)
    except OSError as error:
        no_space = error.errno in (28, 122)
        code, text = (EXIT_SPACE if no_space else EXIT_BROKEN), str(error)
    except Exception as error:  # pylint: disable=broad-except
        code, text = EXIT_BROKEN, "%s: %s" % (type(error).__name__, error)
    if path is not None and os.path.exists(path):
        os.unlink(path)
    print(text, file=sys.stderr)
    return code


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
