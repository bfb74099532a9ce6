-- Which volumes are being listed anew? Until all of a listing has come, readers see the one before, or nothing when it is the
-- first. A listing that began days ago wants a look at its appliance.
SELECT
    appliance,
    volume,
    if(max(valid) = 0, 'the first', 'anew') AS listing,
    toDateTime(intDiv(max(newest), 1000)) AS began,
    argMax(folders, newest) AS folders_so_far
FROM
(
    SELECT appliance, volume, generation AS valid, toUInt64(0) AS newest, toUInt64(0) AS folders FROM quarrow.volumes FINAL
    UNION ALL
    SELECT appliance, volume, toUInt64(0) AS valid, generation AS newest, uniqExact(id) AS folders FROM quarrow.folders
    GROUP BY appliance, volume, generation
)
GROUP BY appliance, volume
HAVING max(newest) > max(valid)
ORDER BY began, appliance, volume
LIMIT 100
