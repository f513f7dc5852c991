#!/usr/bin/env python3
"""The --json objects against ffprobe and ExifTool: a small corpus of movies
made with ffmpeg (several codecs, sizes and frame rates, 4-channel AAC, PCM
in QuickTime, fragmented, a turned track matrix, QuickTime and 3GPP
locations, a model, a creation time, spherical video V1 and V2 written into
the boxes here) and the real-world files, read by all three; every value
that both sides report must agree, except for the differences docs/json.md
lists.

    SONDEX=PROGRAM SONDEX_SOURCE_DIR=DIR python3 test_json_agreement.py

Skips (exit status 77) when ffmpeg, ffprobe or exiftool is missing.
"""

import json
import math
import os
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest
import uuid

SOURCE = os.environ.get("SONDEX_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))
SONDEX = os.path.abspath(os.environ.get("SONDEX", os.path.join(SOURCE, "build", "cli", "sondex")))
REALWORLD = os.path.join(SOURCE, "tests", "data", "realworld")
TOOLS = ("ffmpeg", "ffprobe", "exiftool")
MISSING = [tool for tool in TOOLS if shutil.which(tool) is None]

# ffprobe spends 15-40 s of CPU opening this damaged movie (a flipped byte
# turned its video track header's type into "tkh<"); only ExifTool reads it.
FFPROBE_TOO_SLOW = {"fragmented-flipped.mp4"}

SPHERICAL_V1_UUID = uuid.UUID("ffcc8263-f855-4a93-8814-587a02521fdd").bytes
# In the layout the camera writes (an element a line, indented two blanks),
# which the result line's GSpherical members read.
SPHERICAL_XML = "".join(line + "\n" for line in [
    '<?xml version="1.0"?>',
    '<rdf:SphericalVideo xmlns:rdf="http://www.w3.org/1999/02/22-rdf-syntax-ns#"'
    ' xmlns:GSpherical="http://ns.google.com/videos/1.0/spherical/">',
    "  <GSpherical:Spherical>true</GSpherical:Spherical>",
    "  <GSpherical:Stitched>true</GSpherical:Stitched>",
    "  <GSpherical:StitchingSoftware>Agreement Stitcher 1.0</GSpherical:StitchingSoftware>",
    "  <GSpherical:ProjectionType>equirectangular</GSpherical:ProjectionType>",
    "  <GSpherical:SourceCount>2</GSpherical:SourceCount>",
    "  <GSpherical:InitialViewHeadingDegrees>90</GSpherical:InitialViewHeadingDegrees>",
    "  <GSpherical:InitialViewPitchDegrees>-10</GSpherical:InitialViewPitchDegrees>",
    "  <GSpherical:InitialViewRollDegrees>5</GSpherical:InitialViewRollDegrees>",
    "  <GSpherical:InitialHorizontalFOVDegrees>75</GSpherical:InitialHorizontalFOVDegrees>",
    "  <GSpherical:InitialCameraDolly>0.25</GSpherical:InitialCameraDolly>",
    "  <GSpherical:FullPanoWidthPixels>160</GSpherical:FullPanoWidthPixels>",
    "  <GSpherical:FullPanoHeightPixels>80</GSpherical:FullPanoHeightPixels>",
    "  <GSpherical:CroppedAreaImageWidthPixels>160</GSpherical:CroppedAreaImageWidthPixels>",
    "  <GSpherical:CroppedAreaImageHeightPixels>80</GSpherical:CroppedAreaImageHeightPixels>",
    "  <GSpherical:CroppedAreaLeftPixels>0</GSpherical:CroppedAreaLeftPixels>",
    "  <GSpherical:CroppedAreaTopPixels>0</GSpherical:CroppedAreaTopPixels>",
    "</rdf:SphericalVideo>"])

# --- A small box editor ----------------------------------------------------

def boxes(data, start, end):
    """(type, start, header length, size) of the boxes between start and end."""
    at = start
    while end - at >= 8:
        size, kind = struct.unpack(">I4s", data[at:at + 8])
        header = 8
        if size == 1:
            size, header = struct.unpack(">Q", data[at + 8:at + 16])[0], 16
        elif size == 0:
            size = end - at
        assert header <= size <= end - at, (kind, at, size)
        yield kind, at, header, size
        at += size


def box_path(data, path):
    """The chain of boxes (start, header) down the dotted path, taking the
    first box of each name; an stsd's first sample entry is "stsd.*"."""
    chain, start, end = [], 0, len(data)
    for name in path.split("."):
        if name == "*":
            found = next(boxes(data, start, end))
        else:
            found = next(b for b in boxes(data, start, end) if b[0] == name.encode())
        _, at, header, size = found
        chain.append((at, header))
        start, end = at + header, at + size
        if found[0] == b"stsd":
            start += 8  # version, flags, entry count
    return chain


def insert_into(data, path, payload):
    """data with payload appended at the end of the box the path names, every
    enclosing box grown to hold it."""
    data = bytearray(data)
    chain = box_path(data, path)
    at, header = chain[-1]
    size_field = slice(at + 8, at + 16) if header == 16 else slice(at, at + 4)
    end = at + int.from_bytes(data[size_field], "big")
    # The movie box follows the media data, so no chunk offset moves.
    moov = box_path(data, "moov")[0][0]
    assert all(kind != b"mdat" or start < moov for kind, start, _, _ in boxes(data, 0, len(data))), "moov before mdat"
    data[end:end] = payload
    for start, head in chain:
        field = slice(start + 8, start + 16) if head == 16 else slice(start, start + 4)
        grown = int.from_bytes(data[field], "big") + len(payload)
        data[field] = grown.to_bytes(field.stop - field.start, "big")
    return bytes(data)


def box(kind, body, version_flags=None):
    if version_flags is not None:
        body = struct.pack(">I", version_flags) + body
    return struct.pack(">I4s", 8 + len(body), kind) + body


def fixed16(value):
    return struct.pack(">i", round(value * 65536))


def spherical_v1(data):
    return insert_into(data, "moov.trak", box(b"uuid", SPHERICAL_V1_UUID + SPHERICAL_XML.encode()))


def spherical_v2(data):
    # Stereo top-bottom; yaw 30.5, pitch -15.25, roll 2 degrees; bounds of
    # 2^32 parts: an eighth off the top, a sixteenth off the bottom, a
    # quarter off the left, none off the right.
    st3d = box(b"st3d", bytes([1]), 0)
    svhd = box(b"svhd", b"Agreement injector\0", 0)
    prhd = box(b"prhd", fixed16(30.5) + fixed16(-15.25) + fixed16(2), 0)
    equi = box(b"equi", struct.pack(">4I", 1 << 29, 1 << 28, 1 << 30, 0), 0)
    sv3d = box(b"sv3d", svhd + box(b"proj", prhd + equi))
    return insert_into(data, "moov.trak.mdia.minf.stbl.stsd.*", st3d + sv3d)


def rotated(data):
    """The video track header's matrix turned a quarter clockwise."""
    data = bytearray(data)
    at = box_path(data, "moov.trak.tkhd")[-1][0]
    matrix = at + 8 + 4 + 20 + 16  # header, version and flags, times, id, duration; reserved, layer, volume
    data[matrix:matrix + 20] = bytes.fromhex("00000000 00010000 00000000 FFFF0000 00000000".replace(" ", ""))
    return bytes(data)


# --- The corpus -------------------------------------------------------------

def lavfi(size="160x120", rate="25", channels=None):
    arguments = ["-f", "lavfi", "-i", f"testsrc=size={size}:rate={rate}:duration=1"]
    if channels:
        arguments += ["-f", "lavfi", "-i", "sine=frequency=440:duration=1", "-ac", str(channels)]
    return arguments


H264 = ["-c:v", "libx264", "-pix_fmt", "yuv420p"]

# name: (ffmpeg arguments before the output, edit of the bytes written or None)
CORPUS = {
    "h264-baseline.mp4": (lavfi(channels=2) + H264 + ["-profile:v", "baseline", "-c:a", "aac"], None),
    "h264-main.mp4": (lavfi("176x144", "30000/1001") + H264 + ["-profile:v", "main", "-level", "3.0"], None),
    "h264-high.mp4": (lavfi("128x96", "15", channels=1) + H264 +
                      ["-profile:v", "high", "-c:a", "aac", "-metadata", "creation_time=2019-07-25T10:20:30Z"], None),
    "hevc.mp4": (lavfi("128x96", "24") + ["-c:v", "libx265", "-tag:v", "hvc1", "-x265-params", "log-level=none"],
                 None),
    "mpeg4.mp4": (lavfi("160x120", "10", channels=2) + ["-c:v", "mpeg4", "-c:a", "aac", "-b:a", "64k"], None),
    "aac-4ch.mp4": (lavfi("96x64", "25", channels=4) + H264 + ["-c:a", "aac", "-ar", "48000"], None),
    "pcm.mov": (lavfi("96x64", "25", channels=2) + H264 + ["-c:a", "pcm_s16le"], None),
    "fragmented.mp4": (lavfi(channels=2) + H264 + ["-g", "5", "-c:a", "aac", "-movflags", "frag_keyframe+empty_moov"],
                       None),
    "fragmented-base.mp4": (lavfi() + H264 + ["-g", "5", "-movflags", "frag_keyframe+empty_moov+default_base_moof"],
                            None),
    "quicktime.mov": (lavfi() + H264 + ["-metadata", "location=+35.6895+139.6917+040.000/",
                                        "-metadata", "model=Agreement Cam",
                                        "-metadata", "creation_time=2021-03-04T05:06:07Z"], None),
    "loci.mp4": (lavfi() + H264 + ["-metadata", "location=-33.8568+151.2153+012.500/"], None),
    "rotated.mp4": (lavfi() + H264, rotated),
    "spherical-v1.mp4": (lavfi("160x80") + H264, spherical_v1),
    "spherical-v2.mp4": (lavfi("160x160") + H264, spherical_v2),
}


def make_corpus(folder):
    for name, (arguments, edit) in CORPUS.items():
        path = os.path.join(folder, name)
        subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-y"] + arguments +
                       ["-threads", "1", "-shortest", "-fflags", "+bitexact", path], check=True)
        if edit:
            with open(path, "rb") as f:
                data = edit(f.read())
            with open(path, "wb") as f:
                f.write(data)
    return [os.path.join(folder, name) for name in CORPUS]


