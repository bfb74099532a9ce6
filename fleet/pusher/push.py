"""Takes the lines of `quarrowctl changes` and sends them as rows; remembers how far that is confirmed."""
import json
import time

from pusher import catalogues
from pusher.batch import Batch
from pusher.changes import software
from pusher.problem import Problem
from pusher.rows import NEVER_BEFORE_1970, SHAPES, is_awkward, original, restore, row_text, unwrapped

MILLISECONDS_OF_A_DAY = 86_400_000

decode = json.JSONDecoder().raw_decode


class Push:
    """What lies between two cursors has one number: the version of its rows, and the generation of the volumes that are listed
    in full there. A row comes once between two cursors."""

    def __init__(self, settings, state, server):
        self.settings = settings
        self.state = state
        self.server = server
        self.batches = {"file": Batch("files"), "folder": Batch("folders")}
        self.software = software(settings)
        self.sent = {"files": 0, "folders": 0}
        self.roots = {}  # of the configured volumes
        self.configuration = self.configuration_version = None  # the file that names them, and as what it was last read
        self.unknown = set()  # volumes that need a full listing
        self.is_complete = False  # whether the last line so far was a cursor
        self.forget()

    def forget(self):
        """Drops what came since the last cursor."""
        self.number = None
        self.listed = set()  # volumes whose full listing is under way, or through
        self.volume = self.prefix = None  # of the last row
        for batch in self.batches.values():
            batch.begin()

    def take(self, lines):
        """Takes complete lines. Sends when there is enough, and when a cursor comes."""
        for text in lines:
            try:
                cursor = self.take_line(text)
            except (ValueError, KeyError, TypeError, AttributeError):
                raise Problem("quarrowctl changes", f"This line is not as it should be: {text[:200]}",
                              "Is this the program of this release? Set 'quarrowctl'") from None
            if cursor:
                self.take_cursor(cursor)
        for batch in self.batches.values():
            batch.pack()
            if batch.is_full():
                self.send(batch)

    def take_line(self, text):
        """Returns the cursor, if the line is one. Lines of other kinds are those of a later release."""
        line, end = decode(text)
        if end != len(text):
            raise ValueError
        kind = line.get("kind")
        cursor = line.get("cursor")
        self.is_complete = cursor is not None
        if kind in SHAPES:
            self.take_row(kind, line, is_awkward(text))
        elif self.is_complete and not isinstance(cursor, str):
            raise ValueError
        elif line.get("event") == "full-listing":
            self.begin_volume(original(line, "volume"))
        elif line.get("event") == "restart-needed":
            self.unknown.add(original(line, "volume"))
        return cursor

    def take_row(self, kind, line, awkward):
        if awkward:
            volume = original(line, "volume")
            restore(line)
        else:
            volume = line["volume"]
        if volume != self.volume or self.prefix is None:
            self.turn_to(volume)
        for key in NEVER_BEFORE_1970:
            if line[key] < 0:
                line[key] = unwrapped(line[key])
        form, values = SHAPES[kind]
        self.batches[kind].pending.append(self.prefix + form % values(line))

    def turn_to(self, volume):
        """The rows that follow are of this volume."""
        number = self.batch_number()
        if volume in self.listed:
            generation = number
        elif volume in self.state.volumes:
            generation = self.state.volumes[volume]
        elif volume in self.state.opened:
            generation = 0  # which never counts: a full listing is due
        else:
            raise Problem(self.state.path, f"Rows of volume '{volume}' came without a full listing",
                          "Remove the state: everything is sent anew then")
        self.volume = volume
        self.prefix = row_text((self.state.appliance, volume, generation, number))[:-1] + "\t"

    def batch_number(self):
        if self.number is None:
            self.number = self.state.next_number()
        return self.number

    def begin_volume(self, volume):
        """All rows of the volume follow, under a generation of their own. When that is cut short, the next one has another: by
        then rows may be gone that were sent, and ids may be those of other files."""
        self.batch_number()
        self.listed.add(volume)
        self.unknown.discard(volume)
        if volume not in self.state.opened:
            self.state.opened.append(volume)
            self.state.store()
        self.prefix = None

    def send(self, batch):
        body = batch.body()
        if batch.rows:
            self.server.insert(batch.table, body)
            self.sent[batch.table] += batch.rows
        batch.begin()

    def take_cursor(self, cursor):
        """Everything before is sent first. Only then do new generations count, and the cursor is stored after that."""
        for batch in self.batches.values():
            self.send(batch)
        generations = {**self.state.volumes, **{volume: self.batch_number() for volume in self.listed}}
        told = self.tell_volumes(generations)
        self.tell_appliance(cursor)
        state = self.state
        state.cursor, state.volumes, state.told = cursor, generations, told
        state.opened = [volume for volume in state.opened if volume not in self.listed]
        state.store()
        self.forget()

    def tell_volumes(self, generations):
        """Sends the rows of volumes of which there is something new to say. Once a day each one is sent all the same: where the
        state was lost while the clock was behind, former rows have greater numbers. Returns what all of them say now."""
        number = self.batch_number()
        told, rows = dict(self.state.told), []
        for volume, generation in generations.items():
            if volume in self.state.opened and volume not in self.listed:
                continue  # another generation takes its place soon
            root = self.roots.get(volume)
            before, sent = told.get(volume, ([0, "", 0], 0))
            _, identity, purged = before
            if root and volume in self.listed:
                identity, purged = catalogues.identity(root), 0
            if root:
                purged = catalogues.purged_before(root) or purged
            facts = [generation, identity, purged]
            if facts != before or number - sent >= MILLISECONDS_OF_A_DAY:
                told[volume] = [facts, number]
                rows.append(row_text((self.state.appliance, volume, *facts, number)))
        self.insert("volumes", rows)
        return told

    def tell_appliance(self, cursor):
        facts = (self.state.appliance, int(time.time()), cursor, self.software, self.batch_number())
        self.insert("appliances", [row_text(facts)])

    def leave(self, volumes):
        """Hides volumes that are not to be sent any more: with a generation that has no rows. When they come back, they are
        listed in full."""
        if volumes:
            number = self.batch_number()
            self.insert("volumes", [row_text((self.state.appliance, volume, number, "", 0, number)) for volume in volumes])
            for volume in volumes:
                del self.state.volumes[volume]
                self.state.told.pop(volume, None)
            self.state.opened = sorted({*self.state.opened, *volumes})
            self.state.store()
            self.forget()

    def has_jumped(self):
        """Whether the clock has jumped ahead for the first time since the state began."""
        state = self.state
        return not state.settled and bool(state.volumes) and time.time() * 1000 - state.number > MILLISECONDS_OF_A_DAY

    def settle(self):
        """Where the state was lost while the clock was behind, former generations are greater, and the servers may have removed
        the rows of ours as those of a former one. So each volume is listed in full again when the clock is put right. That a
        machine was off for a day looks the same, and costs one listing."""
        if self.has_jumped():
            self.state.opened = sorted({*self.state.opened, *self.state.volumes})
            self.state.settled = True
            self.state.store()

    def contact(self):
        """While nothing changes: the appliance is there, and these are its purges. Not in the middle of a batch."""
        if self.is_complete:
            self.state.told = self.tell_volumes(self.state.volumes)
            self.tell_appliance(self.state.cursor)
            self.state.store()
            self.forget()

    def insert(self, table, rows):
        if rows:
            batch = Batch(table)
            batch.pending = rows
            self.server.insert(table, batch.body())

    def listed_all(self, volumes):
        """Whether full listings of these are confirmed."""
        return not set(volumes) & (self.unknown | set(self.state.opened))

    def summary(self, since):
        return (f"{self.sent['files']} rows of files and {self.sent['folders']} of folders confirmed"
                f" in {time.monotonic() - since:.1f} s")
