-- Which appliances went silent? Those that have not pushed for a day.
SELECT
    appliance,
    toDateTime(last_contact) AS last_contact_at,
    intDiv(toUnixTimestamp(now()) - last_contact, 3600) AS hours_ago,
    software
FROM quarrow.appliances FINAL
WHERE last_contact < toUnixTimestamp(now()) - 86400
ORDER BY last_contact, appliance
LIMIT 100