def real_world_files():
    return sorted(os.path.join(REALWORLD, name) for name in os.listdir(REALWORLD) if name != "README.md")


# --- The three readings -----------------------------------------------------

def read_sondex(paths):
    run = subprocess.run([SONDEX, "--json", "-q"] + paths, capture_output=True, check=False)
    lines = run.stdout.decode().splitlines()
    assert len(lines) == len(paths), run.stderr
    return {path: json.loads(line) for path, line in zip(paths, lines)}


def read_ffprobe(path):
    run = subprocess.run(["ffprobe", "-v", "error", "-show_format", "-show_streams", "-of", "json", path],
                         capture_output=True, check=True)
    return json.loads(run.stdout)


def read_exiftool(paths):
    run = subprocess.run(["exiftool", "-j", "-n", "-a", "-G1"] + paths,
                         capture_output=True, check=False)
    return {os.path.abspath(entry["SourceFile"]): entry for entry in json.loads(run.stdout)}


# --- The comparisons ---------------------------------------------------------

H264_PROFILES = {66: "Baseline", 77: "Main", 88: "Extended", 100: "High", 110: "High 10", 122: "High 4:2:2",
                 244: "High 4:4:4 Predictive"}
# st3d's modes as ffprobe's "Stereo 3D" side data and ExifTool's number name them.
STEREO_MODES = {"mono": ("2D", 0), "top-bottom": ("top and bottom", 1), "left-right": ("side by side", 2)}


