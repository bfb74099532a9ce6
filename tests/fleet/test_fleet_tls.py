"""The way over TLS, as docs/fleet.md sets it up."""
import subprocess

import pytest

from demo.cluster import free_ports
from fleet_world import Box, has_servers, private_fleet

SETTINGS = """<https_port>{port}</https_port>
    <openSSL><server><certificateFile>{folder}/certificate.pem</certificateFile><privateKeyFile>{folder}/key.pem</privateKeyFile>
    <verificationMode>none</verificationMode><disableProtocols>sslv2,sslv3</disableProtocols></server></openSSL>"""


def make_certificate(folder, address):
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2",
                    "-subj", "/CN=fleet", "-addext", f"subjectAltName=IP:{address}", "-keyout", f"{folder}/key.pem",
                    "-out", f"{folder}/certificate.pem"], check=True, capture_output=True)


@pytest.fixture
def safe_fleet():
    """Servers that also listen with TLS; and the ports on which they do."""
    if not has_servers():
        pytest.skip("clickhouse-server is not installed")
    with private_fleet(start=False) as made:
        ports = free_ports(len(made.servers))
        for server, port in zip(made.servers, ports):
            server.more = SETTINGS.format(port=port, folder=made.folder)
        make_certificate(made.folder, "127.0.0.1")
        made.start()
        yield made, ports


def over_tls(fleet, ports, name, **settings):
    """An appliance that knows the servers by these ports alone."""
    box = Box(fleet, name, files=100, **settings)
    with open(box.pusher.configuration, encoding="utf-8") as file:
        lines = [line for line in file if not line.startswith("url")]
    with open(box.pusher.configuration, "w", encoding="utf-8") as file:
        file.writelines([*(f"url = https://127.0.0.1:{port}\n" for port in ports), *lines])
    return box


def test_rows_arrive_over_tls(safe_fleet):
    fleet, ports = safe_fleet
    box = over_tls(fleet, ports, "safe", ca_file=f"{fleet.folder}/certificate.pem")
    box.push()
    box.assert_arrived()
    assert fleet.number("SELECT count() FROM quarrow.live_files") == 100


def test_a_certificate_of_nobody_known_is_refused(safe_fleet):
    fleet, ports = safe_fleet
    status, said = over_tls(fleet, ports, "wary").pusher.run()
    assert status == 1 and "certificate does not fit" in said, said
    assert fleet.number("SELECT count() FROM quarrow.files") == 0


def test_a_certificate_for_another_address_is_refused(safe_fleet):
    fleet, ports = safe_fleet
    for server in fleet.servers:
        server.stop()
    make_certificate(fleet.folder, "127.0.0.2")
    for server in fleet.servers:
        server.start()
        server.wait_ready()
    box = over_tls(fleet, ports, "wary", ca_file=f"{fleet.folder}/certificate.pem")
    status, said = box.pusher.run()
    assert status == 1 and "certificate does not fit" in said, said
    assert fleet.number("SELECT count() FROM quarrow.files") == 0
