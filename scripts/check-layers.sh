#!/usr/bin/env bash
# Keeps core's includes running one way:
#
#   base  <-  ports  <-  subsystems  <-  client  <-  api
#
# base holds plain value types, ports every interface to the platform, the subsystems one folder
# per flow or rule set, client the object that composes them, api the public facade. Inside the
# subsystem layer a folder may include only the folders listed before it, so the subsystems
# never include each other in a circle. core never includes platform, tools or apps code.
set -euo pipefail
cd "$(dirname "$0")/.."

subsystems=(theme redaction wire transport flow health registration control capture consent lease live)

rank() {  # prints the rank of a core folder, or nothing for an unknown one
    case "$1" in
        base) echo 0 ;;
        ports) echo 1 ;;
        client) echo 200 ;;
        api) echo 300 ;;
        *)
            local i
            for i in "${!subsystems[@]}"; do
                [[ "${subsystems[$i]}" == "$1" ]] && echo $((100 + i)) && return
            done
            ;;
    esac
}

failures=0
while IFS= read -r file; do
    from="${file#core/}"
    from="${from%%/*}"
    from_rank="$(rank "$from")"
    if [[ -z "$from_rank" ]]; then
        echo "layers: $file is in core/$from/, which is not a known layer (see scripts/check-layers.sh)"
        failures=$((failures + 1))
        continue
    fi
    while IFS= read -r line; do
        target="$(sed -E 's/^[^"]*"([^"]+)".*/\1/' <<<"$line")"
        case "$target" in
            core/*) ;;
            platform/* | tools/* | apps/* | tests/* | bench/* | fuzz/*)
                echo "layers: $file includes $target: core never includes code outside core/"
                failures=$((failures + 1))
                continue
                ;;
            *) continue ;;
        esac
        to="${target#core/}"
        to="${to%%/*}"
        [[ "$to" == "$from" ]] && continue
        to_rank="$(rank "$to")"
        if [[ -z "$to_rank" || "$to_rank" -gt "$from_rank" ]]; then
            echo "layers: $file ($from) includes $target ($to), which runs against the layers"
            failures=$((failures + 1))
        fi
    done < <(grep -E '^\s*#\s*include\s+"' "$file" || true)
done < <(find core -type f \( -name '*.hpp' -o -name '*.cpp' \) | sort)

if [[ "$failures" -gt 0 ]]; then
    echo "layers: $failures include(s) against the layers"
    exit 1
fi
echo "layers: every include in core runs one way"