def exact(ours, theirs):
    return ours == theirs


def within(tolerance):
    return lambda ours, theirs: ours is not None and theirs is not None and abs(ours - theirs) <= tolerance


def bit_rate(ours, theirs):
    """ffprobe and ExifTool give a whole number of bits per second."""
    return ours is not None and abs(ours - theirs) <= max(1, theirs * 1e-3)


def relative(ours, theirs):
    return ours is not None and math.isclose(ours, theirs, rel_tol=1e-9)


def ratio(text):
    numerator, _, denominator = text.partition("/")
    return float(numerator) / float(denominator or 1)


def iso6709(text):
    """Latitude, longitude, altitude of a text like "-33.8568+151.2153+12.500000/"."""
    numbers, at = [], 0
    body = text.rstrip("/")
    while at < len(body):
        end = at + 1
        while end < len(body) and body[end] not in "+-":
            end += 1
        numbers.append(float(body[at:end]))
        at = end
    return numbers + [None] * (3 - len(numbers))


def tile_bounds(bounds, width, height):
    """ffprobe's bounds in pixels: the coded picture taken as the tile of a
    larger picture, as libavutil computes them from the box's fractions."""
    full = 0xFFFFFFFF
    parts = {key: round(value * 2 ** 32) for key, value in bounds.items()}
    whole_width = width * full // (full - parts["right"] - parts["left"])
    whole_height = height * full // (full - parts["bottom"] - parts["top"])
    left = (whole_width * parts["left"] + full - 1) // full
    top = (whole_height * parts["top"] + full - 1) // full
    return {"left": left, "top": top, "right": whole_width - width - left, "bottom": whole_height - height - top}


