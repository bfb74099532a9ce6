-- Which volumes are being listed anew? Until all of a listing has come, readers see the one before, or nothing when it is the
-- first. A listing that began days ago wants a look at its appliance.
SELECT
    appliance,
    volume,
    if(max(valid) = 0, 'the first', 'anew') AS listing,
    toDateTime(intDiv(max(generation), 1000)) AS began,
    argMax(folders, generation) AS folders_so_far,
    argMax(files, generation) AS files_so_far
FROM
(
    SELECT appliance, volume, generation, max(counts) AS valid, sum(folders) AS folders, sum(files) AS files
    FROM
    (
        SELECT appliance, volume, generation, generation AS counts, toUInt64(0) AS folders, toUInt64(0) AS files
        FROM quarrow.volumes FINAL
        UNION ALL
        SELECT appliance, volume, generation, toUInt64(0) AS counts, uniqExact(id) AS folders, toUInt64(0) AS files
        FROM quarrow.folders
        PREWHERE (appliance, volume, generation) GLOBAL NOT IN
            (SELECT appliance, volume, generation FROM quarrow.volumes FINAL)
        GROUP BY appliance, volume, generation
        UNION ALL
        SELECT appliance, volume, generation, toUInt64(0) AS counts, toUInt64(0) AS folders, uniqExact(id) AS files
        FROM quarrow.files
        PREWHERE (appliance, volume, generation) GLOBAL NOT IN
            (SELECT appliance, volume, generation FROM quarrow.volumes FINAL)
        GROUP BY appliance, volume, generation
    )
    GROUP BY appliance, volume, generation
)
GROUP BY appliance, volume
HAVING max(generation) > max(valid)
ORDER BY began, appliance, volume
LIMIT 100
