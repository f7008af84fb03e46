"""The Python package used as its users would: real trees round-tripped,
archives shared with the command-line tool both ways, volume sets,
callbacks, shutil, and damaged archives.

Run by ctest against the freshly built library (TALVERN_LIBRARY), the tool
(TALVERN_TOOL) and the corpus (TALVERN_CORPUS)."""

import filecmp
import os
import shutil
import subprocess
import zlib
from pathlib import Path

import pytest

import talvern

CORPUS = Path(os.environ.get("TALVERN_CORPUS", Path(__file__).parents[2] / "bench" / "corpus"))
TOOL = os.environ.get("TALVERN_TOOL")


@pytest.fixture
def tree(tmp_path: Path) -> Path:
    """A tree of real files: two texts at the top, an image and a folder of
    HTML below."""
    root = tmp_path / "tree"
    (root / "images").mkdir(parents=True)
    (root / "web" / "empty").mkdir(parents=True)
    shutil.copy(CORPUS / "alice29.txt", root)
    shutil.copy(CORPUS / "kppkn.gtb", root)
    shutil.copy(CORPUS / "fireworks.jpeg", root / "images")
    shutil.copy(CORPUS / "html", root / "web" / "index.html")
    return root


def same_tree(a: Path, b: Path) -> bool:
    compare = filecmp.dircmp(a, b)
    if compare.left_only or compare.right_only or compare.funny_files:
        return False
    _, mismatch, errors = filecmp.cmpfiles(a, b, compare.common_files, shallow=False)
    return not mismatch and not errors and all(
        same_tree(a / d, b / d) for d in compare.common_dirs)


def library_crc(data: bytes) -> int:
    """The library's CRC-32: zip's polynomial, but starting at 0 and not
    inverted at the end."""
    return zlib.crc32(data, 0xFFFFFFFF) ^ 0xFFFFFFFF


def run_tool(*args: str) -> str:
    return subprocess.run([TOOL, *args], check=True, capture_output=True, text=True).stdout


def test_round_trip_of_a_real_tree(tree: Path, tmp_path: Path) -> None:
    archive = tmp_path / "t.arc"
    talvern.create(archive, tree)
    with talvern.open(archive) as a:
        assert sorted(a.namelist()) == sorted(
            ["alice29.txt", "kppkn.gtb", "images", "images/fireworks.jpeg", "web",
             "web/empty", "web/index.html"])
        info = a.getinfo("Images/FIREWORKS.jpeg")  # case does not matter
        data = (tree / "images" / "fireworks.jpeg").read_bytes()
        assert (info.size, info.crc, info.is_dir) == (len(data), library_crc(data), False)
        assert info.last_write_time is not None
        assert a.getinfo("web").is_dir
        text = a.getinfo("alice29.txt")
        assert text.method == 1 and text.packed_size < text.size
        assert a.read("web/index.html") == (tree / "web" / "index.html").read_bytes()
        a.test()
        a.extractall(tmp_path / "out")
        a.extractall(tmp_path / "texts", pattern="*.txt")
        with pytest.raises(KeyError):
            a.getinfo("missing")
    assert same_tree(tree, tmp_path / "out")
    assert [p.name for p in (tmp_path / "texts").rglob("*") if p.is_file()] == ["alice29.txt"]


@pytest.mark.skipif(not TOOL, reason="the tool is not built")
def test_archives_are_shared_with_the_tool(tree: Path, tmp_path: Path) -> None:
    by_tool = tmp_path / "tool.arc"
    run_tool("create", "--quiet", str(by_tool), str(tree))
    with talvern.open(by_tool) as a:
        a.test()
        a.extractall(tmp_path / "from-tool")
    assert same_tree(tree, tmp_path / "from-tool")

    by_python = tmp_path / "python.arc"
    talvern.create(by_python, tree, store=True)
    run_tool("test", "--quiet", str(by_python))
    run_tool("extract", "--quiet", str(by_python), str(tmp_path / "from-python"))
    assert same_tree(tree, tmp_path / "from-python")


