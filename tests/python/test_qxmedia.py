"""The Python module driven end to end: open, plan, convert, cancel, tags, errors."""

import shutil
import subprocess
import threading

import pytest

import qxmedia


def test_movie_shows_tracks_chapters_and_tags(source):
    movie = qxmedia.Movie(source)
    video, audio = movie.tracks
    assert (video.kind, video.format, video.width, video.height) == ("video", "H.264", 320, 240)
    assert video.frame_rate == pytest.approx(25)
    assert (audio.kind, audio.channels, audio.sample_rate) == ("audio", 2, 48000)
    assert movie.duration == pytest.approx(4, abs=0.1)
    assert movie.chapters == [qxmedia.Chapter("Opening", 0), qxmedia.Chapter("Middle", 2)]
    assert movie.tags["name"] == "Sample Title"


# preset, encode video, kind left out of the plan, actions planned, kinds written
CONVERSIONS = [
    ("Passthrough", False, None, ["copy", "copy"], ["video", "audio"]),
    ("Passthrough", False, "audio", ["copy"], ["video"]),
    ("QXPresetApple480p", True, "video", ["copy"], ["audio"]),
    ("QXPresetApple480p", True, None, ["encode", "copy"], ["video", "audio"]),
]


@pytest.mark.parametrize("preset_name, encode, dropped, actions, kinds", CONVERSIONS)
def test_conversion_follows_the_edited_plan(source, tmp_path, preset_name, encode, dropped, actions, kinds):
    preset = qxmedia.Preset(preset_name).copy()
    preset.require_encode = encode
    job = qxmedia.Job(qxmedia.Movie(source), preset, tmp_path / "out.m4v")
    for line in job.plan:
        if line.source.kind == dropped:
            job.remove(line)
    assert [line.action for line in job.plan] == actions
    job.set_tag("name", "Python Title")
    job.chapters = [qxmedia.Chapter("One", 0), qxmedia.Chapter("Two", 1.5)]
    seen = []
    job.run(progress=seen.append, interval=0.05)

    assert job.status == "finished"
    assert seen == sorted(seen) and seen[-1] == 1.0
    output = qxmedia.Movie(tmp_path / "out.m4v")
    assert [track.kind for track in output.tracks if track.kind != "other"] == kinds
    assert output.duration == pytest.approx(4, abs=0.2)
    assert qxmedia.read_tags(output.path)["name"] == "Python Title"
    if "video" in kinds:
        assert [chapter.title for chapter in output.chapters] == ["One", "Two"]
    with pytest.raises(ValueError):
        job.run()


def cancel_from_thread(job, fraction):
    if fraction > 0:
        threading.Thread(target=job.cancel).start()


def cancel_in_callback(job, fraction):
    if fraction > 0:
        job.cancel()


class Stop(Exception):
    pass


def raise_in_callback(job, fraction):
    if fraction > 0:
        raise Stop()


@pytest.mark.parametrize("cancel, raised", [
    (cancel_from_thread, qxmedia.Cancelled),
    (cancel_in_callback, qxmedia.Cancelled),
    (raise_in_callback, Stop),
])
def test_a_cancelled_run_raises_and_leaves_no_file(long_source, tmp_path, cancel, raised):
    preset = qxmedia.Preset("QXPresetApple720p")
    job = qxmedia.Job(qxmedia.Movie(long_source), preset, tmp_path / "out.m4v")
    assert "encode" in [line.action for line in job.plan]
    fractions = []

    def progress(fraction):
        fractions.append(fraction)
        cancel(job, fraction)

    with pytest.raises(raised) as caught:
        job.run(progress=progress, interval=0.05)
    assert job.status == "cancelled"
    assert fractions[-1] < 0.9
    if raised is qxmedia.Cancelled:
        assert caught.value.name == "UserCancelled"
    assert list(tmp_path.iterdir()) == []


