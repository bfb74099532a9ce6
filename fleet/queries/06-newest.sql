-- What is new? The newest files that were catalogued, or came back, in the last day.
-- created_time is asked before FINAL, as it grows when a file comes back. Where the clock of an appliance was set back it fell:
-- then an older version can come to light as long as its time is within the day.
SELECT
    appliance,
    volume,
    path,
    size,
    toDateTime(created_time) AS created
FROM quarrow.files FINAL
PREWHERE created_time >= toUnixTimestamp(now()) - 86400
WHERE deleted = 0
    AND (appliance, volume, generation) GLOBAL IN (SELECT appliance, volume, generation FROM quarrow.volumes FINAL)
ORDER BY created_time DESC, appliance, volume, path
LIMIT 20