class Comparison:
    def __init__(self):
        self.rows = []  # (file, what, ours, theirs, agrees)

    def __call__(self, file, what, ours, theirs, agree=exact):
        self.rows.append((file, what, ours, theirs, bool(agree(ours, theirs))))

    def disagreements(self):
        return [row for row in self.rows if not row[4]]


def side_data(stream, kind):
    return next((d for d in stream.get("side_data_list", []) if d.get("side_data_type") == kind), None)


def compare_ffprobe(check, name, ours, probe):
    video = ours["video"]
    streams = probe["streams"]
    stream = next(s for s in streams if s["codec_type"] == "video")
    what = lambda key: "ffprobe " + key
    check(name, what("codec_name"), video["codec"], stream["codec_name"])
    check(name, what("coded_width"), video["codedWidth"], stream["coded_width"])
    check(name, what("coded_height"), video["codedHeight"], stream["coded_height"])
    check(name, what("avg_frame_rate"), video["frameRate"], ratio(stream["avg_frame_rate"]), relative)
    if ours["fragmented"] is None:
        check(name, what("duration"), video["duration"], float(stream["duration"]), within(1e-3))
        check(name, what("bit_rate"), video["bitRate"], int(stream["bit_rate"]), bit_rate)
    else:
        # The media header of a fragmented movie holds no duration: ours
        # from the fragments is in "fragmented" (docs/json.md).
        check(name, what("duration (fragments)"), ours["fragmented"]["duration"], float(stream["duration"]),
              within(1e-3))
    if video["codec"] == "h264":
        profile = H264_PROFILES.get(video["profileIdc"])
        if video["profileIdc"] == 66 and video["constrained_set1_flag"]:
            profile = "Constrained Baseline"
        check(name, what("profile"), profile, stream["profile"])
        check(name, what("level"), video["levelIdc"], stream["level"])
    matrix = side_data(stream, "Display Matrix")
    check(name, what("displaymatrix rotation"), video["rotation"], matrix["rotation"] if matrix else 0)

    audio = [track for track in ours["audio"] if not track["cameraSpatial"]]
    sounds = [s for s in streams if s["codec_type"] == "audio"]
    check(name, what("audio streams"), len(audio), len(sounds))
    for index, (track, sound) in enumerate(zip(audio, sounds)):
        check(name, what(f"audio {index} codec_name"), track["codec"], sound["codec_name"])
        check(name, what(f"audio {index} channels"), track["channels"], sound["channels"])
        check(name, what(f"audio {index} sample_rate"), track["sampleRate"], float(sound["sample_rate"]))

    tags = probe["format"].get("tags", {})
    location = ours["location"]
    if location["quicktime"] is not None or "location" in tags and location["loci"] is None:
        check(name, what("location"), location["quicktime"], tags.get("location"))
    elif location["loci"] is not None:
        # ffprobe writes the 3GPP box as text with four decimals (docs/json.md).
        latitude, longitude, altitude = iso6709(tags["location"])
        loci = location["loci"]
        check(name, what("location latitude (loci)"), loci["latitude"], latitude, within(5e-5))
        check(name, what("location longitude (loci)"), loci["longitude"], longitude, within(5e-5))
        check(name, what("location altitude (loci)"), loci["altitude"], altitude, within(1e-6))
    check(name, what("creation_time"), ours["creationTime"], tags.get("creation_time"))
    check(name, what("model"), ours["identity"]["quicktimeModel"], tags.get("model"))

    spherical = side_data(stream, "Spherical Mapping")
    v1, v2 = ours["sphericalV1"], ours["sphericalV2"]
    check(name, what("Spherical Mapping present"), v1 is not None or v2 is not None and v2["projection"] is not None,
          spherical is not None)
    if spherical and v2 and v2["projection"]:
        bounds = v2["bounds"]
        tiled = bounds is not None and any(bounds.values())
        # ffprobe calls an equirectangular picture with bounds "tiled".
        check(name, what("projection"), ("tiled " if tiled else "") + v2["projection"], spherical["projection"])
        for key in ("yaw", "pitch", "roll"):
            # ffprobe drops the fractions of the 16.16 degrees (docs/json.md).
            check(name, what(key), math.trunc(v2["pose"][key]), spherical[key])
        if tiled:
            pixels = tile_bounds(bounds, video["codedWidth"], video["codedHeight"])
            for key in ("left", "top", "right", "bottom"):
                check(name, what("bound_" + key), pixels[key], spherical["bound_" + key])
    elif spherical:
        # ffprobe takes only the projection from the V1 XML; its pose stays 0
        # whatever the initial view, so that is not compared.
        check(name, what("projection (V1)"), ours["projection"]["type"], spherical["projection"])
    stereo = side_data(stream, "Stereo 3D")
    mode = v2["stereoMode"] if v2 else None
    check(name, what("Stereo 3D type"), STEREO_MODES.get(mode, (mode,))[0], stereo["type"] if stereo else None)


