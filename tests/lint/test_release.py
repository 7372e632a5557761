"""scripts/release, in a small repository that has what it reads."""

import hashlib
import os
import re
import shutil
import subprocess
import tarfile

import pytest

from programs import PROJECT

VERSION = "1.2.3"
COMMIT_TIME = 1700000000
CHANGES = """# Changes

## 1.2.30, 2 March

Not this one.

## 1.2.3, 1 March

- The one that counts.

## 1.2.2

Nor this one.
"""
AUTHOR = {f"GIT_{role}_{part}": value for role in ("AUTHOR", "COMMITTER")
          for part, value in (("NAME", "a"), ("EMAIL", "a@example.org"), ("DATE", f"{COMMIT_TIME} +0000"))}


def git(folder, *arguments):
    subprocess.run(["git", "-C", folder, "-c", "init.defaultBranch=main", *arguments], check=True, capture_output=True,
                   env={**os.environ, **AUTHOR, "GIT_CONFIG_GLOBAL": "/dev/null"})


def commit(folder, **contents):
    for name, content in contents.items():
        path = folder / {"cmake": "CMakeLists.txt", "changes": "CHANGELOG.md"}.get(name, name)
        path.write_text(content)
    git(folder, "add", "--all")
    git(folder, "commit", "--quiet", "--message", "a change")


def project_line(version):
    return f"project(tarnwick VERSION {version} LANGUAGES CXX\n"


def set_package_version(folder, version):
    makefile = folder / "packaging" / "openwrt" / "Makefile"
    text, count = re.subn(r"^PKG_VERSION:=.*", f"PKG_VERSION:={version}", makefile.read_text(), flags=re.M)
    assert count == 1
    makefile.write_text(text)


@pytest.fixture(name="sources")
def small_repository(tmp_path):
    folder = tmp_path / "sources"
    shutil.copytree(PROJECT / "packaging" / "openwrt", folder / "packaging" / "openwrt")
    (folder / "scripts").mkdir()
    for script in ("release", "common.sh"):
        shutil.copy(PROJECT / "scripts" / script, folder / "scripts")
    set_package_version(folder, VERSION)
    git(tmp_path, "init", "--quiet", folder)
    commit(folder, cmake=project_line(VERSION), changes=CHANGES)
    return folder


def release(folder, *options, umask=0o022, **environment):
    """Status, and what it said on standard error."""
    done = subprocess.run([folder / "scripts" / "release", *options], capture_output=True, text=True, timeout=60,
                          check=False, umask=umask, env={**os.environ, **environment})
    return done.returncode, done.stderr


def made(folder):
    """What lies in the release's folder: name -> bytes and permissions."""
    output = folder / "build" / f"release-{VERSION}"
    return {str(path.relative_to(output)): (path.read_bytes(), path.stat().st_mode)
            for path in output.rglob("*") if path.is_file()}


def test_archive_is_the_same_from_every_folder_by_everybody(sources, tmp_path):
    assert release(sources) == (0, "")
    other = tmp_path / "a folder" / "of another name"
    git(tmp_path, "clone", "--quiet", sources, other)
    settings = tmp_path / "gitconfig"
    attributes = tmp_path / "attributes"
    settings.write_text(f"[core]\n\tautocrlf = true\n\tattributesFile = {attributes}\n[tar]\n\tumask = 0077\n")
    attributes.write_text("*.md export-ignore\n* text eol=crlf\n")
    (other / "README").touch(mode=0o600)
    status, said = release(other, umask=0o077, TZ="Asia/Tokyo", LC_ALL="C.UTF-8", GZIP="-1", HOME=str(tmp_path),
                           GIT_CONFIG_GLOBAL=str(settings))
    assert (status, said.count("\n")) == (0, 1) and "not committed" in said
    assert made(other) == made(sources)
    assert len(made(sources)) > 8


def test_archive_holds_the_committed_files_of_nobody_in_particular(sources):
    assert release(sources) == (0, "")
    with tarfile.open(sources / "build" / f"release-{VERSION}" / f"tarnwick-{VERSION}.tar.gz") as archive:
        members = archive.getmembers()
    assert {"CHANGELOG.md", "CMakeLists.txt", "scripts/release"} <= {
        member.name.removeprefix(f"tarnwick-{VERSION}/") for member in members}
    for member in members:
        assert member.name.split("/")[0] == f"tarnwick-{VERSION}"
        assert (member.uid, member.gid, member.mtime) == (0, 0, COMMIT_TIME)
        assert member.mode in (0o644, 0o755)


