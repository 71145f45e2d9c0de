#!/usr/bin/env bash
# Compiles the library's sources with clang's thread-safety analysis (syntax
# only): a lock taken out of order, or shared state touched without its lock,
# fails the command. The annotations live in url-downloader-locks.h.
#   scripts/thread-safety.sh BUILD_DIR    (BUILD_DIR holds compile_commands.json)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: scripts/thread-safety.sh BUILD_DIR}
clang=$(command -v clang++-14 || command -v clang++)
CLANG="$clang" python3 - "$build/compile_commands.json" <<'PY'
import json, os, shlex, subprocess, sys
entries = [e for e in json.load(open(sys.argv[1]))
           if "/utils/url-downloader/src/" in e["file"] and e["file"].endswith(".cpp")]
failed = 0
for e in entries:
    args = shlex.split(e["command"]) if "command" in e else e["arguments"]
    # Keep defines, include folders and the language standard; drop the rest.
    keep, rest = [], iter(args[1:])
    for a in rest:
        if a == "-isystem":
            keep += [a, next(rest)]
        elif a.startswith(("-D", "-I", "-std=")):
            keep.append(a)
    cmd = [os.environ["CLANG"], "-fsyntax-only", "-Wthread-safety", "-Wthread-safety-beta", "-Werror"] + keep + [e["file"]]
    if subprocess.run(cmd, cwd=e["directory"]).returncode != 0:
        failed += 1
print(f"thread-safety analysis: {len(entries)} files, {failed} failing")
sys.exit(1 if failed else 0)
PY
