-- What takes the space? Files and bytes of each category over all appliances, from the latest totals of each volume.
SELECT
    category,
    sum(files) AS all_files,
    sum(bytes) AS all_bytes,
    uniqExact(appliance) AS appliances,
    toDateTime(min(taken)) AS oldest_total
FROM quarrow.totals FINAL
PREWHERE (appliance, volume, taken) GLOBAL IN (SELECT appliance, volume, max(taken) FROM quarrow.totals GROUP BY appliance, volume)
WHERE files > 0
GROUP BY category
ORDER BY all_bytes DESC, category
