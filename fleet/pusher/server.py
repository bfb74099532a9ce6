"""The database at the other end: one request at a time, repeated until it is confirmed."""
import contextlib
import gzip
import http.client
import random
import re
import signal
import ssl
import time
import urllib.parse

from pusher.problem import Problem, reason_of, say
from pusher.rows import COLUMNS

LONGEST_ANSWER = 4096
PRINTED_LIMIT = 300
WHOLE_REQUEST = 10  # times the timeout of a step
BUSY = (408, 429)
#: Exceptions of the engine that the same request meets again: user or rights, tables, columns, values.
LASTING = {6, 16, 26, 27, 36, 53, 60, 62, 81, 115, 164, 192, 193, 194, 291, 497, 516}
NO_ROWS = 108  # later engines do not take an empty insertion, but look at everything else first
OF_USER = {164, 192, 193, 194, 291, 497, 516}


class Refusal(Problem):
    """The server cannot be had to take this for now."""

    def __init__(self, place, reason, remedy, lasting=False, code=0):
        super().__init__(place, reason, remedy)
        self.lasting = lasting  # until somebody sees to it
        self.code = code  # of the engine's exception


class Server:
    """`is_patient`: whether to go on trying for ever."""

    def __init__(self, settings, is_patient):
        self.settings = settings
        self.is_patient = is_patient
        self.urls = list(settings.url)
        signal.signal(signal.SIGALRM, too_late)

    def insert(self, table, body):
        """Returns when a server has confirmed that it holds the rows, compressed in `body`."""
        query = self.query(table)
        deadline = time.monotonic() + self.settings.patience
        pause = self.settings.pause
        said = None  # before the second try, which there is in any case
        while True:
            refusals = self.try_all(query, body)
            if not refusals:
                return
            problem = refusals[0]
            is_late = said is not None and time.monotonic() >= deadline
            if not self.is_patient and (is_late or all(refusal.lasting for refusal in refusals)):
                raise problem
            if str(problem) != said:
                said = str(problem)
                say(f"{said} Trying again; what is not confirmed stays due.")
            time.sleep(pause * random.uniform(0.5, 1))
            pause = min(2 * pause, self.settings.longest_pause)

    def query(self, table):
        return urllib.parse.urlencode({
            "database": self.settings.database, "insert_distributed_sync": 1,
            "query": f"INSERT INTO {table} ({', '.join(COLUMNS[table])}) FORMAT TabSeparated"})

    def check(self, url):
        """Throws unless this server would take rows: it is sent none, for each table."""
        for table in COLUMNS:
            try:
                self.request(url, self.query(table), gzip.compress(b""))
            except Refusal as refusal:
                if refusal.code != NO_ROWS:
                    raise

    def try_all(self, query, body):
        """Tries one server after the other. Returns why each one failed, or nothing. The one that took it is first next time."""
        refusals = []
        for url in list(self.urls):
            try:
                self.request(url, query, body)
                self.urls.remove(url)
                self.urls.insert(0, url)
                return []
            except Refusal as refusal:
                refusals.append(refusal)
        return refusals

    def request(self, url, query, body):
        """One try. Throws Refusal unless it is confirmed."""
        try:
            with bounded(WHOLE_REQUEST * self.settings.timeout), contextlib.closing(self.connection(url)) as connection:
                answer, text = self.exchange(connection, query, body)
        except ssl.SSLCertVerificationError as failure:
            raise Refusal(url, f"The server's certificate does not fit: {failure.verify_message}",
                          "Name its authority with 'ca_file', or give the server a certificate for this name",
                          lasting=True) from None
        except ssl.SSLError as failure:
            raise Refusal(url, f"No safe connection: {reason_of(failure)}", "Does the server speak TLS on this port?") from None
        except TimeoutError:
            raise Refusal(url, "No answer in time", "See whether the server is at work, or make 'timeout' longer") from None
        except (OSError, http.client.HTTPException, UnicodeError) as failure:
            raise Refusal(url, f"The connection failed: {reason_of(failure)}", "Does the server run, and listen there?") from None
        judge(url, answer, text)

    def connection(self, url):
        parts = urllib.parse.urlsplit(url)
        if parts.scheme == "http":
            return http.client.HTTPConnection(parts.hostname, parts.port, timeout=self.settings.timeout)
        try:
            context = ssl.create_default_context(cafile=self.settings.ca_file or None)
        except OSError as failure:
            raise Refusal(self.settings.ca_file, f"The authority's certificate cannot be used: {reason_of(failure)}",
                          "Name a file of PEM certificates with 'ca_file'", lasting=True) from None
        return http.client.HTTPSConnection(parts.hostname, parts.port, timeout=self.settings.timeout, context=context)

    def exchange(self, connection, query, body):
        headers = {"X-ClickHouse-User": self.settings.user.encode("utf-8", "surrogateescape"),
                   "X-ClickHouse-Key": self.settings.password(), "Content-Encoding": "gzip", "Connection": "close"}
        try:
            connection.request("POST", "/?" + query, body, headers)
        except (BrokenPipeError, ConnectionResetError):
            if connection.sock is None:
                raise
            # It may have said why before it closed.
        answer = connection.getresponse()
        has_end = answer.chunked or answer.length is not None
        text = answer.read(LONGEST_ANSWER)
        if not text and (answer.length or not has_end):  # what is missing may be an exception
            raise http.client.HTTPException("the answer was cut short, or has no marked end")
        return answer, text


def judge(url, answer, text):
    """Throws unless the answer is that of the database, and says that all is well."""
    is_engine = any(name.lower().startswith("x-clickhouse-") for name in answer.headers)
    if answer.status == 200 and is_engine and not text:
        return
    if 300 <= answer.status < 400:
        raise Refusal(url, f"The answer is a redirection to '{answer.headers.get('Location', '')[:PRINTED_LIMIT]}'",
                      "Write the address of the database itself; the password is not sent elsewhere", lasting=True)
    said = text.decode(errors="replace").strip()[:PRINTED_LIMIT] or answer.reason
    match = re.search(r"Code: (\d+)", said)
    code = int(match[1]) if match else 0
    if answer.status in (401, 403) or code in OF_USER:
        raise Refusal(url, f"The server does not let this user in ({answer.status}): {said}",
                      "Correct 'user' and the password's file, or give the user the right to insert", lasting=True)
    if code in LASTING:
        raise Refusal(url, f"The database cannot take these rows: {said}", "Run fleet/schema.sql of this release on every server",
                      lasting=True)
    if answer.status == 200 and not code:
        raise Refusal(url, f"The answer is not that of the database: {said}" if text else
                      "The answer is not that of the database: a header of its own is missing",
                      "Does something else answer in its place, a portal or a proxy?")
    lasting = 400 <= answer.status < 500 and answer.status not in BUSY
    raise Refusal(url, f"The server failed ({answer.status}): {said}", "Its log says more", lasting, code)


@contextlib.contextmanager
def bounded(seconds):
    """Ends what is in it by a TimeoutError: the timeout of a socket starts anew with each byte."""
    signal.setitimer(signal.ITIMER_REAL, seconds)
    try:
        yield
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)


def too_late(*_):
    raise TimeoutError
