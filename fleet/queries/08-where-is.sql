-- Where is this file? Change the name. A byte that is no text is written \xFF, in quotes.
SELECT
    appliance,
    volume,
    path,
    size,
    if(deleted = 1, 'gone', 'there') AS state,
    toDateTime(last_updated_time) AS since
FROM quarrow.files FINAL
PREWHERE name = 'IMG_0001.JPG'
WHERE (appliance, volume, generation) GLOBAL IN (SELECT appliance, volume, generation FROM quarrow.volumes FINAL)
ORDER BY deleted, appliance, volume, path
LIMIT 100
