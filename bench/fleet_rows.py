"""Rows of a fleet that is nowhere, made by the servers themselves."""

FILES = 100_000  # of an appliance
PER_FOLDER = 20

#: A folder's files have one kind, came within an hour of some day of the last year, and are gone together. Cameras count to
#: 9999 and begin anew, so photos of different appliances share names. Films are from one shelf of titles, with the sizes
#: that these have everywhere: some lie on several appliances.
ROWS = """
INSERT INTO quarrow.files_shard (appliance, volume, generation, id, folder_id, path, name, category, size, created_time,
    modified_time, last_updated_time, deleted, version)
SELECT appliance, 'Volume1', 1700000000000, id, folder, concat(place, '/', name), name, category, size, created, created - 100000,
    if(gone, vanished, created) + 20, gone, 1700000000001
FROM
(
    SELECT *,
        multiIf(kind < 60, 'image', kind < 80, 'audio', kind < 82, 'video', 'other') AS category,
        multiIf(kind < 60, concat('IMG_', leftPad4, '.JPG'),
                kind < 80, concat(toString(id % 20), ' Track ', hex(luck), '.flac'),
                kind < 82, concat('Film ', toString(title), '.mkv'),
                concat('scan ', hex(luck), '.pdf')) AS name,
        toInt64(multiIf(kind < 60, 1500000 + luck % 6000000, kind < 80, 5000000 + luck % 40000000,
                        kind < 82, 300000000 + cityHash64(title) % 9000000000, 1000 + luck % 300000)) AS size,
        concat(if(kind < 60, '/Photos/', if(kind < 80, '/Music/', if(kind < 82, '/Films/', '/Documents/'))),
               toString(2000 + folder % 25), '/folder ', toString(folder)) AS place
    FROM
    (
        SELECT *,
            cityHash64(appliance, folder) % 100 AS kind,
            cityHash64(appliance, id) % 4294967296 AS luck,
            cityHash64(appliance, id, 't') % 300000 AS title,
            substring(toString(10000 + (id + cityHash64(appliance)) % 10000), 2) AS leftPad4,
            toInt64(toUnixTimestamp(now()) - cityHash64(appliance, folder, 'c') % 31536000 - id % 3600) AS created,
            toInt64(toUnixTimestamp(now()) - cityHash64(appliance, folder, 'v') % 2592000) AS vanished,
            cityHash64(appliance, folder, 'g') % 100 < 2 AS gone
        FROM
        (
            SELECT concat('appliance-', toString({first} + intDiv(number, {files}))) AS appliance, toInt64(number % {files}) AS id,
                intDiv(id, {per_folder}) AS folder
            FROM system.numbers LIMIT {rows}
        )
    )
)"""
FOLDERS = """
INSERT INTO quarrow.folders_shard (appliance, volume, generation, id, parent_id, path, name, created_time, modified_time,
    last_updated_time, deleted, version)
SELECT appliance, 'Volume1', 1700000000000, folder_id, 1, any(substring(path, 1, length(path) - length(name) - 1)), '', 1, 1, 1, 0, 1
FROM quarrow.files_shard GROUP BY appliance, folder_id"""
VOLUMES = """
INSERT INTO quarrow.volumes_shard (appliance, volume, generation, identity, purged_before, updated)
SELECT DISTINCT appliance, volume, generation, '', 0, 1 FROM quarrow.files_shard"""
APPLIANCES = """
INSERT INTO quarrow.appliances_shard (appliance, last_contact, cursor, software, updated, received)
SELECT DISTINCT appliance, toUnixTimestamp(now()), 'c', 'quarrowctl', 1, now() - cityHash64(appliance) % 100000 FROM quarrow.files_shard"""
SUMS_OF_LAST_WEEK = """
INSERT INTO quarrow.totals_shard (appliance, volume, taken, folder, category, files, bytes)
SELECT appliance, volume, taken - 8 * 86400, folder, category, intDiv(files, 2), intDiv(bytes, 2) FROM quarrow.totals_shard"""


def fill(server, rows, first):
    """Gives a server so many rows, in inserts of an appliance each as pushers make them."""
    for number in range(rows // FILES):
        server.query(ROWS.format(first=first + number, files=FILES, per_folder=PER_FOLDER, rows=FILES))
    for statement in (FOLDERS, VOLUMES, APPLIANCES):
        server.query(statement)
