import json
import os
import subprocess
import sys

import pytest


def stamp(tree, rel, version):
    (tree / rel).parent.mkdir(parents=True, exist_ok=True)
    (tree / rel).write_text(f"---\nversion: {version}\n---\n")


def run(home, *args):
    # The repository is the working directory, inside the home as it usually is.
    (home / "app").mkdir(exist_ok=True)
    command = [sys.executable, "-m", "zobek_lumeno", *args]
    env = {**os.environ, "HOME": str(home)}
    return subprocess.run(command, cwd=home / "app", env=env, capture_output=True, text=True, timeout=60)


def test_status_table_and_update_commands(tmp_path):
    home, repo = tmp_path, tmp_path / "app"
    stamp(home, ".claude/skills/lumeno/SKILL.md", "1.4.0")
    stamp(home, ".claude/skills/lumeno-map/SKILL.md", "1.5.0")
    for skill in ("lumeno", "lumeno-map"):
        stamp(repo, f".windsurf/skills/{skill}/SKILL.md", "1.3")
    done = run(home, "status")
    assert done.returncode == 0 and done.stderr == ""
    lines = done.stdout.splitlines()
    # A directory under the home is shortened, and named once for all of its skills.
    assert [line.split() for line in lines[3:27] if not line.endswith("missing")] == [
        ["user", "~/.claude/skills", "lumeno", "1.4.0", "1.5.0", "STALE"],
        ["lumeno-map", "1.5.0", "1.5.0", "current"],
        ["project", "~/app/.windsurf/skills", "lumeno", "1.3", "1.5.0", "STALE"],
        ["lumeno-map", "1.3", "1.5.0", "STALE"],
    ]
    assert lines[27:] == [
        "",
        "3 stale copies; to update them run:",
        "  zobek-lumeno skill install --scope user",
        f"  zobek-lumeno --repo-root {repo} skill install --scope project --agent windsurf",
    ]


def test_status_of_another_repo_root(tmp_path):
    other = tmp_path / "other"
    stamp(other, ".github/skills/lumeno-wiki/SKILL.md", "1.5.0")
    text = run(tmp_path, "status", "--repo-root", str(other)).stdout
    assert text.endswith("\n\nNo stale copies (1 installed, 23 missing).\n")
    records = json.loads(run(tmp_path, "status", "--json", "--repo-root", str(other)).stdout)
    assert len(records) == 24 and records[0]["stale"] is False
    assert list(records[0]) == ["skill", "directory", "installed", "current", "scope", "update", "stale"]
    [wiki] = [r for r in records if r["installed"]]
    assert wiki["directory"] == str(other / ".github/skills") and wiki["skill"] == "lumeno-wiki"
    assert wiki["update"] == f"zobek-lumeno --repo-root {other} skill install --scope project --agent copilot"


@pytest.mark.parametrize(
    "args, out, error",
    [
        (["dirs"], ".claude/skills\n", ""),
        (["dirs", "cursor-agent", "copilot"], ".cursor/skills\n.github/skills\n", ""),
        (["dirs", "--scope", "user", "claude", "copilot"], ".claude/skills\n.copilot/skills\n", ""),
        (["dirs", "claude", "Claude"], "", "dirs: error: unknown agent 'Claude' (known: claude, cursor"),
        (["dirs", "--scope", "global"], "", "invalid choice"),
        (["status", "--repo-root", "nowhere"], "", "status: error: --repo-root 'nowhere' is not a directory"),
        (["status", "--repo-root", sys.executable], "", "is not a directory"),
        ([], "", "required"),
    ],
)
def test_arguments(tmp_path, args, out, error):
    done = run(tmp_path, *args)
    assert (done.returncode, done.stdout) == (2 if error else 0, out)
    # A mistake is reported in one line, not with the usage block.
    lines = done.stderr.splitlines()
    assert len(lines) == bool(error) and all(line.startswith("python -m zobek_lumeno") for line in lines)
    assert error in done.stderr
