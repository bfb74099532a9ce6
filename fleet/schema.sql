-- What a fleet of appliances keeps in ClickHouse. Run it on every server of the cluster `quarrow`, as an administrator:
--
--     clickhouse-client --user=admin --password=... --multiquery < schema.sql
--
-- or with user and password in the file ~/.clickhouse-client/config.xml, where other users do not see them.
-- Each table NAME_shard holds the rows of a server's own appliances. The Distributed table NAME reaches all of them: fleet/push
-- writes to it, and readers ask it, or rather the views below it. All rows of an appliance are on one server, so a view joins
-- rows on the server where they lie, and only answers travel.
--
-- Texts are the bytes that the file system gave: String holds any byte.

CREATE DATABASE IF NOT EXISTS quarrow;

-- A row of a catalogue, live or deleted, as it was last told.
--   generation         grows with each full listing of the volume: a catalogue that was made anew gives its ids to other files.
--                      `volumes` says which one is valid
--   last_updated_time  the catalogue's, in seconds since 1970. The catalogue has 32 bits, which wrap in 2038: the pusher adds
--                      2^32 to a negative one. For a deleted row this is when it was found gone
--   created_time       likewise
--   modified_time      as the catalogue has it: a file may well be older than 1970, so a negative one tells nothing
--   version            a number of the appliance's, greater with each send than with any send before, whatever its clock does.
--                      Of the rows with one key the greatest version counts. last_updated_time will not do: it has whole seconds,
--                      it falls when the clock is set back, and a send whose answer was lost may arrive after its repetition
CREATE TABLE IF NOT EXISTS quarrow.files_shard
(
    appliance String,
    volume String,
    generation UInt64,
    id Int64,
    folder_id Int64,
    path String,
    name String,
    category Enum8('video' = 1, 'audio' = 2, 'image' = 3, 'other' = 4),
    size Int64,
    created_time Int64,
    modified_time Int64,
    last_updated_time Int64,
    deleted UInt8,
    version UInt64
)
ENGINE = ReplacingMergeTree(version)
ORDER BY (appliance, volume, generation, id);

CREATE TABLE IF NOT EXISTS quarrow.folders_shard
(
    appliance String,
    volume String,
    generation UInt64,
    id Int64,
    parent_id Int64,
    path String,
    name String,
    created_time Int64,
    modified_time Int64,
    last_updated_time Int64,
    deleted UInt8,
    version UInt64
)
ENGINE = ReplacingMergeTree(version)
ORDER BY (appliance, volume, generation, id);

-- The volumes of an appliance.
--   generation      the one that counts. The row that says so is sent when all rows of that generation are confirmed: until then
--                   readers see the generation before
--   identity        what the pusher recognises the catalogue by
--   purged_before   deleted rows with an older last_updated_time are purged on the appliance, and hidden here
--   updated         the version, in milliseconds since 1970, or one more than last time where the clock was set back
CREATE TABLE IF NOT EXISTS quarrow.volumes_shard
(
    appliance String,
    volume String,
    generation UInt64,
    identity String,
    purged_before Int64,
    updated UInt64
)
ENGINE = ReplacingMergeTree(updated)
ORDER BY (appliance, volume);

-- The appliances.
--   last_contact  when it last pushed, by its own clock, in seconds since 1970
--   cursor        up to where the fleet has its changes: one word, of `quarrowctl changes`
--   software      what runs there, in words
--   updated       as for volumes
--   received      when the row came, by the server's clock: pushers do not name it
CREATE TABLE IF NOT EXISTS quarrow.appliances_shard
(
    appliance String,
    last_contact Int64,
    cursor String,
    software String,
    updated UInt64,
    received DateTime DEFAULT now()
)
ENGINE = ReplacingMergeTree(updated)
ORDER BY appliance;

CREATE TABLE IF NOT EXISTS quarrow.files
(
    appliance String,
    volume String,
    generation UInt64,
    id Int64,
    folder_id Int64,
    path String,
    name String,
    category Enum8('video' = 1, 'audio' = 2, 'image' = 3, 'other' = 4),
    size Int64,
    created_time Int64,
    modified_time Int64,
    last_updated_time Int64,
    deleted UInt8,
    version UInt64
)
ENGINE = Distributed(quarrow, quarrow, files_shard, cityHash64(appliance));

CREATE TABLE IF NOT EXISTS quarrow.folders
(
    appliance String,
    volume String,
    generation UInt64,
    id Int64,
    parent_id Int64,
    path String,
    name String,
    created_time Int64,
    modified_time Int64,
    last_updated_time Int64,
    deleted UInt8,
    version UInt64
)
ENGINE = Distributed(quarrow, quarrow, folders_shard, cityHash64(appliance));

CREATE TABLE IF NOT EXISTS quarrow.volumes
(
    appliance String,
    volume String,
    generation UInt64,
    identity String,
    purged_before Int64,
    updated UInt64
)
ENGINE = Distributed(quarrow, quarrow, volumes_shard, cityHash64(appliance));

CREATE TABLE IF NOT EXISTS quarrow.appliances
(
    appliance String,
    last_contact Int64,
    cursor String,
    software String,
    updated UInt64,
    received DateTime DEFAULT now()
)
ENGINE = Distributed(quarrow, quarrow, appliances_shard, cityHash64(appliance));

-- What is there: the rows of the generation that counts, each as it was last told. Quick for one appliance, or a few; over all
-- of them FINAL costs seconds for every ten million rows: queries/ shows how to ask all of them.