@pytest.mark.skipif(not TOOL, reason="the tool is not built")
def test_volume_sets_and_adding(tree: Path, tmp_path: Path) -> None:
    archive = tmp_path / "set.arc"
    talvern.create(archive, tree, volume_size=64 * 1024)
    volumes = sorted(p.name for p in tmp_path.glob("set.*"))
    assert len(volumes) > 3 and volumes[0] == "set.000"
    assert all(p.stat().st_size <= 64 * 1024 for p in tmp_path.glob("set.*"))
    talvern.add(tmp_path / "set.001", [CORPUS / "asyoulik.txt"])
    run_tool("test", "--quiet", str(tmp_path / "set.000"))
    with talvern.open(tmp_path / "set") as a:
        assert a.namelist()[-1] == "asyoulik.txt"
        assert a.read("asyoulik.txt") == (CORPUS / "asyoulik.txt").read_bytes()
        assert a.read("kppkn.gtb") == (tree / "kppkn.gtb").read_bytes()


def test_progress_and_cancellation(tree: Path, tmp_path: Path) -> None:
    calls = []
    talvern.create(tmp_path / "t.arc", tree,
                   progress=lambda *args: calls.append(args))
    jobs = [c[3] for c in calls]
    assert jobs == sorted(jobs) and calls[-1][3] == calls[-1][4] == sum(
        p.stat().st_size for p in tree.rglob("*") if p.is_file())
    assert all(c[1] <= c[2] for c in calls)

    def stop_at_images(name, entry_done, entry_total, job_done, job_total):
        return not name.startswith("images")

    with pytest.raises(talvern.TalvernError) as error:
        talvern.create(tmp_path / "cancelled.arc", tree, progress=stop_at_images)
    assert error.value.code == talvern.ERROR_CANCELLED
    assert not (tmp_path / "cancelled.arc").exists()

    def broken(*args):
        raise RuntimeError("from the callback")

    with talvern.open(tmp_path / "t.arc", progress=broken) as a:
        with pytest.raises(RuntimeError, match="from the callback"):
            a.extractall(tmp_path / "out")


def test_overwrite_answers(tree: Path, tmp_path: Path) -> None:
    archive = tmp_path / "t.arc"
    talvern.create(archive, tree)
    target = tmp_path / "out"
    (target).mkdir()
    (target / "alice29.txt").write_text("mine")
    asked = []
    with talvern.open(archive, overwrite=lambda path, info: asked.append(path) or "skip") as a:
        a.extractall(target)
    assert asked == [str(target / "alice29.txt")]
    assert (target / "alice29.txt").read_text() == "mine"
    with talvern.open(archive, overwrite=lambda path, info: "cancel") as a:
        with pytest.raises(talvern.TalvernError) as error:
            a.extract("alice29.txt", target)
    assert error.value.code == talvern.ERROR_CANCELLED


def test_shutil_formats(tree: Path, tmp_path: Path) -> None:
    made = shutil.make_archive(str(tmp_path / "made"), "talvern", root_dir=tree)
    assert made == str(tmp_path / "made.arc")
    shutil.unpack_archive(made, tmp_path / "unpacked")
    assert same_tree(tree, tmp_path / "unpacked")


def test_damaged_archives(tree: Path, tmp_path: Path) -> None:
    archive = tmp_path / "t.arc"
    talvern.create(archive, tree, store=True)
    data = bytearray(archive.read_bytes())
    with talvern.open(archive) as a:
        info = a.getinfo("kppkn.gtb")
    start = data.find((tree / "kppkn.gtb").read_bytes()[:64])
    data[start + info.size // 2] ^= 0xFF
    archive.write_bytes(data)
    with talvern.open(archive) as a:
        with pytest.raises(talvern.TalvernError) as error:
            a.test()
        assert (error.value.code, error.value.name) == (talvern.ERROR_CRC, "kppkn.gtb")
        with pytest.raises(talvern.TalvernError):
            a.read("kppkn.gtb")

    archive.write_bytes(data[: len(data) // 2])  # cut short: a record lies beyond the end
    with pytest.raises(talvern.TalvernError):
        talvern.open(archive)
    (tmp_path / "other.arc").write_bytes(b"PK\x03\x04" + bytes(100))
    with pytest.raises(talvern.TalvernError) as error:
        talvern.open(tmp_path / "other.arc")
    assert error.value.code == talvern.ERROR_NOT_AN_ARCHIVE and "1804" in str(error.value)


def test_one_shot_blocks() -> None:
    data = (CORPUS / "alice29.txt").read_bytes()
    block = talvern.compress(data)
    assert block[:2] == b"CM" and len(block) < len(data)
    assert talvern.expand(block) == data
    assert talvern.expand(talvern.compress(b"", store=True)) == b""
    with pytest.raises(talvern.TalvernError) as error:
        talvern.expand(b"not a block at all")
    assert error.value.code == 13
