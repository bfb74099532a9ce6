"""What can go wrong at the server and on the way to it: nothing is lost, the cursor stays, and a message says what to do."""
import os
import socket
import ssl
import subprocess
import sys

import pytest
from push_server import FULL, NO_TABLE, WRONG_PASSWORD, WRONG_PASSWORD_EARLIER, PushServer
from push_world import TOP

sys.path.insert(0, f"{TOP}/fleet")
from pusher import server  # noqa: E402 (the path comes first)
from pusher.server import Refusal  # noqa: E402
from pusher.settings import Settings  # noqa: E402

PORTAL = (200, "<html>Please log in</html>", False)
NO_HEADER = (200, "", False)
EXCEPTION_IN_200 = (200, FULL[1])
SILENT_FAILURE = (500, "")
ELSEWHERE = {"status": 307, "text": "", "Location": "http://127.0.0.1:1/"}

#: What the server does all the time, the words of the message, and whether another try could help.
FAULTS = {
    "full": (FULL, ["The server failed (500)", "not enough space", "Its log says more"], True),
    "silent": (SILENT_FAILURE, ["The server failed (500)", "Internal Server Error"], True),
    "wrong password": (WRONG_PASSWORD, ["does not let this user in (403)", "password is incorrect", "Correct 'user'"], False),
    "wrong password, earlier engine": (WRONG_PASSWORD_EARLIER, ["does not let this user in", "Wrong password"], False),
    "no table": (NO_TABLE, ["cannot take these rows", "doesn't exist", "fleet/schema.sql"], False),
    "a portal": (PORTAL, ["not that of the database", "Please log in", "a portal or a proxy"], True),
    "something else": (NO_HEADER, ["not that of the database", "a header of its own is missing", "proxy"], True),
    "a lie": (EXCEPTION_IN_200, ["The server failed (200)", "not enough space"], True),
    "a cut answer": ({"status": 200, "text": "", "length": "100"}, ["The connection failed", "cut short"], True),
    "an endless answer": ({"status": 200, "text": "", "length": "none"}, ["The connection failed", "no marked end"], True),
    "a redirection": (ELSEWHERE, ["is a redirection to 'http://127.0.0.1:1/'", "address of the database itself"], False),
    "answer lost": ("answer lost", ["The connection failed", "Does the server run"], True),
    "half a request": ("half a request", ["The connection failed", "Does the server run"], True),
    "never at an end": ("drip", ["No answer in time"], True),
    "slow": ("slow", ["No answer in time", "'timeout' longer"], True),
}


def test_a_server_that_fails(world):
    world.volume(files=50)
    for name, (fault, words, can_pass) in FAULTS.items():
        is_hanging = fault in ("slow", "drip")
        world.configure(patience=0.01, timeout=0.5 if is_hanging else 10)
        world.server.always = fault
        attempts = world.server.attempts
        result = world.bad(1, world.server.url, *words)
        assert world.cursor() == "", name
        assert result.errors.count("Trying again") == can_pass, (name, result.errors)
        assert (world.server.attempts > attempts + 1) == can_pass, name
    world.server.always = None
    world.server.released.set()
    world.good()
    world.assert_complete()


@pytest.mark.parametrize("fault", [FULL, "answer lost", "half a request", EXCEPTION_IN_200], ids=str)
def test_a_server_that_fails_now_and_then(world, fault):
    world.volume(files=50)
    world.server.faults.extend([fault, None, fault, fault, None, fault, None, fault])
    result = world.run()
    assert (result.status, result.errors.count("\n")) == (0, 4), result.errors
    assert not world.server.faults
    world.assert_complete()


def test_a_request_that_is_stored_long_after_its_repetition(world):
    """And after a later state of the same rows, and of the volume."""
    volume = world.volume()
    world.server.faults.extend(["late", None, "late", None, "late", None, "late"])
    assert world.run().status == 0
    for statement in ("set size = size + 1", "set is_deleted = 1"):
        volume.edit(f"update Files {statement}, last_updated_time = strftime('%s', 'now')")
        world.server.faults.extend(["late"])
        assert world.run("--full").status == 0
    volume.edit("update Files set is_deleted = 0, last_updated_time = strftime('%s', 'now')")
    world.good()
    newest = world.server.volumes()
    assert len(world.server.late) == 6
    world.server.arrive()
    assert world.server.volumes() == newest
    world.assert_complete()


