"""fleet/push as an appliance runs it."""
import os
import subprocess

from demo.server import with_parent

PUSH = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "push")


class Pusher:
    """Sends the catalogues of the host configuration `config` under the name `appliance`. Its own files lie in `folder`."""

    def __init__(self, folder, appliance, cluster, quarrowctl, config, **settings):
        os.makedirs(folder, exist_ok=True)
        self.folder = folder
        self.appliance = appliance
        self.configuration = os.path.join(folder, "push.conf")
        self.state = os.path.join(folder, "state")
        self.environment = {**os.environ, "QUARROW_CONFIG_FILE": config}
        user, password = cluster.login("pusher")
        write_private(os.path.join(folder, "password"), password + "\n")
        lines = {"user": user, "password_file": f"{folder}/password", "state": self.state, "appliance": appliance,
                 "quarrowctl": quarrowctl, "pause": 0.1, "longest_pause": 2, **settings}
        write_private(self.configuration, "".join([*(f"url = http://127.0.0.1:{server.http}\n" for server in cluster.servers),
                                                   *(f"{key} = {value}\n" for key, value in lines.items())]))

    def start(self, *options, **settings):
        return subprocess.Popen(with_parent(PUSH, "--config", self.configuration, *options), env=self.environment,
                                stdin=subprocess.DEVNULL, start_new_session=True, **settings)

    def run(self, *options, **settings):
        """Returns the exit status, and what it said."""
        process = self.start(*options, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **settings)
        try:
            said, _ = process.communicate()
        except BaseException:
            process.kill()
            process.wait()
            raise
        return process.returncode, said.decode(errors="backslashreplace")


def write_private(path, text):
    with open(os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600), "w", encoding="utf-8",
              errors="surrogateescape") as file:
        file.write(text)
