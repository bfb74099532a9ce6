-- Which photos vanished everywhere this week? An image that was found gone, and no appliance has one of its name and size.
-- A photo that was moved is not among them. Nor is one that was gone before its catalogue was made anew.
-- Cameras give the same names again and again, sizes hardly ever: so first come the sizes in question, then the rows that ever
-- had one of these, then what these rows are now. A row too many, by its size or its hash, does no harm.
SELECT
    name,
    size,
    uniqExact(appliance) AS appliances,
    toDateTime(max(last_updated_time)) AS found_gone
FROM quarrow.files FINAL
GLOBAL ALL INNER JOIN (SELECT appliance, volume, generation, purged_before FROM quarrow.volumes FINAL) USING (appliance, volume, generation)
PREWHERE cityHash64(appliance, id) GLOBAL IN
(
    SELECT cityHash64(appliance, id) FROM quarrow.files
    PREWHERE size GLOBAL IN
    (
        SELECT size FROM quarrow.files
        PREWHERE last_updated_time >= toUnixTimestamp(now()) - 7 * 86400 AND deleted = 1 AND category = 'image'
    )
)
WHERE category = 'image' AND (deleted = 0 OR last_updated_time >= purged_before)
GROUP BY name, size
HAVING min(deleted) = 1 AND max(last_updated_time) >= toUnixTimestamp(now()) - 7 * 86400
ORDER BY found_gone DESC, name, size
LIMIT 100
