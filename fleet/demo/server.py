"""One database server on loopback that runs as the caller, with all its files in a folder of its own."""
import os
import signal
import subprocess
import time
import urllib.error
import urllib.parse
import urllib.request
from xml.sax.saxutils import escape

PROGRAM = "/usr/sbin/clickhouse-server"
PATIENCE = 120  # seconds until a server that should answer counts as failed
END_BOUND = 20

CONFIGURATION = """<?xml version="1.0"?>
<yandex>
    <logger><level>warning</level><log>{folder}/server.log</log><errorlog>{folder}/errors.log</errorlog></logger>
    <listen_host>127.0.0.1</listen_host>
    <http_port>{http}</http_port>
    <tcp_port>{tcp}</tcp_port>
    <interserver_http_port>{interserver}</interserver_http_port>
    <interserver_http_host>127.0.0.1</interserver_http_host>
    <max_connections>256</max_connections>
    <keep_alive_timeout>10</keep_alive_timeout>
    <uncompressed_cache_size>0</uncompressed_cache_size>
    <mark_cache_size>268435456</mark_cache_size>
    <path>{folder}/data/</path>
    <tmp_path>{folder}/tmp/</tmp_path>
    <user_files_path>{folder}/user_files/</user_files_path>
    <format_schema_path>{folder}/format_schemas/</format_schema_path>
    <users_config>{folder}/users.xml</users_config>
    <default_profile>default</default_profile>
    <default_database>default</default_database>
    <timezone>UTC</timezone>
    <remote_servers><quarrow>{shards}</quarrow></remote_servers>
    {more}
</yandex>
"""
SHARD = ("<shard><internal_replication>true</internal_replication>"
         "<replica><host>127.0.0.1</host><port>{tcp}</port><user>{user}</user><password>{password}</password></replica></shard>")
USERS = """<?xml version="1.0"?>
<yandex>
    <profiles>
        <default><max_memory_usage>4000000000</max_memory_usage></default>
        <push><allow_ddl>0</allow_ddl></push>
        <read><readonly>2</readonly><allow_ddl>0</allow_ddl></read>
    </profiles>
    <quotas><default></default></quotas>
    <users>{users}</users>
</yandex>
"""
USER = ("<{name}><password>{password}</password><networks><ip>127.0.0.1</ip></networks><profile>{profile}</profile>"
        "<quota>default</quota>{databases}</{name}>")


def with_parent(*command):
    """The command as it ends when this process is gone, however that came. The parent may be gone before the kernel is told of
    that wish: hence the look at it afterwards."""
    return ["setpriv", "--pdeathsig", "KILL", "--", "sh", "-c", f'[ "$PPID" = {os.getpid()} ] && exec "$@"', "sh", *command]


class QueryError(Exception):
    """What the server, or the way to it, has against a statement."""


class Server:
    """`ports` are three: for HTTP, for the engine's own protocol, and between replicas. `users` are (name, password, profile)."""

    def __init__(self, folder, ports, users):
        self.folder = folder
        self.http, self.tcp, self.interserver = ports
        self.users = users
        self.more = ""  # of its configuration
        self.process = None

    def configure(self, tcp_ports):
        """Writes its configuration: a cluster of one shard for each of the ports. Servers log in at each other as the first user."""
        for name in ("data", "tmp", "user_files", "format_schemas"):
            os.makedirs(os.path.join(self.folder, name), exist_ok=True)
        own = {"user": self.users[0][0], "password": escape(self.users[0][1])}
        shards = "".join(SHARD.format(tcp=port, **own) for port in tcp_ports)
        self.write("config.xml", CONFIGURATION.format(folder=escape(self.folder), http=self.http, tcp=self.tcp,
                                                      interserver=self.interserver, shards=shards, more=self.more))
        limited = "<allow_databases><database>quarrow</database></allow_databases>"
        self.write("users.xml", USERS.format(users="".join(
            USER.format(name=name, password=escape(password), profile=profile, databases="" if profile == "default" else limited)
            for name, password, profile in self.users)))

    def write(self, name, text):
        path = os.path.join(self.folder, name)
        with open(os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600), "w", encoding="utf-8") as file:
            file.write(text)

    def start(self):
        with open(os.path.join(self.folder, "output"), "ab") as output:
            self.process = subprocess.Popen(with_parent(PROGRAM, f"--config-file={self.folder}/config.xml"), cwd=self.folder,
                                            stdin=subprocess.DEVNULL, stdout=output, stderr=output, start_new_session=True)

    def wait_ready(self):
        deadline = time.monotonic() + PATIENCE
        while not self.answers():
            if self.process.poll() is not None:
                raise RuntimeError(f"The server in {self.folder} has ended with status {self.process.returncode}:\n{self.last_words()}")
            if time.monotonic() > deadline:
                raise RuntimeError(f"The server in {self.folder} does not answer after {PATIENCE} s:\n{self.last_words()}")
            time.sleep(0.05)

    def answers(self):
        try:
            return self.query("SELECT 1", timeout=5) == b"1\n"
        except QueryError:
            return False

    def last_words(self):
        text = ""
        for name in ("output", "errors.log"):
            path = os.path.join(self.folder, name)
            if os.path.exists(path):
                with open(path, encoding="utf-8", errors="replace") as file:
                    text += "".join(file.readlines()[-10:])
        return text

    def query(self, statement, data=None, user=None, timeout=PATIENCE, headers=None, **settings):
        """Runs one statement, as the first user unless told otherwise, and returns its answer in bytes. `data` is what an
        INSERT takes."""
        name, password = user or self.users[0][:2]
        statement = statement.encode("utf-8", "surrogateescape")
        if data is not None:
            settings["query"], statement = statement, data
        url = f"http://127.0.0.1:{self.http}/?{urllib.parse.urlencode(settings)}"
        request = urllib.request.Request(url, statement, {"X-ClickHouse-User": name, "X-ClickHouse-Key": password, **(headers or {})})
        try:
            with urllib.request.urlopen(request, timeout=timeout) as answer:
                return answer.read()
        except urllib.error.HTTPError as error:
            raise QueryError(error.read().decode("utf-8", "replace").strip()) from error
        except OSError as error:
            raise QueryError(str(error)) from error

    def freeze(self):
        """From here on it answers nothing. The kernel still takes connections for it, and what is sent on them."""
        self.process.send_signal(signal.SIGSTOP)

    def thaw(self):
        self.process.send_signal(signal.SIGCONT)

    def unread(self):
        """How many bytes wait for it on connections to its port for HTTP."""
        with open("/proc/net/tcp", encoding="ascii") as file:
            connections = [line.split() for line in file.readlines()[1:]]
        own = f"0100007F:{self.http:04X}"
        return sum(int(fields[4].split(":")[1], 16) for fields in connections if fields[1] == own and fields[3] != "0A")

    def kill(self):
        """As a crash would have it."""
        self.process.kill()
        self.process.wait()

    def ask_to_stop(self):
        if self.process is not None and self.process.poll() is None:
            self.process.terminate()
            self.thaw()  # it may be frozen, and then it would not notice

    def stop(self):
        self.ask_to_stop()
        if self.process is None:
            return
        try:
            self.process.wait(END_BOUND)
        except subprocess.TimeoutExpired:  # its data are not needed any more
            self.process.kill()
            self.process.wait()
