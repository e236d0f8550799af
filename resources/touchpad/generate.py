#!/usr/bin/env python3
"""Writes the touchpad recordings that the gesture tests play and that `tavrick --play-touches`
sends to a running Tavrick's simulated trackpad.

Each is a kernel multitouch stream (protocol B) of a hand on a 1216 x 800 pad sampled at
120 Hz, with fingers that land and lift a frame or two apart and a little jitter, the way a
real pad reports them. Run it from this directory to write the files again; the output is
deterministic.
"""
import math
import random

WIDTH, HEIGHT, PRESSURE = 1216, 800, 255
PERIOD = 1 / 120
EV_SYN, EV_KEY, EV_ABS = 0x00, 0x01, 0x03
SYN_REPORT, BTN_TOUCH = 0x00, 0x14A
ABS_MT_SLOT, ABS_MT_POSITION_X, ABS_MT_POSITION_Y = 0x2F, 0x35, 0x36
ABS_MT_TRACKING_ID, ABS_MT_PRESSURE = 0x39, 0x3A


class Writer:
    def __init__(self, seed):
        self.random = random.Random(seed)
        self.lines = [f"# geometry x 0 {WIDTH} y 0 {HEIGHT} pressure 0 {PRESSURE} slots 5"]
        self.slots = {}      # slot -> (tracking id, x, y, pressure) in device units
        self.next_id = 100
        self.current_slot = 0
        self.t = 1000.0      # device clocks do not start at zero

    def event(self, kind, code, value):
        self.lines.append(f"E: {self.t:.6f} {kind:04x} {code:04x} {value}")

    def select(self, slot):
        if slot != self.current_slot:
            self.event(EV_ABS, ABS_MT_SLOT, slot)
            self.current_slot = slot

    def frame(self, hand):
        """hand: slot -> (x, y) in pad units (y up), or absent for a lifted finger."""
        touching_before = bool(self.slots)
        for slot in sorted(set(self.slots) | set(hand)):
            if slot not in hand:
                self.select(slot)
                self.event(EV_ABS, ABS_MT_TRACKING_ID, -1)
                del self.slots[slot]
                continue
            x, y = hand[slot]
            x += self.random.uniform(-0.0015, 0.0015)
            y += self.random.uniform(-0.0015, 0.0015)
            dx, dy = round(x * WIDTH), round((1 - y) * HEIGHT)
            pressure = 40 + self.random.randint(0, 20)
            if slot not in self.slots:
                self.select(slot)
                self.event(EV_ABS, ABS_MT_TRACKING_ID, self.next_id)
                self.slots[slot] = (self.next_id, None, None, None)
                self.next_id += 1
            ident, ox, oy, op = self.slots[slot]
            if dx != ox:
                self.select(slot)
                self.event(EV_ABS, ABS_MT_POSITION_X, dx)
            if dy != oy:
                self.select(slot)
                self.event(EV_ABS, ABS_MT_POSITION_Y, dy)
            if pressure != op:
                self.select(slot)
                self.event(EV_ABS, ABS_MT_PRESSURE, pressure)
            self.slots[slot] = (ident, dx, dy, pressure)
        touching = bool(self.slots)
        if touching != touching_before:
            self.event(EV_KEY, BTN_TOUCH, 1 if touching else 0)
        self.event(EV_SYN, SYN_REPORT, 0)
        self.t += PERIOD

    def save(self, name, comment):
        with open(name, "w") as out:
            out.write(f"# {comment}\n")
            out.write("\n".join(self.lines) + "\n")


def staggered(points, frames_between=1):
    """The hand landing one finger a frame: partial hands, then the whole one."""
    return [dict(list(points.items())[: i + 1]) for i in range(len(points))]


def write_swipe():
    w = Writer(3)
    start = {0: (0.62, 0.50), 1: (0.70, 0.53), 2: (0.78, 0.49)}
    for partial in staggered(start):
        w.frame(partial)
    for _ in range(7):
        w.frame(start)
    steps = 18  # 0.15 s
    for i in range(1, steps + 1):
        shift = -0.32 * i / steps
        w.frame({s: (x + shift, y + 0.01 * i / steps) for s, (x, y) in start.items()})
    end = {s: (x - 0.32, y + 0.01) for s, (x, y) in start.items()}
    w.frame({0: end[0], 1: end[1]})
    w.frame({0: end[0]})
    w.frame({})
    w.save("three-finger-swipe-left.txt", "three fingers land a frame apart, rest, and swipe left quickly")


def write_swipe_up():
    w = Writer(8)
    start = {0: (0.40, 0.30), 1: (0.50, 0.33), 2: (0.60, 0.31)}
    for partial in staggered(start):
        w.frame(partial)
    for _ in range(7):
        w.frame(start)
    steps = 20
    for i in range(1, steps + 1):
        w.frame({s: (x - 0.01 * i / steps, y + 0.35 * i / steps) for s, (x, y) in start.items()})
    end = {s: (x - 0.01, y + 0.35) for s, (x, y) in start.items()}
    w.frame({1: end[1], 2: end[2]})
    w.frame({})
    w.save("three-finger-swipe-up.txt", "three fingers land a frame apart, rest, and swipe up")


def write_tap():
    w = Writer(4)
    hand = {0: (0.40, 0.42), 1: (0.48, 0.47), 2: (0.56, 0.47), 3: (0.64, 0.42)}
    w.frame({0: hand[0], 1: hand[1]})
    w.frame(hand)
    for _ in range(12):
        w.frame(hand)
    w.frame({})
    w.save("four-finger-tap.txt", "four fingers land over two frames, rest for a tenth of a second and lift together")


def write_pinch():
    w = Writer(5)
    centre = (0.5, 0.45)
    angles = [math.radians(a) for a in (90, 210, 330)]

    def hand(radius):
        return {i: (centre[0] + radius * math.cos(a), centre[1] + radius * math.sin(a)) for i, a in enumerate(angles)}

    for partial in staggered(hand(0.06)):
        w.frame(partial)
    for _ in range(7):
        w.frame(hand(0.06))
    steps = 24
    for i in range(1, steps + 1):
        w.frame(hand(0.06 + 0.10 * i / steps))
    w.frame({})
    w.save("three-finger-pinch-out.txt", "three fingers close together spread apart")


def write_rotation():
    w = Writer(6)
    centre = (0.5, 0.5)

    def hand(turn):
        return {
            i: (centre[0] + 0.12 * math.cos(math.radians(a + turn)), centre[1] + 0.12 * math.sin(math.radians(a + turn)))
            for i, a in enumerate((90, 210, 330))
        }

    for partial in staggered(hand(0)):
        w.frame(partial)
    for _ in range(7):
        w.frame(hand(0))
    steps = 30
    for i in range(1, steps + 1):
        w.frame(hand(40 * i / steps))
    w.frame({})
    w.save("three-finger-rotate.txt", "three fingers turn forty degrees against the clock, as seen with y up")


def write_scroll():
    w = Writer(7)
    hand = {0: (0.45, 0.7), 1: (0.55, 0.7)}
    w.frame({0: hand[0]})
    w.frame(hand)
    for i in range(1, 48):
        w.frame({s: (x, y - 0.4 * i / 48) for s, (x, y) in hand.items()})
    w.frame({})
    w.save("two-finger-scroll.txt", "an ordinary two-finger scroll down the pad")


if __name__ == "__main__":
    write_swipe()
    write_swipe_up()
    write_tap()
    write_pinch()
    write_rotation()
    write_scroll()
