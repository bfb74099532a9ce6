-- Which appliances went silent? Those of which nothing has come for a day, by the servers' clocks: an appliance's own may be wrong.
SELECT
    appliance,
    received AS last_came,
    intDiv(toUnixTimestamp(now()) - toUnixTimestamp(received), 3600) AS hours_ago,
    software
FROM quarrow.appliances FINAL
WHERE received < now() - 86400
ORDER BY received, appliance
LIMIT 100
