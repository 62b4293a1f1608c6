#!/usr/bin/python3
"""Writes bus.candump: one minute of a synthetic city bus on its FMS and body CAN bus.

The bus stands at a stop with doors 1 and 2 open, closes them, drives to the next stop at up
to 40 km/h (a passenger presses the stop button on the way), stops and opens doors 1 and 3.
Frames at the rates an FMS gateway and a body controller send them. Run it again after a
change: the output is the same every time.
"""

import math
import os
import random

START = 1717430400  # 2024-06-03 16:00:00 UTC
DURATION = 60.0
TOTAL_M = 245318400.0  # odometer
TRIP_M = 18200.0
FUEL_L = 98765.5
TRIP_FUEL_L = 6.5

ENGINE = 0x00  # source addresses
TACHOGRAPH = 0xEE
BODY = 0x21

# identifier, period in s, phase in s
EEC1 = (0x0CF00400 | ENGINE, 0.02, 0.001)
TCO1 = (0x0CFE6C00 | TACHOGRAPH, 0.05, 0.004)
CCVS = (0x18FEF100 | ENGINE, 0.1, 0.007)
DC1 = (0x18FE4E00 | BODY, 0.1, 0.011)
DC2 = (0x18FDA500 | BODY, 0.1, 0.012)
BODY_STATUS = (0x18FF1000 | BODY, 0.1, 0.013)
VDHR = (0x18FEC100 | TACHOGRAPH, 1.0, 0.203)
LFC = (0x18FEE900 | ENGINE, 1.0, 0.305)
BODY_VEHICLE = (0x18FF1100 | BODY, 1.0, 0.407)
FMS1 = (0x18FDD100 | ENGINE, 10.0, 0.509)
VI = (0x18FEEC00 | ENGINE, 10.0, 0.611)  # sent as a BAM
VIN = b"WMA06XZZ1KP012345*"
HEADER = """\
# Written for the tavro demo by demo/make-bus-candump.py: one synthetic minute of a city bus
# on the CAN bus of its FMS gateway and body controller, not recorded on a vehicle. Doors
# close at a stop, the bus drives 344 m at up to 40 km/h, a passenger presses the stop button,
# the bus stops and opens doors 1 and 3.
"""


def speed_kmh(t):
    """Stands until 7 s, accelerates to 40 km/h by 19 s, cruises, brakes from 38 s to 50 s."""
    if t < 7.0:
        return 0.0
    if t < 19.0:
        x = (t - 7.0) / 12.0
        return 40.0 * (3 * x * x - 2 * x * x * x)
    if t < 38.0:
        return 40.0 + 0.8 * math.sin((t - 19.0) / 3.0)
    if t < 50.0:
        x = (t - 38.0) / 12.0
        return 40.0 * (1 - (3 * x * x - 2 * x * x * x))
    return 0.0


def doors(t):
    """(door 1 open, door 2 open, door 3 open, doors enabled)."""
    return (t < 5.5 or t >= 51.0, t < 4.0, 51.5 <= t < 56.0, t < 6.0 or t >= 50.5)


def u16(value):
    return [value & 0xFF, (value >> 8) & 0xFF]


def u32(value):
    return u16(value & 0xFFFF) + u16(value >> 16)


