#!/bin/sh
# Runs one fuzz target for a while: run.sh PROGRAM SECONDS
#
# Its seeds are in corpus/NAME beside this script, words to build inputs from in dictionaries/NAME.dict where there are any.
# QUARROW_FUZZ_SECONDS in the environment goes before SECONDS, QUARROW_FUZZ_SEED makes other runs than the usual one. What the run keeps is in the current folder: inputs that
# reach new code in corpus-NAME, the input of a finding in findings-NAME, to be given to the program as its argument.
set -eu
program=$1
seconds=${QUARROW_FUZZ_SECONDS:-$2}

name=${program##*/fuzz_}
here=$(dirname "$0")
mkdir -p "corpus-$name" "findings-$name"
set -- "corpus-$name" "$here/corpus/$name"
[ ! -e "$here/dictionaries/$name.dict" ] || set -- "-dict=$here/dictionaries/$name.dict" "$@"

# The daemon's progress lines go nowhere (close_fd_mask), its memory is bounded (rss_limit_mb), and an input that takes
# long is a finding: hundreds are done in a second, the limit is for a busy machine.
exec "$program" -seed="${QUARROW_FUZZ_SEED:-1}" -max_total_time="$seconds" -max_len=4096 -timeout=25 -rss_limit_mb=1024 -close_fd_mask=1 \
    -artifact_prefix="findings-$name/" -print_final_stats=1 "$@"
