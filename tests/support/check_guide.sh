#!/usr/bin/env bash
# Each C block of docs/hosting.md follows "<!-- examples/guide/FILE.c: NAME -->" and is,
# line for line, what stands between "/* guide: NAME */" and "/* guide: end */" in that
# file, which the build compiles.   check_guide.sh SOURCE_DIR
cd "$1" || exit 1
awk '
  function region(file, name,    line, inside, text) {
    found = 0
    while ((getline line < file) > 0) {
      if (line == "/* guide: end */") inside = 0
      if (inside) text = text line "\n"
      if (line == "/* guide: " name " */") { inside = 1; found = 1 }
    }
    close(file)
    return text
  }
  /^<!-- examples\/guide\/[a-z_]+\.c: [a-z-]+ -->$/ { file = $2; sub(/:$/, "", file); name = $3; marked = NR; next }
  /^```c$/ {
    if (marked != NR - 1) { print "docs/hosting.md:" NR ": a C block that names no example file"; bad = 1 }
    block = ""; inside = 1; start = NR; next
  }
  inside && /^```$/ {
    inside = 0; blocks++
    want = region(file, name)
    if (!found) { print "docs/hosting.md:" start ": " file " has no region " name; bad = 1 }
    else if (want != block) { print "docs/hosting.md:" start ": not what " file " (" name ") says"; bad = 1 }
    next
  }
  inside { block = block $0 "\n" }
  END {
    if (blocks == 0) { print "docs/hosting.md has no code"; bad = 1 }
    if (!bad) print "ok: the " blocks " C blocks of docs/hosting.md are the code of examples/guide"
    exit bad
  }
' docs/hosting.md
