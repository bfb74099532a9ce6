-- What grew most this week? Per appliance, volume and folder below its root, from the totals: the latest ones against the last
-- that are a week old, or the first where none is as old.
SELECT
    appliance,
    volume,
    folder,
    sum(if(taken = latest, toInt64(files), 0)) - sum(if(taken = earlier, toInt64(files), 0)) AS more_files,
    sum(if(taken = latest, bytes, 0)) - sum(if(taken = earlier, bytes, 0)) AS more_bytes
FROM quarrow.totals FINAL
GLOBAL ALL INNER JOIN
(
    SELECT
        appliance,
        volume,
        max(taken) AS latest,
        if(min(taken) > toUnixTimestamp(now()) - 7 * 86400, min(taken),
           max(if(taken > toUnixTimestamp(now()) - 7 * 86400, 0, taken))) AS earlier
    FROM quarrow.totals
    GROUP BY appliance, volume
)
USING (appliance, volume)
GROUP BY appliance, volume, folder
HAVING more_bytes > 0
ORDER BY more_bytes DESC, appliance, volume, folder
LIMIT 20
