"""quarrowctl as its users run it."""
import json
import os
import subprocess
import tempfile

from daemon import MIME_TABLE, sandbox_command, sanitizer_options
from harness import NEVER_PURGE, configuration
from quarrow_driver.waiting import BOUND

BINARY = os.environ.get("QUARROWCTL_BINARY", "")


class Result:
    """What one run has ended with: its status and output, as bytes and as text."""

    def __init__(self, process):
        self.status = process.returncode
        self.bytes = process.stdout
        self.errors = process.stderr.decode(errors="backslashreplace")

    @property
    def text(self):
        return self.bytes.decode(errors="surrogateescape")

    @property
    def lines(self):
        return self.text.splitlines()

    def json(self):
        return json.loads(self.bytes)


class Ctl:
    """The command with a configuration of these volumes, in a sandbox of its own. `user`: whose, if not the caller's."""

    def __init__(self, arena, volumes, purge_threshold=NEVER_PURGE, user=None, mime_table=MIME_TABLE, config=None):
        self.arena = arena
        self.user = user
        self.mime_table = mime_table
        self.folder = tempfile.mkdtemp(prefix="ctl-", dir=arena.folder)
        text = configuration(volumes, purge_threshold) if config is None else config
        self.config = arena.write_config(text, f"{os.path.basename(self.folder)}.xml")
        if user is not None:
            for path in (arena.folder, self.folder):
                os.chmod(path, 0o755)
            os.chown(self.folder, user, user)  # its home

    def command(self, *arguments, environment=None, folder="/"):
        """For Popen: what runs quarrowctl in the sandbox, with that current folder."""
        settings = {"QUARROW_CONFIG_FILE": self.config, "PATH": os.environ["PATH"], "LANG": "C.UTF-8", "HOME": self.folder,
                    **sanitizer_options(), **(environment or {})}
        return sandbox_command(self.arena, tempfile.mkdtemp(dir=self.arena.folder),
                               ["/usr/bin/env", "-C", folder, BINARY, *(os.fsdecode(argument) for argument in arguments)],
                               log=None, mime_table=self.mime_table, user=self.user, environment=settings)

    def run(self, *arguments, environment=None, folder="/", wrapper=()):
        """Never raises for a status: the test says which one it wants. `wrapper`: a command that runs this one."""
        command = [*wrapper, *self.command(*arguments, environment=environment, folder=folder)]
        return Result(subprocess.run(command, capture_output=True, stdin=subprocess.DEVNULL, timeout=BOUND, check=False))

    def good(self, *arguments, environment=None):
        """run(), where nothing is to be wrong."""
        result = self.run(*arguments, environment=environment)
        assert (result.status, result.errors) == (0, "")
        return result
