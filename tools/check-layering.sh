#!/usr/bin/env bash
# Include layering and house rules that a compiler does not check:
# - the host includes no format and nothing of the module;
# - a format includes only itself and the host;
# - the CLI includes no format except the two tool engines it links (lxo, vrml97);
# - no parser switches a locale category other than the number category.
set -uo pipefail
cd "$(dirname "$0")/.."
status=0
fail() { echo "layering: $*"; status=1; }

while IFS= read -r hit; do fail "host includes $hit"; done < <(
    grep -Hn '#include "' plugin/host/*.h plugin/host/*.cpp | grep -v '#include "plugin/host/')
for d in formats/mesh formats/classic formats/lxo formats/kmz vrml/vrml97 vrml/vrml1; do
    while IFS= read -r hit; do fail "$hit"; done < <(
        grep -RHn '#include "' "$d" | grep -v "#include \"$d/" | grep -v '#include "plugin/host/')
done
while IFS= read -r hit; do fail "$hit"; done < <(
    grep -RHn '#include "' cli | grep -v '#include "cli/\|#include "plugin/host/\|#include "plugin/FormatTable.h"\|#include "plugin/FormatProbe.h"\|#include "plugin/FormatChoice.h"' |
        grep -v '#include "formats/lxo/\|#include "vrml/vrml97/')
while IFS= read -r hit; do fail "locale category other than LC_NUMERIC: $hit"; done < <(
    grep -RHn 'CSwitchLocale [a-z]*(' formats vrml plugin | grep -v 'LC_NUMERIC')
[ $status -eq 0 ] && echo "layering: ok"
exit $status