def test_checksums_and_changes_belong_to_the_release(sources):
    assert release(sources) == (0, "")
    output = sources / "build" / f"release-{VERSION}"
    done = subprocess.run(["sha256sum", "--check", "--strict", "SHA256SUMS"], cwd=output, capture_output=True,
                          text=True, check=False)
    assert (done.returncode, done.stdout.count(": OK")) == (0, 2)
    assert (output / f"tarnwick-{VERSION}-changes.md").read_text() == "## 1.2.3, 1 March\n\n- The one that counts.\n"


def package_line(sources, setting):
    makefile = sources / "build" / f"release-{VERSION}" / "openwrt" / "tarnwick" / "Makefile"
    return re.search(rf"^{setting}:=(.*)$", makefile.read_text(), re.M).group(1)


def test_openwrt_package_takes_this_archive_and_no_other(sources):
    assert release(sources) == (0, "")
    package = sources / "build" / f"release-{VERSION}" / "openwrt" / "tarnwick"
    archive = package / f"tarnwick-{VERSION}.tar.gz"
    assert package_line(sources, "PKG_HASH") == hashlib.sha256(archive.read_bytes()).hexdigest()
    assert package_line(sources, "PKG_SOURCE_URL") == "file://$(CURDIR)"
    for file in (sources / "packaging" / "openwrt").rglob("files/*"):
        assert (package / "files" / file.name).read_bytes() == file.read_bytes()


def test_view_for_luci_finds_the_luci_feed_wherever_its_folder_is(sources):
    assert release(sources) == (0, "")
    package = sources / "build" / f"release-{VERSION}" / "openwrt" / "luci-app-tarnwick"
    own = sources / "packaging" / "openwrt" / "luci-app-tarnwick"
    for file in own.rglob("*.js*"):
        assert (package / file.relative_to(own)).read_bytes() == file.read_bytes()
    assert (own / "Makefile").read_text().replace("../../luci.mk", "$(TOPDIR)/feeds/luci/luci.mk") == (
        package / "Makefile").read_text()


def test_openwrt_package_names_the_server_that_has_the_archive(sources):
    assert release(sources, "--url", "https://example.org/a|b/releases") == (0, "")
    assert package_line(sources, "PKG_SOURCE_URL") == "https://example.org/a|b/releases"
    assert not list((sources / "build" / f"release-{VERSION}" / "openwrt").rglob("*.tar.gz"))


def test_what_is_not_committed_is_left_out_and_that_is_said(sources):
    assert release(sources) == (0, "")
    before = made(sources)
    (sources / "build" / f"release-{VERSION}" / "openwrt" / "tarnwick" / "stale").touch()
    (sources / ".gitignore").write_text("/build/\n")
    status, said = release(sources)
    assert status == 0 and "what is not committed is not in the archive" in said
    assert made(sources) == before


def test_another_revision_is_released_with_its_own_version(sources, tmp_path):
    set_package_version(sources, "1.2.4")
    commit(sources, cmake=project_line("1.2.4"), changes="## 1.2.4, not released yet\n\n- New.\n")
    status, said = release(sources, "--output", str(tmp_path / "new"))
    assert status == 0 and "CHANGELOG.md says that 1.2.4 is not released yet" in said
    assert release(sources, "--revision", "HEAD~1", "--output", str(tmp_path / "old")) == (0, "")
    assert (tmp_path / "new" / "tarnwick-1.2.4.tar.gz").exists()
    assert (tmp_path / "old" / f"tarnwick-{VERSION}.tar.gz").exists()


def test_release_is_refused_without_its_changes_or_with_two_versions(sources):
    commit(sources, changes=CHANGES.replace("## 1.2.3,", "## 1.2.3.1,"))
    assert release(sources) == (2, 'release: CHANGELOG.md has no section "## 1.2.3"\n')
    commit(sources, changes=CHANGES, cmake=project_line("1.2.30"))
    status, said = release(sources)
    assert status == 2 and "packaging/openwrt/Makefile has another version" in said
    commit(sources, cmake="project(other)\n")
    assert release(sources) == (2, "release: CMakeLists.txt of HEAD names no version\n")
    assert not (sources / "build").exists()


def test_command_line_is_checked(sources):
    assert release(sources, "--revision", "nothing") == (2, "release: no such revision: nothing\n")
    status, said = release(sources, "--speed")
    assert status == 2 and said.startswith("Usage: ")


def test_script_is_clean():
    done = subprocess.run(["shellcheck", "-x", PROJECT / "scripts" / "release"], capture_output=True, text=True,
                          check=False)
    assert done.returncode == 0, done.stdout
