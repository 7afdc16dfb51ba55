"""Runs docs/cli.md's examples as written: `$ ktfront ...` blocks must print what the block
shows, and each sh block that runs ktfront must succeed and print every percentage of the
table that follows it. Usage: docs_examples.py REPO KTFRONT_DIR"""
import os, re, shutil, subprocess, sys, tempfile

repo, tools = map(os.path.abspath, sys.argv[1:3])
env = dict(os.environ, PATH=tools + os.pathsep + os.environ["PATH"])
text = open(os.path.join(repo, "docs", "cli.md"), encoding="utf-8").read()
checked = 0
for match in re.finditer(r"```(sh)?\n(.*?)```", text, re.S):
    block = match.group(2)
    if block.startswith("$ ktfront"):
        command, expected = block.split("\n", 1)
        out = subprocess.run(command[2:], shell=True, cwd=repo, env=env, capture_output=True, text=True).stdout
        assert out == expected, f"{command}\nprinted:\n{out}\ndocumented:\n{expected}"
        checked += 1
    elif match.group(1) and "ktfront " in block:
        # In a scratch tree holding the scripts and samples, so that out/ is its own.
        with tempfile.TemporaryDirectory() as tree:
            os.symlink(os.path.join(repo, "samples"), os.path.join(tree, "samples"))
            shutil.copytree(os.path.join(repo, "scripts"), os.path.join(tree, "scripts"))
            run = subprocess.run(["bash", "-ec", block], cwd=tree, env=env, capture_output=True, text=True)
        assert run.returncode == 0, f"{block}\n{run.stderr}"
        table = text[match.end():].split("\n\n", 2)[1]
        for figure in re.findall(r"\d+\.\d+ %", table):
            assert figure in run.stdout, f"{figure} of the table after\n{block}\nnot in:\n{run.stdout}"
        checked += 1
assert checked >= 2, "no examples found"
print(f"{checked} examples as documented")
