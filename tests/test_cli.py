import json
import os
import subprocess
import sys

import pytest


def stamp(tree, rel, version):
    (tree / rel).parent.mkdir(parents=True, exist_ok=True)
    (tree / rel).write_text(f"---\nversion: {version}\n---\n")


@pytest.fixture
def tree(tmp_path):
    home, repo = tmp_path / "home", tmp_path / "app"
    home.mkdir(), repo.mkdir()
    return home, repo


def run(tree, *args):
    home, repo = tree
    env = {**os.environ, "HOME": str(home)}
    return subprocess.run(
        [sys.executable, "-m", "zobek_lumeno", *args],
        cwd=repo,
        env=env,
        capture_output=True,
        text=True,
        timeout=60,
    )


def test_status_marks_and_update_commands(tree):
    home, repo = tree
    stamp(home, ".claude/skills/lumeno/SKILL.md", "1.4.0")
    stamp(home, ".claude/skills/lumeno-map/SKILL.md", "1.5.0")
    for skill in ("lumeno", "lumeno-map"):
        stamp(repo, f".windsurf/skills/{skill}/SKILL.md", "1.3")
    done = run(tree, "status")
    assert done.returncode == 0 and done.stderr == ""
    lines = done.stdout.splitlines()
    assert [ln.split()[-3:] for ln in lines if "1.4.0" in ln or "1.3 " in ln] == [
        ["1.4.0", "1.5.0", "STALE"]
    ] + [["1.3", "1.5.0", "STALE"]] * 2
    assert [ln.split()[-1] for ln in lines[3:27]].count("missing") == 20 and "3 stale copies;" in done.stdout
    assert lines[-2:] == [
        "  zobek-lumeno skill install --scope user",
        f"  zobek-lumeno --repo-root {repo} skill install --scope project --agent windsurf",
    ]


def test_status_json_and_repo_root(tree, tmp_path):
    home, _ = tree
    other = tmp_path / "other"
    stamp(other, ".github/skills/lumeno-wiki/SKILL.md", "1.5.0")
    done = run(tree, "status", "--json", "--repo-root", str(other))
    records = json.loads(done.stdout)
    assert done.returncode == 0 and len(records) == 24
    assert list(records[0]) == ["skill", "directory", "installed", "current", "scope", "update", "stale"]
    assert records[0]["directory"] == str(home / ".claude/skills") and records[0]["stale"] is False
    [wiki] = [r for r in records if r["installed"]]
    assert wiki["directory"] == str(other / ".github/skills") and wiki["skill"] == "lumeno-wiki"
    assert wiki["update"] == f"zobek-lumeno --repo-root {other} skill install --scope project --agent copilot"


def test_status_without_stale_copies(tree):
    stamp(tree[1], ".claude/skills/lumeno/SKILL.md", "9.0")
    done = run(tree, "status")
    assert done.stdout.splitlines()[-1] == "No stale copies (1 installed, 23 missing)."
    assert "zobek-lumeno skill install" not in done.stdout


@pytest.mark.parametrize(
    "args, out",
    [
        ([], ".claude/skills\n"),
        (["windsurf"], ".windsurf/skills\n"),
        (["cursor-agent", "copilot"], ".cursor/skills\n.github/skills\n"),
        (["--scope", "user", "claude", "copilot"], ".claude/skills\n.copilot/skills\n"),
        (
            ["--scope", "user", "claude", "cursor-agent", "windsurf", "copilot"],
            ".claude/skills\n.codeium/windsurf/skills\n.copilot/skills\n",
        ),
    ],
)
def test_dirs(tree, args, out):
    done = run(tree, "dirs", *args)
    assert (done.returncode, done.stdout, done.stderr) == (0, out, "")


@pytest.mark.parametrize(
    "args, says",
    [
        (["dirs", "claude", "Claude"], "unknown agent 'Claude'"),
        (["dirs", "--scope", "global"], "invalid choice"),
        (["status", "--repo-root", "nowhere"], "'nowhere' is not a directory"),
        (["status", "--repo-root", "file"], "is not a directory"),
        ([], "required"),
        (["install"], "invalid choice"),
    ],
)
def test_bad_arguments(tree, args, says):
    (tree[1] / "file").write_text("")
    done = run(tree, *args)
    assert done.returncode == 2 and done.stdout == ""
    assert (
        done.stderr.count("\n") == 1
        and says in done.stderr
        and done.stderr.startswith("python -m zobek_lumeno")
    )
