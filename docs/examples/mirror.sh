#!/bin/sh
# Keeps in the file STATE what the catalogues hold: the cursor, then each live row as a JSON line.
#
#     quarrowctl changes --since "$(head -n 1 STATE)" | mirror.sh STATE
#
# Ends with status 3 when a full listing is due: run it again with --full instead of --since. Needs jq.
set -eu
state=$1
[ -e "$state" ] || echo >"$state"

# Without a cursor at its end the input is half a batch: nothing is stored, and the same rows come again.
{ tail -n +2 "$state" && cat; } | jq -n -r '
    def volume: .volume_hex // .volume;
    def key: [volume, .kind, .id] | tojson;
    reduce inputs as $line ({rows: {}, restarts: []};
        if $line.cursor then .cursor = $line.cursor
        elif $line.event == "full-listing" then
            .restarts -= [$line | volume] | .rows |= with_entries(select((.value | volume) != ($line | volume)))
        elif $line.event == "restart-needed" then .restarts += [$line | volume]
        elif $line.deleted then del(.rows[$line | key])
        elif $line.kind then .rows[$line | key] = $line
        else . end)
    | if .cursor then .cursor, (.rows[] | tojson), if .restarts != [] then "restart" else empty end
      else error("no cursor") end' >"$state.new"

# Rows and cursor in one step.
if [ "$(tail -n 1 "$state.new")" = restart ]; then
    sed '$d' "$state.new" >"$state.tmp"
    sync "$state.tmp"
    mv "$state.tmp" "$state"
    rm "$state.new"
    exit 3
fi
sync "$state.new"
mv "$state.new" "$state"
