#!/usr/bin/env python3
"""Plot a movie's gyro dump and its yaw into a PNG with gnuplot.

    python3 tools/plot_yaw.py GYRO.json GRAVITY.json OUT.png [TITLE]

GYRO.json is a gyro dump (sondex -kdtb:), GRAVITY.json the gravity dump with
its "yaw" values (sondex -kdtd:). The upper panel shows the three gyro rates,
the lower one the yaw in degrees, both over seconds from the first gyro
sample (timestamps are nanoseconds of the camera's clock). Needs gnuplot
(Debian's gnuplot-nox) and the Python standard library.
"""

import json
import math
import os
import subprocess
import sys
import tempfile


def load(path):
    with open(path, "rb") as f:
        return json.load(f)


def main(argv):
    if len(argv) not in (3, 4):
        print(__doc__.strip().splitlines()[2].strip(), file=sys.stderr)
        return 2
    gyro_path, gravity_path, png = argv[:3]
    title = argv[3] if len(argv) == 4 else os.path.basename(gyro_path)
    gyro = load(gyro_path)
    gravity = [s for s in load(gravity_path) if s.get("yaw") is not None]
    if not gyro or not gravity:
        print("plot_yaw: need gyro samples and gravity samples with yaw", file=sys.stderr)
        return 1
    t0 = gyro[0]["timestamp"]
    times = [s["timestamp"] for s in gyro + gravity]
    span = ((min(times) - t0) / 1e9, (max(times) - t0) / 1e9)

    with tempfile.TemporaryDirectory() as work:
        gyro_data = os.path.join(work, "gyro.dat")
        yaw_data = os.path.join(work, "yaw.dat")
        with open(gyro_data, "w") as f:
            for s in gyro:
                f.write("%.9f %r %r %r\n" % ((s["timestamp"] - t0) / 1e9, s["x"], s["y"], s["z"]))
        with open(yaw_data, "w") as f:
            for s in gravity:
                f.write("%.9f %r\n" % ((s["timestamp"] - t0) / 1e9, math.degrees(s["yaw"])))
        script = """
set terminal pngcairo size 900,600 font "DejaVu Sans,10"
set output '{png}'
set multiplot layout 2,1 title '{title}'
set grid
set lmargin 10
set rmargin 14
set xrange [{first}:{last}]
set offsets 0, 0, graph 0.1, graph 0.1
set key outside right
set xlabel 'seconds from the first gyro sample'
set ylabel 'rad/s'
set title 'gyro (KDTB)'
plot '{gyro}' using 1:2 with lines title 'x', '' using 1:3 with lines title 'y', '' using 1:4 with lines title 'z'
set ylabel 'degrees'
set title 'yaw per gravity sample (KDTD)'
plot '{yaw}' using 1:2 with linespoints pointtype 7 pointsize 0.4 title 'yaw'
unset multiplot
""".format(
            png=png.replace("'", "''"),
            title=title.replace("'", "''"),
            gyro=gyro_data,
            yaw=yaw_data,
            first=span[0],
            last=span[1],
        )
        subprocess.run(["gnuplot"], input=script.encode("utf-8"), check=True)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
