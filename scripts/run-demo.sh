#!/usr/bin/env bash
# Installs what is missing, builds KrPal, installs it into ./_install and runs the demo of
# the simulated board there. Arguments are passed to the demo (see krpal-demo --help).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build -G Ninja >/dev/null
# Only what the demo needs: the test programs are run-tests.sh's business.
cmake --build build --parallel "$(nproc)" --target krpal-demo krpal-tcxocal
cmake --install build --prefix "$PWD/_install" >/dev/null
echo "KrPal is installed in $PWD/_install"

demo="$PWD/_install/bin/krpal-demo"
if [ -x "$demo" ]; then
    exec "$demo" "$@"
fi
