-- Removes from this server what no reader sees any more: generations before the one that counts, and rows that were purged on
-- their appliance. Run it on every server of the cluster, once a day:
--
--     clickhouse-client --user=admin --password=... --multiquery < retention.sql
--
-- or with user and password in the file ~/.clickhouse-client/config.xml, where other users do not see them.
-- It returns at once: the server removes in the background, part by part. `SELECT * FROM system.mutations WHERE is_done = 0`
-- shows what is still to be done. A generation that is greater than the one that counts is being listed, and stays.
-- A purged row goes with all its versions up to the purged one. Otherwise an older one, from when the file was there, would come to
-- light. A file that came back meanwhile has a later version, which stays.

TRUNCATE TABLE quarrow.former_generations_shard;
TRUNCATE TABLE quarrow.purged_files_shard;
TRUNCATE TABLE quarrow.purged_folders_shard;

INSERT INTO quarrow.former_generations_shard (appliance, volume, generation)
SELECT appliance, volume, generation
FROM (SELECT DISTINCT appliance, volume, generation FROM quarrow.files_shard)
ALL INNER JOIN (SELECT appliance, volume, generation AS valid FROM quarrow.volumes_shard FINAL) USING (appliance, volume)
WHERE generation < valid;

INSERT INTO quarrow.former_generations_shard (appliance, volume, generation)
SELECT appliance, volume, generation
FROM (SELECT DISTINCT appliance, volume, generation FROM quarrow.folders_shard)
ALL INNER JOIN (SELECT appliance, volume, generation AS valid FROM quarrow.volumes_shard FINAL) USING (appliance, volume)
WHERE generation < valid;

INSERT INTO quarrow.purged_files_shard (appliance, volume, generation, id, version)
SELECT appliance, volume, generation, id, version
FROM (SELECT appliance, volume, generation, id, version FROM quarrow.files_shard)
ALL INNER JOIN
(
    SELECT appliance, volume, generation, id, last_version
    FROM
    (
        SELECT appliance, volume, generation, id, last_updated_time, version AS last_version
        FROM quarrow.files_shard FINAL
        WHERE deleted = 1
    )
    ALL INNER JOIN (SELECT appliance, volume, generation, purged_before FROM quarrow.volumes_shard FINAL)
    USING (appliance, volume, generation)
    WHERE last_updated_time < purged_before
)
USING (appliance, volume, generation, id)
WHERE version <= last_version;

INSERT INTO quarrow.purged_folders_shard (appliance, volume, generation, id, version)
SELECT appliance, volume, generation, id, version
FROM (SELECT appliance, volume, generation, id, version FROM quarrow.folders_shard)
ALL INNER JOIN
(
    SELECT appliance, volume, generation, id, last_version
    FROM
    (
        SELECT appliance, volume, generation, id, last_updated_time, version AS last_version
        FROM quarrow.folders_shard FINAL
        WHERE deleted = 1
    )
    ALL INNER JOIN (SELECT appliance, volume, generation, purged_before FROM quarrow.volumes_shard FINAL)
    USING (appliance, volume, generation)
    WHERE last_updated_time < purged_before
)
USING (appliance, volume, generation, id)
WHERE version <= last_version;

ALTER TABLE quarrow.files_shard DELETE WHERE (appliance, volume, generation)
    IN (SELECT appliance, volume, generation FROM quarrow.former_generations_shard);

ALTER TABLE quarrow.folders_shard DELETE WHERE (appliance, volume, generation)
    IN (SELECT appliance, volume, generation FROM quarrow.former_generations_shard);

ALTER TABLE quarrow.files_shard DELETE WHERE (appliance, volume, generation, id, version)
    IN (SELECT appliance, volume, generation, id, version FROM quarrow.purged_files_shard);

ALTER TABLE quarrow.folders_shard DELETE WHERE (appliance, volume, generation, id, version)
    IN (SELECT appliance, volume, generation, id, version FROM quarrow.purged_folders_shard);
