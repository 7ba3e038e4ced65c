"""Four channels of 400 symbols as services under systemd; scripts/scale does it with 24 and 2,400."""

import pytest

from channel_services import run_services
from install_test import why_not
from package import USER_PACKAGES, unpacked_root
from time_scale import time_scale

pytestmark = pytest.mark.skipif(bool(why_not()), reason=f"skipped: {why_not()}")


@pytest.fixture(name="root", scope="module")
def root_fixture(tmp_path_factory):
    yield from unpacked_root(tmp_path_factory, "user", USER_PACKAGES)


def test_channels_as_services_are_received_and_agree(root, tmp_path):
    result = run_services(root, tmp_path, channels=4, symbols=400, seconds=4, interval_ms=100,
                          slow=time_scale())
    assert result["verdicts"] == ["AGREES"] * 4, result
    assert (result["verdict"], result["listen_status"]) == ("AGREES", 0), result
    assert result["services"] == ["success"], result
    assert result["truth_lines"] > 4000, result
