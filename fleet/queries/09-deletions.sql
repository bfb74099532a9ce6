-- In which folders was most deleted this week? Where somebody tidied up, or something went wrong.
-- A newer version of a row has no older last_updated_time, so what is asked before FINAL loses no version that counts.
SELECT
    appliance,
    volume,
    substring(path, 1, length(path) - length(name) - 1) AS folder,
    count() AS files_gone,
    sum(size) AS bytes_gone,
    toDateTime(max(last_updated_time)) AS last_found_gone
FROM quarrow.files FINAL
PREWHERE last_updated_time >= toUnixTimestamp(now()) - 7 * 86400
WHERE deleted = 1
    AND (appliance, volume, generation) GLOBAL IN (SELECT appliance, volume, generation FROM quarrow.volumes FINAL)
GROUP BY appliance, volume, folder
ORDER BY files_gone DESC, appliance, volume, folder
LIMIT 20
