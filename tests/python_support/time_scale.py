"""How long tests wait: limits are written for an idle machine and stretched for the one at hand.

    client.settimeout(scaled(30))
"""

import os

SCALE_MAX = 10


def time_scale():
    """The factor for limits, 1 to 10: TESSEL_TIME_SCALE, or the number of processes that wait for each
    processor now. It grows while the machine gets busier, so it is asked anew for each limit."""
    text = os.environ.get("TESSEL_TIME_SCALE")
    scale = float(text) if text else os.getloadavg()[0] / (os.cpu_count() or 1)
    return min(max(scale, 1.0), SCALE_MAX)


def scaled(seconds):
    """A limit for this machine: for limits that only a failure reaches."""
    return seconds * time_scale()
