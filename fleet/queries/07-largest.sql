-- Which files are the largest?
-- From inside out: the rows of the largest sizes, of whatever version; of these the two hundred largest that seem to be there; what
-- these are now. The twentieth of them is a size that the answer does not fall below: whatever ever had it comes into question.
-- Where so few are left that there is no twentieth, everything does, which takes as long as the totals.
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
    PREWHERE size >=
    (
        SELECT if(count() < 20, toInt64(-9223372036854775808), min(size))
        FROM
        (
            SELECT size
            FROM quarrow.files FINAL
            PREWHERE name GLOBAL IN
            (
                SELECT name
                FROM quarrow.files
                PREWHERE size >= (SELECT min(size) FROM (SELECT size FROM quarrow.files ORDER BY size DESC LIMIT 2000))
                WHERE (appliance, volume, generation) GLOBAL IN
                    (SELECT appliance, volume, generation FROM quarrow.volumes FINAL)
                GROUP BY appliance, volume, generation, id, name
                HAVING argMax(deleted, version) = 0
                ORDER BY max(size) DESC
                LIMIT 200
            )
            WHERE deleted = 0
                AND (appliance, volume, generation) GLOBAL IN (SELECT appliance, volume, generation FROM quarrow.volumes FINAL)
            ORDER BY size DESC
            LIMIT 20
        )
    )
)
WHERE deleted = 0
    AND (appliance, volume, generation) GLOBAL IN (SELECT appliance, volume, generation FROM quarrow.volumes FINAL)
ORDER BY size DESC, appliance, volume, path
LIMIT 20
