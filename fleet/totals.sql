-- Takes the sums that `totals` keeps, of the appliances of this server. Run it on every server of the cluster, once a day:
--
--     clickhouse-client --user=admin --multiquery < totals.sql
--
-- A run that was cut off has written nothing as long as it makes less than a million sums (max_insert_block_size).
-- `taken` is what it began with, so all sums of a run have the same.

INSERT INTO quarrow.totals_shard (appliance, volume, taken, folder, category, files, bytes)
SELECT
    appliance,
    volume,
    toInt64(toUnixTimestamp(now())) AS taken,
    if(position(substring(path, 2), '/') = 0, '', substring(path, 2, position(substring(path, 2), '/') - 1)) AS folder,
    category,
    count() AS files,
    sum(size) AS bytes
FROM quarrow.live_files_shard
GROUP BY appliance, volume, folder, category;