def atomic_parsley_tags(path):
    listing = subprocess.run(["AtomicParsley", str(path), "-t"], capture_output=True, check=True)
    return {line.split('"')[1]: line.split(" contains: ", 1)[1]
            for line in listing.stdout.decode("utf-8-sig").splitlines() if line.startswith("Atom ")}


def test_tags_are_edited_in_place(mp4_source, tmp_path):
    path = tmp_path / "tags.mp4"
    shutil.copy(mp4_source, path)
    assert qxmedia.read_tags(path)["comments"] == "remove me"
    before = qxmedia.Movie(path).duration

    qxmedia.write_tags(path, {"name": "Über Title", "artist": "Somebody", "track": (3, 12),
                              "tv_season": 2, "compilation": True, "comments": None})

    expected = {"name": "Über Title", "artist": "Somebody", "track": (3, 12), "tv_season": 2, "compilation": True}
    assert {key: value for key, value in qxmedia.read_tags(path).items() if key in expected} == expected
    assert "comments" not in qxmedia.read_tags(path)
    atoms = atomic_parsley_tags(path)
    assert atoms["©nam"] == "Über Title"
    assert atoms["©ART"] == "Somebody"
    assert atoms["trkn"] == "3 of 12"
    assert atoms["tvsn"] == "2"
    assert atoms["cpil"] == "true"
    assert "©cmt" not in atoms
    assert qxmedia.Movie(path).duration == before


def test_library_files_a_converted_movie_and_finds_it_again(mp4_source, tmp_path):
    path = tmp_path / "library.m4v"
    shutil.copy(mp4_source, path)
    qxmedia.write_tags(path, {"name": "Library Title"})
    library = qxmedia.Library("tv")

    added = library.add(path, copy=False)

    assert added.location == path and added.tags["name"] == "Library Title"
    assert library.track(added.persistent_id).location == path
    assert added.persistent_id in [track.persistent_id for track in library.tracks()]
    library.remove(added.persistent_id)
    with pytest.raises(KeyError):
        library.track(added.persistent_id)
    assert path.exists()


def open_missing(tmp_path, source):
    qxmedia.Movie(tmp_path / "missing.mkv")


def open_text(tmp_path, source):
    (tmp_path / "notes.mkv").write_text("not a movie\n" * 100)
    qxmedia.Movie(tmp_path / "notes.mkv")


def read_tags_of_matroska(tmp_path, source):
    qxmedia.read_tags(source)


def convert_below_a_file(tmp_path, source):
    (tmp_path / "file").touch()
    qxmedia.Job(qxmedia.Movie(source), "Passthrough", tmp_path / "file" / "out.m4v").run()


# action, exception, code name (framework errors only)
ERRORS = [
    (open_missing, qxmedia.Error, "AVERROR(ENOENT)"),
    (open_text, qxmedia.Error, "AVERROR_INVALIDDATA"),
    (read_tags_of_matroska, qxmedia.Error, "FailedToOpenFile"),
    (convert_below_a_file, qxmedia.Error, "FileWriteFileExists"),
    (lambda tmp_path, source: qxmedia.Preset("no such preset"), ValueError, None),
    (lambda tmp_path, source: qxmedia.write_tags(source, {"titel": "x"}), KeyError, None),
    (lambda tmp_path, source: qxmedia.write_tags(source, {"tv_season": "2"}), TypeError, None),
    (lambda tmp_path, source: qxmedia.write_tags(source, {"tempo": 70000}), ValueError, None),
    (lambda tmp_path, source: qxmedia.Job(qxmedia.Movie(source), "Passthrough", source).run(), ValueError, None),
]


@pytest.mark.parametrize("action, exception, name", ERRORS)
def test_errors_are_exceptions_with_the_code_name(tmp_path, source, action, exception, name):
    with pytest.raises(exception) as caught:
        action(tmp_path, source)
    if name:
        assert caught.value.name == name
        assert str(caught.value).startswith(f"{name} ({caught.value.code}): ")
