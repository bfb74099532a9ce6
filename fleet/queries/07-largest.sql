-- Which files are the largest? First the names of the thousand largest rows of whatever version; then what these names are now.
SELECT
    appliance,
    volume,
    path,
    size,
    category
FROM quarrow.files FINAL
PREWHERE name GLOBAL IN
(
    SELECT name FROM quarrow.files
    PREWHERE size >= (SELECT min(size) FROM (SELECT size FROM quarrow.files WHERE deleted = 0 ORDER BY size DESC LIMIT 1000))
)
WHERE deleted = 0
    AND (appliance, volume, generation) GLOBAL IN (SELECT appliance, volume, generation FROM quarrow.volumes FINAL)
ORDER BY size DESC, appliance, volume, path
LIMIT 20