def track_groups(tags, entry_tag):
    """The ExifTool groups (Track1, Track2...) of the tracks whose sample
    entry gives the tag (CompressorID: video, AudioFormat: sound), in file
    order. (Not by handler type: in a QuickTime file the data handler's
    comes last and is the one ExifTool keeps.)"""
    groups = sorted({key.split(":")[0] for key in tags if key.startswith("Track")}, key=lambda g: int(g[5:]))
    return [group for group in groups if group + ":" + entry_tag in tags]


def compare_exiftool(check, name, ours, tags):
    what = lambda key: "exiftool " + key
    video = ours["video"]
    check(name, what("QuickTime:Duration"), ours["duration"], tags.get("QuickTime:Duration"), within(1e-3))
    [group] = track_groups(tags, "CompressorID")
    tag = lambda key: tags.get(group + ":" + key)
    check(name, what("CompressorID"), video["sampleEntry"], tag("CompressorID"))
    check(name, what("ImageWidth"), video["displayWidth"], tag("ImageWidth"))
    check(name, what("ImageHeight"), video["displayHeight"], tag("ImageHeight"))
    check(name, what("ImageWidth (result line)"), ours["frameWidth"], tag("ImageWidth"))
    check(name, what("ImageHeight (result line)"), ours["frameHeight"], tag("ImageHeight"))
    check(name, what("MediaDuration"), video["duration"], tag("MediaDuration"), within(1e-3))
    if tag("VideoFrameRate") is not None:  # not for a fragmented movie: its sample table is empty
        check(name, what("VideoFrameRate"), video["frameRate"], tag("VideoFrameRate"), relative)
    if tag("AverageBitrate") is not None:  # the rate the muxer wrote in btrt
        check(name, what("AverageBitrate"), video["bitRate"], tag("AverageBitrate"), bit_rate)
    check(name, what("Composite:Rotation"), -video["rotation"] % 360, tags.get("Composite:Rotation"))

    audio = [track for track in ours["audio"] if not track["cameraSpatial"]]
    sounds = track_groups(tags, "AudioFormat")
    check(name, what("sound tracks"), len(audio), len(sounds))
    for index, (track, group) in enumerate(zip(audio, sounds)):
        tag = lambda key: tags.get(group + ":" + key)
        check(name, what(f"audio {index} AudioFormat"), track["sampleEntry"], tag("AudioFormat"))
        check(name, what(f"audio {index} AudioSampleRate"), track["sampleRate"], tag("AudioSampleRate"))
        check(name, what(f"audio {index} AudioBitsPerSample"), track["sampleSize"], tag("AudioBitsPerSample"))
        if track["codec"] != "aac":
            # ExifTool gives the sample entry's count, which an ISO file
            # holds at two for AAC whatever the stream carries; ours (as
            # ffprobe's) is the AAC configuration's.
            check(name, what(f"audio {index} AudioChannels"), track["channels"], tag("AudioChannels"))

    created = ours["creationTime"]
    check(name, what("QuickTime:CreateDate"),
          created[:19].replace("-", ":").replace("T", " ") if created else "0000:00:00 00:00:00",
          tags.get("QuickTime:CreateDate"))
    check(name, what("UserData:Model"), ours["identity"]["quicktimeModel"], tags.get("UserData:Model"))
    location = ours["location"]
    # ExifTool rounds the 3GPP box's values to five decimals (docs/json.md).
    degrees = within(5e-6) if location["loci"] and not location["quicktime"] else within(1e-9)
    altitude = tags.get("Composite:GPSAltitude")
    if altitude is not None and tags.get("Composite:GPSAltitudeRef") == 1:
        altitude = -altitude
    for key, theirs, agree in (("GPSLatitude", tags.get("Composite:GPSLatitude"), degrees),
                               ("GPSLongitude", tags.get("Composite:GPSLongitude"), degrees),
                               ("GPSAltitude", altitude, within(1e-6))):
        value = location[key[3:].lower()]
        check(name, what("Composite:" + key), value, theirs, agree if value is not None else exact)

    v1 = ours["sphericalV1"] or {}
    xmp = {key.split(":", 1)[1]: value for key, value in tags.items() if key.startswith("XMP-GSpherical:")}
    check(name, what("XMP-GSpherical elements"), sorted(v1), sorted(xmp))
    for element, value in v1.items():
        check(name, what("XMP-GSpherical:" + element), value, xmp.get(element))
    for element in ("InitialViewHeadingDegrees", "InitialViewPitchDegrees", "InitialHorizontalFOVDegrees",
                    "InitialCameraDolly", "StitchingSoftware"):
        check(name, what(f"XMP-GSpherical:{element} (result line)"), ours["GSpherical:" + element], xmp.get(element))

    v2 = ours["sphericalV2"]
    tag = lambda key: tags.get(group + ":" + key)
    [group] = track_groups(tags, "CompressorID")
    if v2 is None:
        check(name, what("Stereoscopic3D"), None, tag("Stereoscopic3D"))
        check(name, what("PoseYawDegrees"), None, tag("PoseYawDegrees"))
        return
    mode = v2["stereoMode"]
    check(name, what("Stereoscopic3D"), STEREO_MODES.get(mode, (None, mode))[1], tag("Stereoscopic3D"))
    check(name, what("MetadataSource"), v2["metadataSource"], tag("MetadataSource"))
    for key in ("yaw", "pitch", "roll"):
        check(name, what(f"Pose{key.title()}Degrees"), v2["pose"][key], tag(f"Pose{key.title()}Degrees"))
    for key in ("top", "bottom", "left", "right"):
        check(name, what(f"ProjectionBounds{key.title()}"), v2["bounds"][key], tag(f"ProjectionBounds{key.title()}"))


