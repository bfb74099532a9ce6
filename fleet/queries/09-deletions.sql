-- In which folders was most deleted this week? Where somebody tidied up, or something went wrong.
-- last_updated_time is asked before FINAL, as it grows from version to version. Where the clock of an appliance was set back it
-- fell: then a file that came back, or is purged, can be counted as long as its former time is within the week.
SELECT
    appliance,
    volume,
    substring(path, 1, length(path) - length(name) - 1) AS folder,
    count() AS files_gone,
    sum(size) AS bytes_gone,
    toDateTime(max(last_updated_time)) AS last_found_gone
FROM quarrow.files FINAL
GLOBAL ALL INNER JOIN (SELECT appliance, volume, generation, purged_before FROM quarrow.volumes FINAL) USING (appliance, volume, generation)
PREWHERE last_updated_time >= toUnixTimestamp(now()) - 7 * 86400
WHERE deleted = 1 AND last_updated_time >= purged_before
GROUP BY appliance, volume, folder
ORDER BY files_gone DESC, appliance, volume, folder
LIMIT 20
