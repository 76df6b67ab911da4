#!/usr/bin/env bash
# Writes each fenced block of one language in a Markdown file to a file of its own, in order
# (01.EXT, 02.EXT, ...), each starting with a #line directive so that a compiler's message names
# the Markdown file and line. Prints how many it wrote.
#
#   tests/guide/extract-snippets.sh LANGUAGE EXT MARKDOWN OUTDIR      e.g. cpp cpp docs/guide.md out
set -euo pipefail
language="$1" ext="$2" markdown="$3" out="$4"
mkdir -p "${out}"
awk -v language="${language}" -v ext="${ext}" -v out="${out}" -v source="${markdown}" '
    !inside && $0 == "```" language {
        inside = 1
        count++
        file = sprintf("%s/%02d.%s", out, count, ext)
        printf "#line %d \"%s\"\n", NR + 1, source > file
        next
    }
    inside && $0 == "```" { inside = 0; close(file); next }
    inside { print > file }
    END {
        if (inside) { print source ": unterminated ```" language " block" > "/dev/stderr"; exit 1 }
        print count + 0
    }
' "${markdown}"