def test_a_server_that_is_down(world):
    volume = world.volume()
    world.good()
    cursor = world.cursor()
    volume.add("unsent")
    with socket.socket() as silent:
        silent.bind(("127.0.0.1", 0))  # and does not listen
        url = f"http://127.0.0.1:{silent.getsockname()[1]}"
        world.configure(url=[url], patience=0.3)
        world.bad(1, url, "Connection refused", "Does the server run, and listen there? Trying again;")
    assert world.cursor() == cursor
    world.configure()
    world.good()
    world.assert_complete()


def test_a_name_that_no_server_has(world):
    world.volume()
    for url in ("https://fleet.invalid:8443", "https://fleet..invalid"):
        world.configure(url=[url], patience=0.1)
        world.bad(1, f"{url}: The connection failed", "Does the server run",
                  environment={"RES_OPTIONS": "timeout:1 attempts:1"})
    assert world.cursor() == ""


def test_pauses_double_up_to_the_longest_and_differ_by_chance(monkeypatch):
    pauses, chances, refusals = [], [], [Refusal("there", "why", "what to do")]
    answers = iter([refusals] * 6 + [[]])
    monkeypatch.setattr(server.Server, "try_all", lambda *_: next(answers))
    monkeypatch.setattr(server.time, "sleep", pauses.append)
    monkeypatch.setattr(server.random, "uniform", lambda *bounds: chances.append(bounds) or 0.75)
    server.Server(Settings("", pause=1, longest_pause=10), is_patient=True).insert("files", b"")
    assert pauses == [0.75 * pause for pause in (1, 2, 4, 8, 10, 10)] and set(chances) == {(0.5, 1)}


def test_another_server_takes_it_when_one_fails(world):
    volume = world.volume()
    world.good()
    other = PushServer()
    try:
        world.server.always = FULL
        other.requests = world.server.requests  # they share what they store
        world.configure(url=[world.server.url, other.url])
        attempts = world.server.attempts
        volume.add("new")
        world.good()
        assert world.server.attempts == attempts + 1  # the one that works is asked first then
        world.assert_complete()
    finally:
        other.close()


@pytest.fixture(scope="module")
def certificates(tmp_path_factory):
    """An authority that vouches for 127.0.0.1, and a certificate of the same authority for another name."""
    folder = tmp_path_factory.mktemp("certificates")

    def openssl(*arguments):
        subprocess.run(["openssl", *arguments], cwd=folder, check=True, capture_output=True)

    openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout", "ca.key", "-out", "ca.pem",
            "-days", "2", "-subj", "/CN=fleet")
    for name, subject in (("right", "IP:127.0.0.1"), ("wrong", "DNS:elsewhere.example")):
        openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout", f"{name}.key", "-out",
                f"{name}.csr", "-subj", "/CN=server")
        (folder / "extensions").write_text(f"subjectAltName={subject}\n")
        openssl("x509", "-req", "-in", f"{name}.csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial", "-days", "2",
                "-extfile", "extensions", "-out", f"{name}.pem")
    return folder


def tls_server(certificates, name):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificates / f"{name}.pem", certificates / f"{name}.key")
    return PushServer(context=context)


def test_certificates(world, certificates):
    world.volume()
    right, wrong = tls_server(certificates, "right"), tls_server(certificates, "wrong")
    try:
        world.configure(url=[right.url])
        world.bad(1, right.url, "certificate does not fit", "unable to get local issuer", "'ca_file'")
        world.configure(url=[wrong.url], ca_file=certificates / "ca.pem")
        world.bad(1, wrong.url, "certificate does not fit", "not valid for '127.0.0.1'", "a certificate for this name")
        world.configure(url=[right.url], ca_file=world.path("none.pem"))
        world.bad(1, "none.pem", "No such file", "'ca_file'")
        world.configure(url=[world.server.url.replace("http", "https")], ca_file=certificates / "ca.pem", patience=0.1)
        world.bad(1, "No safe connection", "speak TLS")
        assert world.cursor() == "" and not right.requests + wrong.requests + world.server.requests
        world.configure(url=[right.url], ca_file=certificates / "ca.pem")
        world.good()
        world.server.requests = right.requests
        world.assert_complete()
    finally:
        right.close()
        wrong.close()


def test_a_password_does_not_travel_in_the_clear(world):
    world.volume()
    world.configure(url=["http://192.0.2.1:8123"], patience=0.1)
    world.bad(2, "push.conf", "in the clear", "https://")
    world.configure(url=["http://192.0.2.1:8123"], patience=0.1, timeout=0.05, plain_http="yes")
    world.bad(1, "http://192.0.2.1:8123")
    assert os.listdir(world.state_folder)
