-- Which file lies on several appliances? The same name and size, from 100 MB, by what the copies beyond the first take.
-- First the sizes that come into question, by rows of whatever version. Then the names of these rows, and then what these names
-- are now.
SELECT
    name,
    size,
    uniqExact(appliance) AS appliances,
    count() AS copies,
    size * (count() - 1) AS spare_bytes
FROM quarrow.files FINAL
PREWHERE name GLOBAL IN
(
    SELECT name FROM quarrow.files
    PREWHERE size GLOBAL IN
    (
        SELECT size FROM quarrow.files
        PREWHERE size >= 100000000 AND deleted = 0
        GROUP BY size
        HAVING min(cityHash64(appliance)) != max(cityHash64(appliance))
    )
)
WHERE size >= 100000000 AND deleted = 0
    AND (appliance, volume, generation) GLOBAL IN (SELECT appliance, volume, generation FROM quarrow.volumes FINAL)
GROUP BY name, size
HAVING appliances > 1
ORDER BY spare_bytes DESC, name
LIMIT 20
