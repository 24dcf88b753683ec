# SPDX-License-Identifier: MIT
"""Whether what a process holds stays level over time."""

import dataclasses
import statistics

PARTS = 10

# By how much a figure may grow: so much in itself, and such a share of the devices. Chance decides how many devices are
# there, and how many resolvers wait for those that went silently.
BOUNDS = {"rssKiB": (512, 0), "queue": (0, 0.1), "objects": (0, 0.1), "descriptors": (1, 0), "timers": (1, 0),
          "qtObjects": (2, 0)}


@dataclasses.dataclass(frozen=True)
class Level:
    """How a figure went: its medians in the second and in the last tenth, its maximum, its growth by the trend."""

    figure: str
    first: float
    last: float
    most: float
    growth: float
    bound: float

    @property
    def is_kept(self):
        return max(self.growth, self.last - self.first) <= self.bound


def level(figure, samples, devices):
    """Judges all but the first tenth of the samples, which are dictionaries with "seconds".

    Each tenth counts with its median, since a restart of the daemon is a dip or a peak of some seconds, and a leak is
    none. What is judged is both the straight line through these medians, as the last one alone may be low by chance,
    and the way from the first to the last, as a line through a late step is flat.
    """
    medians = _medians(figure, samples)
    begin, *_, end = medians
    absolute, share = BOUNDS[figure]
    growth = statistics.linear_regression(range(len(medians)), medians).slope * (len(medians) - 1)
    most = max(sample[figure] for sample in samples)
    return Level(figure, begin, end, most, growth, absolute + share * devices)


def _medians(figure, samples):
    begin, end = samples[0]["seconds"], samples[-1]["seconds"]
    parts = [[] for _ in range(PARTS)]
    for sample in samples:
        part = int((sample["seconds"] - begin) / (end - begin) * PARTS)
        parts[min(part, PARTS - 1)].append(sample[figure])
    return [statistics.median(part) for part in parts[1:]]
