#!/usr/bin/python3
"""Writes bus-trip.nmea: a synthetic four-minute city bus trip at 1 Hz for the demo.

Two stops, cruising at up to 45 km/h, a tunnel where the fix is lost for half a minute and
comes back as 2D before 3D. Deterministic (fixed seed), so the file can be made again:

    demo/make-bus-trip.py > demo/bus-trip.nmea
"""

import math
import random
import sys

START = (47.378177, 8.540192)  # degrees north, east
DATE = "030625"
START_SECOND = 7 * 3600 + 42 * 60 + 10  # UTC
# (until second, target speed m/s, heading change degrees per second)
PLAN = [(20, 0, 0), (70, 11.5, 0.4), (92, 0, 0.2), (115, 0, 0), (205, 12.5, 0.25),
        (228, 0, 0), (240, 9.0, -0.8)]
TUNNEL = (138, 171)  # no fix inside
REACQUIRE_2D = 5  # seconds of 2D fix after the tunnel
SATELLITES = [  # PRN, elevation, azimuth, mean SNR
    (2, 64, 123, 44), (5, 41, 291, 41), (7, 23, 54, 36), (10, 70, 201, 46), (13, 12, 330, 27),
    (15, 35, 160, 39), (18, 28, 250, 37), (20, 8, 20, 22), (24, 51, 310, 43), (29, 52, 95, 42)]


def sentence(body):
    checksum = 0
    for ch in body:
        checksum ^= ord(ch)
    return "$%s*%02X" % (body, checksum)


def ddmm(value, width, positive, negative):
    hemisphere = positive if value >= 0 else negative
    value = abs(value)
    degrees = int(value)
    return "%0*d%07.4f" % (width, degrees, (value - degrees) * 60), hemisphere


def epoch(second, lat, lon, alt, speed, course, mode, rng):
    t = START_SECOND + second
    stamp = "%02d%02d%02d.00" % (t // 3600, t // 60 % 60, t % 60)
    in_view = [(p, e, (a + second // 30) % 360, max(0, round(s + rng.gauss(0, 2))))
               for p, e, a, s in SATELLITES]
    if mode == 1:
        in_view = [(p, e, a, 0) for p, e, a, s in in_view[:4]]
    used = [p for p, e, a, s in in_view if e > 15 and s > 30]
    if mode == 2:
        used = used[:3]
    hdop = 0.7 + 3.0 / max(len(used), 1) + rng.uniform(0, 0.15)
    vdop = hdop * 1.4
    pdop = math.hypot(hdop, vdop)
    out = []
    if mode == 1:
        out.append(sentence("GPGGA,%s,,,,,0,00,99.9,,M,,M,," % stamp))
        out.append(sentence("GPGSA,A,1,,,,,,,,,,,,,99.9,99.9,99.9"))
    else:
        la, ns = ddmm(lat, 2, "N", "S")
        lo, ew = ddmm(lon, 3, "E", "W")
        height = "%.1f" % alt if mode == 3 else ""
        out.append(sentence("GPGGA,%s,%s,%s,%s,%s,1,%02d,%.1f,%s,M,47.3,M,,"
                            % (stamp, la, ns, lo, ew, len(used), hdop, height)))
        prns = ["%02d" % p for p in used] + [""] * (12 - len(used))
        out.append(sentence("GPGSA,A,%d,%s,%.1f,%.1f,%.1f"
                            % (mode, ",".join(prns), pdop, hdop, vdop if mode == 3 else 0)))
    total = (len(in_view) + 3) // 4
    for i in range(total):
        part = in_view[i * 4:i * 4 + 4]
        fields = ",".join("%02d,%02d,%03d,%s" % (p, e, a, "%02d" % s if s else "")
                          for p, e, a, s in part)
        out.append(sentence("GPGSV,%d,%d,%02d,%s" % (total, i + 1, len(in_view), fields)))
    if mode == 1:
        out.append(sentence("GPRMC,%s,V,,,,,,,%s,,,N" % (stamp, DATE)))
    else:
        out.append(sentence("GPRMC,%s,A,%s,%s,%s,%s,%.1f,%.1f,%s,2.1,E,A"
                            % (stamp, la, ns, lo, ew, speed / 0.514444, course, DATE)))
    return out


def main():
    rng = random.Random(7)
    lat, lon = START
    alt, speed, heading = 408.0, 0.0, 28.0
    print("# Written for the tavro demo by demo/make-bus-trip.py: a synthetic city bus trip")
    print("# of four minutes at 1 Hz (GGA, GSA, GSV, RMC), not recorded on a vehicle: two")
    print("# stops, up to 45 km/h, the fix lost for 33 s in a tunnel and 5 s of 2D fix after.")
    for second in range(PLAN[-1][0]):
        target, turn = next((s, t) for until, s, t in PLAN if second < until)
        speed = min(target, speed + 1.0) if target > speed else max(target, speed - 1.3)
        if speed > 0:
            heading = (heading + turn) % 360
        lat += speed * math.cos(math.radians(heading)) / 111320
        lon += speed * math.sin(math.radians(heading)) / (111320 * math.cos(math.radians(lat)))
        alt += speed * 0.02 * math.sin(second / 40) + rng.gauss(0, 0.05)
        if TUNNEL[0] <= second < TUNNEL[1]:
            mode = 1
        elif TUNNEL[1] <= second < TUNNEL[1] + REACQUIRE_2D:
            mode = 2
        else:
            mode = 3
        # A standing bus still sees a little receiver noise.
        noise = 0.000002 if speed == 0 else 0
        shown = speed + abs(rng.gauss(0, 0.05)) if speed == 0 else speed
        sys.stdout.write("".join(s + "\r\n" for s in epoch(
            second, lat + rng.uniform(-noise, noise), lon + rng.uniform(-noise, noise), alt,
            shown, heading, mode, rng)))


if __name__ == "__main__":
    main()
