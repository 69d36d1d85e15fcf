#!/usr/bin/python3
"""Runs the examples of the guide: every ```c block with a main() is compiled
(C99, -Wall -Werror) against the build's library and run; every ```python
block is run with the build's Python package, when it was built.
    check_guide.py SOURCE_DIR BUILD_DIR [WORK_DIR]"""
import os
import re
import subprocess
import sys
import tempfile

src, build = sys.argv[1], sys.argv[2]
work = sys.argv[3] if len(sys.argv) > 3 else tempfile.mkdtemp()
os.makedirs(work, exist_ok=True)
have_python = os.path.isdir(os.path.join(build, "python", "qelr"))
env = dict(os.environ, PYTHONPATH=os.path.join(build, "python"), LD_LIBRARY_PATH=build)
ran = 0
for page in sorted(f for f in os.listdir(os.path.join(src, "docs")) if f.endswith(".md")):
    text = open(os.path.join(src, "docs", page), encoding="utf-8").read()
    for n, (lang, code) in enumerate(re.findall(r"```(c|python)\n(.*?)```", text, re.S)):
        name = os.path.join(work, f"{page[:-3]}_{n}")
        if lang == "c" and "int main" in code:
            with open(name + ".c", "w") as f:
                f.write(code)
            subprocess.run(["cc", "-std=c99", "-Wall", "-Werror", "-I", os.path.join(src, "include"),
                            name + ".c", "-L", build, "-lqelr", "-lqelcore", "-lm", "-o", name],
                           check=True)
            cmd = [name]
        elif lang == "python" and have_python:
            with open(name + ".py", "w") as f:
                f.write(code)
            cmd = ["/usr/bin/python3", name + ".py"]
        else:
            continue
        print(f"== {page} example {n} ({lang})", flush=True)
        subprocess.run(cmd, check=True, env=env, cwd=work)
        ran += 1
print(f"{ran} examples ran" + ("" if have_python else " (Python package not built: its examples skipped)"))
sys.exit(0 if ran else 1)
