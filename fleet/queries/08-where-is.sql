-- Where is this file? Change the name. A byte that is no text is written \xFF, in quotes.
SELECT
    appliance,
    volume,
    path,
    size,
    if(deleted = 1, 'gone', 'there') AS state,
    toDateTime(last_updated_time) AS since
FROM quarrow.files FINAL
GLOBAL ALL INNER JOIN (SELECT appliance, volume, generation, purged_before FROM quarrow.volumes FINAL) USING (appliance, volume, generation)
PREWHERE name = 'IMG_0001.JPG'
WHERE deleted = 0 OR last_updated_time >= purged_before
ORDER BY deleted, appliance, volume, path
LIMIT 100
