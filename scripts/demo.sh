#!/usr/bin/env bash
# Sets up cplogic (installs what is missing, builds the module, puts the
# cplogic command on the PATH) and answers queries on the sneezing example.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh >&2

if [ ! -f build/cplogic.so ]; then
  { cmake -S . -B build -DCMAKE_BUILD_TYPE=Release && cmake --build build -j"$(nproc)"; } >&2
fi
if [ -w /usr/local/bin ]; then
  ln -sf "$PWD/bin/cplogic" /usr/local/bin/cplogic
fi

set -x
bin/cplogic examples/lpad/sneezing.pl 'sneezing(bob)'
bin/cplogic examples/lpad/sneezing.pl 'flu(bob)' 'hay_fever(bob)' --given 'sneezing(bob)' \
  --png "${TMPDIR:-/tmp}/sneezing.png"
