"""Generated media for the binding tests, made once per build folder."""

import os
import pathlib
import subprocess
import tempfile

import pytest

MEDIA = pathlib.Path(os.environ.get("QX_TEST_TMP", tempfile.gettempdir())) / "python"
# A cancelled run moves its partial file to the trash: keep that inside the build.
os.environ.setdefault("XDG_DATA_HOME", str(MEDIA / "data-home"))

CHAPTERS = ";FFMETADATA1\n" + "".join(
    f"[CHAPTER]\nTIMEBASE=1/1000\nSTART={start}\nEND={end}\ntitle={title}\n"
    for start, end, title in [(0, 2000, "Opening"), (2000, 4000, "Middle")])


def generate(name, *arguments, text=None):
    """Makes MEDIA/name with ffmpeg unless it is there; `text` becomes input 0."""
    path = MEDIA / name
    if not path.exists():
        MEDIA.mkdir(parents=True, exist_ok=True)
        inputs = []
        if text is not None:
            (MEDIA / (name + ".txt")).write_text(text)
            inputs = ["-f", "ffmetadata", "-i", str(MEDIA / (name + ".txt"))]
        partial = path.with_name("partial-" + name)
        subprocess.run(["ffmpeg", "-y", "-v", "error", *inputs, *arguments, str(partial)], check=True)
        partial.rename(path)
    return path


def av_inputs(seconds, size):
    return ["-f", "lavfi", "-i", f"testsrc=duration={seconds}:size={size}:rate=25",
            "-f", "lavfi", "-i", f"sine=frequency=440:duration={seconds}:sample_rate=48000"]


@pytest.fixture(scope="session")
def source():
    """Four seconds of H.264 and stereo AAC in Matroska, with tags and two chapters."""
    return generate("source.mkv", *av_inputs(4, "320x240"), "-map", "1:v", "-map", "2:a",
                    "-map_metadata", "0", "-map_chapters", "0", "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p",
                    "-c:a", "aac", "-ac", "2", "-metadata", "title=Sample Title",
                    text=CHAPTERS)


@pytest.fixture(scope="session")
def long_source():
    """A minute of MPEG-4 part 2 video: every preset must encode it, which takes a while."""
    return generate("long.avi", *av_inputs(60, "640x480"), "-c:v", "mpeg4", "-q:v", "5", "-c:a", "mp3")


@pytest.fixture(scope="session")
def mp4_source(source):
    return generate("source.mp4", "-i", str(source), "-c", "copy", "-metadata", "comment=remove me")