class Bus:
    def __init__(self):
        self.distance = 0.0  # metres since the start of the log
        self.fuel = 0.0
        self.jitter = random.Random(1)

    def eec1(self, t):
        v = speed_kmh(t)
        accel = speed_kmh(t + 0.5) - v
        rpm = 600.0 if v < 0.5 else min(1800.0, 800.0 + v * 22.0)
        torque = 60 if accel > 0.2 else (5 if accel < -0.2 else (25 if v > 0.5 else 8))
        return [0xF3, torque + 125, torque + 125] + u16(int(rpm / 0.125)) + [0x00, 0xF3,
                                                                            torque + 125]

    def tco1(self, t):
        v = speed_kmh(t)
        moving = v > 0.5
        state = 3 if moving else 2
        return ([state | (0 << 3) | ((1 if moving else 0) << 6), 0x10 | 0x00, 0x00, 0x00]
                + u16(int(v * 34.0 / 0.125)) + u16(int(round(v * 256))))

    def ccvs(self, t):
        v = speed_kmh(t)
        braking = speed_kmh(t + 0.5) < v - 0.2
        parked = t < 6.5 or t >= 50.5
        return ([(1 if parked else 0) << 2] + u16(int(round(v * 256)))
                + [((1 if braking else 0) << 4) | (3 << 6), 0x00, 0x00, 0x00, 0xFF])

    def dc1(self, t):
        d1, d2, d3, enabled = doors(t)
        if d1 or d2 or d3:
            position = 0
        elif 5.0 <= t < 5.5:
            position = 1  # closing last door
        else:
            position = 2
        return [position | (int(enabled) << 6)] + [0xFF] * 7

    def dc2(self, t):
        d1, d2, d3, enabled = doors(t)
        word = (1 << 64) - 1
        for n, is_open in enumerate((d1, d2, d3)):
            group = (0 if enabled else 1) | (int(is_open) << 2) | (int(enabled) << 4)
            word &= ~(0x3F << (n * 6))
            word |= group << (n * 6)
        return [(word >> (8 * i)) & 0xFF for i in range(8)]

    def body_status(self, t):
        stop_request = 26.0 <= t < 50.5
        # stop request, cab 1 active, high voltage present (hybrid), in passenger service
        return [int(stop_request) | (1 << 2) | (1 << 4) | (1 << 6)] + [0xFF] * 7

    def vdhr(self, t):
        return u32(int((TOTAL_M + self.distance) / 5)) + u32(int((TRIP_M + self.distance) / 5))

    def lfc(self, t):
        trip = TRIP_FUEL_L + self.fuel
        return u32(int(trip / 0.5)) + u32(int((FUEL_L + self.fuel) / 0.5))

    def body_vehicle(self, t):
        # bus, 95 passengers, first (only) vehicle of the set
        return [0] + u16(95) + [1] + [0xFF] * 4

    def fms1(self, t):
        return [0xF5] + list(b"0402") + [0xFF] * 3

    def advance(self, dt, t):
        v = speed_kmh(t) / 3.6
        self.distance += v * dt
        # about 45 l/100 km when driving, 2.5 l/h at idle
        self.fuel += v * dt * 0.00045 + dt * 2.5 / 3600.0


def line(stamp, can_id, data):
    return "(%.6f) can0 %08X#%s" % (stamp, can_id, bytes(data).hex().upper())


def main():
    bus = Bus()
    plain = [(EEC1, bus.eec1), (TCO1, bus.tco1), (CCVS, bus.ccvs), (DC1, bus.dc1),
             (DC2, bus.dc2), (BODY_STATUS, bus.body_status), (VDHR, bus.vdhr), (LFC, bus.lfc),
             (BODY_VEHICLE, bus.body_vehicle), (FMS1, bus.fms1)]
    events = []
    for (can_id, period, phase), payload in plain:
        n = 0
        while phase + n * period < DURATION:
            events.append((round(phase + n * period, 6), len(events), can_id, payload))
            n += 1
    n = 0
    while VI[2] + n * VI[1] < DURATION:
        events.append((round(VI[2] + n * VI[1], 6), len(events), VI[0], None))
        n += 1
    events.sort()

    out = []
    last = 0.0
    for t, _, can_id, payload in events:
        bus.advance(t - last, t)
        last = t
        stamp = START + t + bus.jitter.uniform(0, 0.0004)
        if payload is None:
            # BAM: announce, then packets 50 ms apart
            packets = (len(VIN) + 6) // 7
            out.append(line(stamp, 0x1CECFF00 | ENGINE,
                            [0x20] + u16(len(VIN)) + [packets, 0xFF] + u16(VI[0] >> 8 & 0xFFFF)
                            + [0x00]))
            for seq in range(packets):
                chunk = list(VIN[seq * 7:seq * 7 + 7])
                out.append(line(stamp + 0.05 * (seq + 1), 0x1CEBFF00 | ENGINE,
                                [seq + 1] + chunk + [0xFF] * (7 - len(chunk))))
            continue
        out.append(line(stamp, can_id, payload(t)))
    out.sort(key=lambda l: float(l[1:l.index(")")]))
    path = os.path.join(os.path.dirname(os.path.abspath(__file__)), "bus.candump")
    with open(path, "w") as f:
        f.write(HEADER + "\n".join(out) + "\n")
    print("%s: %d frames, %.0f m" % (path, len(out), bus.distance))


if __name__ == "__main__":
    main()