CREATE VIEW IF NOT EXISTS quarrow.live_files_shard AS
SELECT appliance, volume, generation, id, folder_id, path, name, category, size, created_time, modified_time,
       last_updated_time
FROM quarrow.files_shard FINAL
WHERE deleted = 0
    AND (appliance, volume, generation) IN (SELECT appliance, volume, generation FROM quarrow.volumes_shard FINAL);

CREATE TABLE IF NOT EXISTS quarrow.live_files
(
    appliance String,
    volume String,
    generation UInt64,
    id Int64,
    folder_id Int64,
    path String,
    name String,
    category Enum8('video' = 1, 'audio' = 2, 'image' = 3, 'other' = 4),
    size Int64,
    created_time Int64,
    modified_time Int64,
    last_updated_time Int64
)
ENGINE = Distributed(quarrow, quarrow, live_files_shard);

CREATE VIEW IF NOT EXISTS quarrow.live_folders_shard AS
SELECT appliance, volume, generation, id, parent_id, path, name, created_time, modified_time, last_updated_time
FROM quarrow.folders_shard FINAL
WHERE deleted = 0
    AND (appliance, volume, generation) IN (SELECT appliance, volume, generation FROM quarrow.volumes_shard FINAL);

CREATE TABLE IF NOT EXISTS quarrow.live_folders
(
    appliance String,
    volume String,
    generation UInt64,
    id Int64,
    parent_id Int64,
    path String,
    name String,
    created_time Int64,
    modified_time Int64,
    last_updated_time Int64
)
ENGINE = Distributed(quarrow, quarrow, live_folders_shard);

-- What was found gone, at last_updated_time, and is not purged yet.

CREATE VIEW IF NOT EXISTS quarrow.gone_files_shard AS
SELECT appliance, volume, generation, id, folder_id, path, name, category, size, created_time, modified_time,
       last_updated_time
FROM
(
    SELECT appliance, volume, generation, id, folder_id, path, name, category, size, created_time, modified_time,
           last_updated_time
    FROM quarrow.files_shard FINAL
    WHERE deleted = 1
)
ALL INNER JOIN
(
    SELECT appliance, volume, generation, purged_before FROM quarrow.volumes_shard FINAL
)
USING (appliance, volume, generation)
WHERE last_updated_time >= purged_before;

CREATE TABLE IF NOT EXISTS quarrow.gone_files
(
    appliance String,
    volume String,
    generation UInt64,
    id Int64,
    folder_id Int64,
    path String,
    name String,
    category Enum8('video' = 1, 'audio' = 2, 'image' = 3, 'other' = 4),
    size Int64,
    created_time Int64,
    modified_time Int64,
    last_updated_time Int64
)
ENGINE = Distributed(quarrow, quarrow, gone_files_shard);

CREATE VIEW IF NOT EXISTS quarrow.gone_folders_shard AS
SELECT appliance, volume, generation, id, parent_id, path, name, created_time, modified_time, last_updated_time
FROM
(
    SELECT appliance, volume, generation, id, parent_id, path, name, created_time, modified_time, last_updated_time
    FROM quarrow.folders_shard FINAL
    WHERE deleted = 1
)
ALL INNER JOIN
(
    SELECT appliance, volume, generation, purged_before FROM quarrow.volumes_shard FINAL
)
USING (appliance, volume, generation)
WHERE last_updated_time >= purged_before;

CREATE TABLE IF NOT EXISTS quarrow.gone_folders
(
    appliance String,
    volume String,
    generation UInt64,
    id Int64,
    parent_id Int64,
    path String,
    name String,
    created_time Int64,
    modified_time Int64,
    last_updated_time Int64
)
ENGINE = Distributed(quarrow, quarrow, gone_folders_shard);

-- Sums, taken by totals.sql: of each volume, folder right below its root (the empty text: the root itself) and category. A sum
-- over all files of a fleet cannot be had while one waits, and growth wants to know what was before.
--   taken  when, in seconds since 1970. Two runs of totals.sql within a second are one: readers ask with FINAL
CREATE TABLE IF NOT EXISTS quarrow.totals_shard
(
    appliance String,
    volume String,
    taken Int64,
    folder String,
    category Enum8('video' = 1, 'audio' = 2, 'image' = 3, 'other' = 4),
    files UInt64,
    bytes Int64
)
ENGINE = ReplacingMergeTree
PARTITION BY toYYYYMM(toDateTime(taken))
ORDER BY (appliance, volume, taken, folder, category);

CREATE TABLE IF NOT EXISTS quarrow.totals
(
    appliance String,
    volume String,
    taken Int64,
    folder String,
    category Enum8('video' = 1, 'audio' = 2, 'image' = 3, 'other' = 4),
    files UInt64,
    bytes Int64
)
ENGINE = Distributed(quarrow, quarrow, totals_shard, cityHash64(appliance));

-- What retention.sql is about to remove: a statement that deletes can read a table, but cannot join.
CREATE TABLE IF NOT EXISTS quarrow.former_generations_shard
(
    appliance String,
    volume String,
    generation UInt64
)
ENGINE = MergeTree
ORDER BY (appliance, volume, generation);

CREATE TABLE IF NOT EXISTS quarrow.purged_files_shard
(
    appliance String,
    volume String,
    generation UInt64,
    id Int64,
    version UInt64
)
ENGINE = MergeTree
ORDER BY (appliance, volume, generation, id, version);

CREATE TABLE IF NOT EXISTS quarrow.purged_folders_shard
(
    appliance String,
    volume String,
    generation UInt64,
    id Int64,
    version UInt64
)
ENGINE = MergeTree
ORDER BY (appliance, volume, generation, id, version);