# The real-world movies sondex refuses where the other tools read a track:
# the byte flipped in this one's video track header (tkhd) leaves the track
# without a header, which is what a video track is to sondex (docs/json.md).
REFUSED = {"fragmented-flipped.mp4": "no video track"}

# What the corpus must show in our objects, so that agreeing on nothing
# (both sides missing a value) cannot pass for agreeing.
EXPECTED = [
    ("h264-baseline.mp4", lambda o: (o["video"]["profileIdc"], o["video"]["constrained_set1_flag"]), (66, True)),
    ("h264-main.mp4", lambda o: (o["video"]["profileIdc"], o["video"]["levelIdc"]), (77, 30)),
    ("h264-main.mp4", lambda o: o["video"]["frameRate"], 30000 / 1001),
    ("h264-high.mp4", lambda o: (o["video"]["profileIdc"], o["audio"][0]["channels"]), (100, 1)),
    ("hevc.mp4", lambda o: (o["codec"], o["video"]["codec"], o["video"]["sampleEntry"]), ("H265", "hevc", "hvc1")),
    ("mpeg4.mp4", lambda o: o["video"]["codec"], "mpeg4"),
    ("aac-4ch.mp4", lambda o: [(a["codec"], a["channels"], a["sampleRate"]) for a in o["audio"]], [("aac", 4, 48000)]),
    ("pcm.mov", lambda o: [(a["sampleEntry"], a["codec"], a["channels"]) for a in o["audio"]],
     [("sowt", "pcm_s16le", 2)]),
    ("fragmented.mp4", lambda o: o["fragmented"]["source"], "fragments"),
    ("fragmented-base.mp4", lambda o: o["fragmented"]["duration"], 1),
    ("quicktime.mov", lambda o: (o["location"]["quicktime"], o["identity"]["quicktimeModel"], o["creationTime"]),
     ("+35.6895+139.6917+040.000/", "Agreement Cam", "2021-03-04T05:06:07.000000Z")),
    ("loci.mp4", lambda o: (o["location"]["loci"]["role"], o["location"]["altitude"]), ("shooting", 12.5)),
    ("rotated.mp4", lambda o: o["video"]["rotation"], -90),
    ("spherical-v1.mp4", lambda o: (len(o["sphericalV1"]), o["projection"]), (16, {"type": "equirectangular",
                                                                                  "source": "spherical v1"})),
    ("spherical-v2.mp4", lambda o: (o["sphericalV2"]["stereoMode"], o["sphericalV2"]["pose"]["yaw"]),
     ("top-bottom", 30.5)),
]


