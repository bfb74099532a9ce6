"""The configuration: lines `key = value`, where `#` begins a comment line. `url` and `volume` may be repeated."""
import dataclasses
import ipaddress
import os
import socket
import stat
import urllib.parse

from pusher.problem import Unusable, reason_of

LISTS = ("url", "volume")
NUMBERS = ("timeout", "patience", "pause", "longest_pause", "contact")
NEEDED = ("url", "user", "password_file")
PRINTED_LIMIT = 100


@dataclasses.dataclass
class Settings:
    place: str  # of the file
    url: list = dataclasses.field(default_factory=list)
    user: str = ""
    password_file: str = ""
    ca_file: str = ""
    database: str = "quarrow"
    appliance: str = dataclasses.field(default_factory=socket.gethostname)
    state: str = "/var/lib/quarrow-push"
    volume: list = dataclasses.field(default_factory=list)
    quarrowctl: str = "quarrowctl"
    plain_http: str = "no"
    timeout: float = 60  # of a step of a request; a request may last ten times as long
    patience: float = 600  # --once gives up when the server has taken nothing for so long
    pause: float = 1  # after a first failure
    longest_pause: float = 120
    contact: float = 900  # --follow tells the database that often that the appliance is there

    def password(self):
        """Read for each request: a corrected one counts at once."""
        try:
            descriptor = os.open(self.password_file, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)  # a pipe would have it wait
            with open(descriptor, "rb") as file:
                status = os.fstat(descriptor)
                content = file.read(4096) if stat.S_ISREG(status.st_mode) else b""
        except OSError as failure:
            raise Unusable(self.password_file, f"The password cannot be read: {reason_of(failure)}",
                           "Make the file, readable for this user alone") from None
        if not stat.S_ISREG(status.st_mode) or status.st_mode & stat.S_IRWXO:
            raise Unusable(self.password_file, "Others may read this file, or it is no regular one",
                           f"Close it: chmod 600 {self.password_file}, or 640 when root owns it")
        password = content.rstrip(b"\r\n")
        if not is_header(password):
            raise Unusable(self.password_file, "The password has a control character, or there is none",
                           "Write one line of text into the file")
        return password


def is_header(value):
    return bool(value) and not any(byte < 32 or byte == 127 for byte in value)


def read_settings(path):
    settings = Settings(path)
    try:
        with open(path, encoding="utf-8", errors="surrogateescape") as file:
            lines = file.read().splitlines()
    except OSError as failure:
        raise Unusable(path, f"The configuration cannot be read: {reason_of(failure)}",
                       "Name another one with --config") from None
    for number, line in enumerate(lines, 1):
        if line.strip() and not line.lstrip().startswith("#"):
            set_value(settings, f"{path}:{number}", line)
    check(settings)
    return settings


def set_value(settings, place, line):
    key, separator, value = (part.strip() for part in line.partition("="))
    if not separator or key == "place" or key not in vars(settings):
        raise Unusable(place, f"There is no setting '{key[:PRINTED_LIMIT]}'", "Write 'key = value'; docs/fleet.md has the keys")
    if "\0" in value:
        raise Unusable(place, f"'{key}' has a byte 0", "Correct it")
    if not value:
        raise Unusable(place, f"'{key}' has no value", "Give it one, or remove the line")
    if key in LISTS:
        getattr(settings, key).append(value)
    elif key in NUMBERS:
        try:
            number = float(value)
        except ValueError:
            number = -1
        if not 0 < number < 1e9:  # which leaves out what is no number at all
            raise Unusable(place, f"'{value[:PRINTED_LIMIT]}' is no number of seconds", "Write one above 0")
        setattr(settings, key, number)
    else:
        setattr(settings, key, value)


def check(settings):
    for key in NEEDED:
        if not getattr(settings, key):
            raise Unusable(settings.place, f"'{key}' is missing", f"Add a line '{key} = ...'")
    for url in settings.url:
        check_url(settings, url)
    if not is_header(settings.user.encode("utf-8", "surrogateescape")):
        raise Unusable(settings.place, "'user' has a control character", "Correct it")
    if not os.path.isabs(settings.state):
        raise Unusable(settings.place, "'state' is a relative path", "Write one that begins with /")
    if settings.plain_http not in ("yes", "no"):
        raise Unusable(settings.place, "'plain_http' is neither yes nor no", "Write one of them")


def check_url(settings, url):
    try:
        parts = urllib.parse.urlsplit(url)
        good = parts.scheme in ("http", "https") and parts.hostname and parts.port != 0
    except ValueError:
        good = False
    if not good or "@" in url or parts.path not in ("", "/") or parts.query or parts.fragment or not url.isascii():
        shown = url.rpartition("@")[2]  # what stands before may be a password
        raise Unusable(settings.place, f"'{shown[:PRINTED_LIMIT]}' is no address of a server",
                       "Write https://HOST:PORT, and the password into a file of its own")
    if parts.scheme == "http" and settings.plain_http == "no" and not is_loopback(parts.hostname):
        raise Unusable(settings.place, f"'{url}' would send the password and all names in the clear",
                       "Write https://, or 'plain_http = yes' when the way there is safe")


def is_loopback(host):
    try:
        return ipaddress.ip_address(host).is_loopback
    except ValueError:
        return host == "localhost"
