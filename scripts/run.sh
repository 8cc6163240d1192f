#!/usr/bin/env bash
# The main job: installs what is missing, builds the project and says what it built.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j "$(nproc)"
echo "built:"
find build -maxdepth 8 -type f \( -name '*.a' -o -name '*.so' \) -printf '  %p\n' | sort
