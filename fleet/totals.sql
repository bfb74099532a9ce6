-- Takes the sums that `totals` keeps, of the appliances of this server. Run it on every server of the cluster, once a day:
--
--     clickhouse-client --user=admin --password=... --multiquery < totals.sql
--
-- or with user and password in the file ~/.clickhouse-client/config.xml, where other users do not see them.
-- A run that was cut off has written nothing as long as it makes less than a million sums (max_insert_block_size).
-- `taken` is what it began with, so all sums of a run have the same. Each volume gets a sum of its root, be it 0: a volume that
-- was emptied or is hidden would else count for ever with what it had before.

INSERT INTO quarrow.totals_shard (appliance, volume, taken, folder, category, files, bytes)
SELECT
    appliance,
    volume,
    toInt64(toUnixTimestamp(now())) AS taken,
    folder,
    category,
    sum(one) AS files,
    sum(size) AS bytes
FROM
(
    SELECT
        appliance,
        volume,
        if(position(substring(path, 2), '/') = 0, '', substring(path, 2, position(substring(path, 2), '/') - 1)) AS folder,
        category,
        toUInt64(1) AS one,
        size
    FROM quarrow.live_files_shard
    UNION ALL
    SELECT
        appliance,
        volume,
        '' AS folder,
        CAST('other', 'Enum8(\'video\' = 1, \'audio\' = 2, \'image\' = 3, \'other\' = 4)') AS category,
        toUInt64(0) AS one,
        toInt64(0) AS size
    FROM quarrow.volumes_shard FINAL
)
GROUP BY appliance, volume, folder, category;