@unittest.skipIf(MISSING, "needs " + ", ".join(MISSING))
class AgreementWithFfprobeAndExifTool(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        paths = make_corpus(cls.folder.name) + real_world_files()
        cls.ours = {os.path.basename(path): value for path, value in read_sondex(paths).items()}
        exiftool = read_exiftool(paths)
        cls.exiftool = {os.path.basename(path): exiftool[os.path.abspath(path)] for path in paths}
        cls.ffprobe = {os.path.basename(path): read_ffprobe(path) for path in paths
                       if path.endswith((".mp4", ".mov")) and os.path.basename(path) not in FFPROBE_TOO_SLOW}

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def test_the_corpus_shows_what_it_was_made_for(self):
        for name, value, expected in EXPECTED:
            with self.subTest(name):
                self.assertEqual(value(self.ours[name]), expected)

    def test_every_value_both_report_agrees(self):
        check = Comparison()
        for name, ours in self.ours.items():
            if ours["status"] != "ok":
                continue
            if name in self.ffprobe:
                compare_ffprobe(check, name, ours, self.ffprobe[name])
            compare_exiftool(check, name, ours, self.exiftool[name])
        for file, what, mine, theirs, _ in check.disagreements():
            print(f"{file}: {what}: sondex {mine!r}, theirs {theirs!r}", file=sys.stderr)
        print(f"{len(check.rows)} values compared over {len(self.ours)} files", file=sys.stderr)
        self.assertEqual(check.disagreements(), [])
        self.assertGreater(len(check.rows), 25 * len(CORPUS))

    def test_real_world_files_read_or_refused_as_listed(self):
        for path in real_world_files():
            name = os.path.basename(path)
            ours = self.ours[name]
            if ours["kind"] == "movie" and name in REFUSED:
                # ExifTool does read the video track's sample entry.
                self.assertEqual((ours["status"], ours.get("error")), ("failed", REFUSED[name]))
                self.assertTrue(track_groups(self.exiftool[name], "CompressorID"))


if __name__ == "__main__":
    if MISSING:
        print("skipped: needs " + ", ".join(MISSING))
        sys.exit(77)
    unittest.main()
