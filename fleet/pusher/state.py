"""What the pusher has to remember: how far the fleet has the changes of this appliance.

It is one file, replaced in one step. Its first line is a checksum of the second, which is JSON. The file `lock` has the greatest
number as well, and outlives a state that is removed.
"""
import contextlib
import fcntl
import hashlib
import json
import os
import pwd
import shutil
import tempfile
import time

from pusher.problem import Problem, Unusable, reason_of

FORMAT = 1
ASKED = "asked-"  # what folders with a copy of the cursor begin with
LONGEST_NUMBER = 20
SENT_ANEW = "everything is sent anew then, and replaces what the fleet has of this appliance"


class State:
    """Fields:
    appliance  the name under which the rows were sent
    cursor     of `quarrowctl changes`: the fleet has everything up to there
    number     the greatest number that was ever given, see next_number()
    volumes    name -> the generation that is valid
    opened     names of the volumes whose full listing was begun and is not confirmed
    told       name -> what the row in the table `volumes` says, and its number
    settled    whether generations are certain to be greater than those of a state that was lost, see Push.settle()
    """

    def __init__(self, folder, appliance):
        self.folder = folder
        self.path = os.path.join(folder, "state")
        self.appliance = appliance
        self.cursor = ""
        self.number = 0
        self.volumes = {}
        self.opened = []
        self.told = {}
        self.settled = False
        self.lock = None

    def take_lock(self):
        """Held until the process ends, however it ends."""
        path = os.path.join(self.folder, "lock")
        try:
            os.makedirs(self.folder, mode=0o700, exist_ok=True)
            self.check_owner()
            self.lock = os.open(path, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC | os.O_NOFOLLOW, 0o600)
            fcntl.flock(self.lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            raise Unusable(path, "Another pusher is at work with this state", "Wait for its end, or stop it") from None
        except OSError as failure:
            raise Unusable(path, f"The state cannot be kept here: {reason_of(failure)}",
                           "Name a folder with 'state' that this user may write to") from None

    def check_owner(self):
        """Root may write to everybody's folder, but what it leaves there is closed to the owner."""
        owner = os.stat(self.folder).st_uid
        if owner != os.geteuid():
            try:
                name = pwd.getpwuid(owner).pw_name
            except KeyError:
                name = f"#{owner}"
            raise Unusable(self.folder, f"The state is that of user {name}", f"Run this as its owner: runuser -u {name} -- push")

    def load(self):
        self.number = self.given_number()
        try:
            with open(self.path, "rb") as file:
                checksum, _, content = file.read().partition(b"\n")
        except FileNotFoundError:
            return
        except OSError as failure:
            raise Unusable(self.path, f"The state cannot be read: {reason_of(failure)}", "Make it readable for this user") from None
        try:
            if checksum.decode() != digest(content):
                raise ValueError
            fields = json.loads(content)
            if fields.pop("format") != FORMAT or fields.keys() != self.fields().keys() - {"format"}:
                raise ValueError
        except (ValueError, KeyError, AttributeError):
            raise Unusable(self.path, "The state is damaged, or that of another release",
                           f"Remove it: {SENT_ANEW}") from None
        if fields["appliance"] != self.appliance:
            raise Unusable(self.path, f"The state is that of appliance '{fields['appliance']}', not '{self.appliance}'",
                           "Set 'appliance' to the former name, or remove the state: everything is sent under the new name then")
        if fields["number"] < self.number:
            raise Unusable(self.path, "The state is an older copy: what was sent since is unknown to it", f"Remove it: {SENT_ANEW}")
        vars(self).update(fields)

    def fields(self):
        return {"format": FORMAT, "appliance": self.appliance, "cursor": self.cursor, "number": self.number,
                "volumes": self.volumes, "opened": self.opened, "told": self.told,
                "settled": self.settled}

    def store(self):
        content = json.dumps(self.fields()).encode() + b"\n"
        self.replace(self.path, digest(content).encode() + b"\n" + content)

    @contextlib.contextmanager
    def cursor_file(self):
        """A copy of the cursor for quarrowctl, which overwrites it when it has listed the changes: too early to count. It is no
        argument, because arguments have a bound and everybody can read them. Its place is another one each time: a quarrowctl
        whose pusher was killed may yet write there."""
        try:
            for name in os.listdir(self.folder):
                if name.startswith(ASKED):
                    shutil.rmtree(os.path.join(self.folder, name), ignore_errors=True)
            folder = tempfile.mkdtemp(prefix=ASKED, dir=self.folder)
        except OSError as failure:
            raise not_stored(self.folder, failure) from None
        try:
            path = os.path.join(folder, "cursor")
            self.replace(path, self.cursor.encode() + b"\n")
            yield path
        finally:
            shutil.rmtree(folder, ignore_errors=True)

    def replace(self, path, content):
        """Replaces a file in one step."""
        try:
            descriptor = os.open(path + ".new", os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_CLOEXEC | os.O_NOFOLLOW, 0o600)
            with open(descriptor, "wb") as file:
                file.write(content)
                file.flush()
                os.fsync(descriptor)
            os.rename(path + ".new", path)
            self.sync_folder()
        except OSError as failure:
            raise not_stored(path, failure) from None

    def sync_folder(self):
        descriptor = os.open(self.folder, os.O_RDONLY | os.O_DIRECTORY | os.O_CLOEXEC)
        try:
            os.fsync(descriptor)
        finally:
            os.close(descriptor)

    def next_number(self):
        """A number that is greater than each one before, and stored before it is used. It looks like milliseconds since 1970, so
        it goes on growing when the state was lost."""
        self.number = max(self.number + 1, time.time_ns() // 1_000_000)
        self.store()
        self.keep_number()
        return self.number

    def given_number(self):
        """The greatest number as the lock has it, or 0."""
        content = os.pread(self.lock, LONGEST_NUMBER, 0)
        return int(content) if content.isdigit() else 0

    def keep_number(self):
        """Comes after the state: where this is cut short, the state has the greater number, which is allowed."""
        try:
            os.pwrite(self.lock, b"%d" % self.number, 0)
        except OSError as failure:
            raise not_stored(os.path.join(self.folder, "lock"), failure) from None


def not_stored(path, failure):
    return Problem(path, f"The state cannot be stored: {reason_of(failure)}",
                   "Make room, or see to its rights; what was sent since the last time is sent again")


def digest(content):
    return hashlib.sha256(content).hexdigest()
