"""Helpers for metadata texts."""

import pytest

from tovarincore.util import ObjectMetaTextUtil


@pytest.mark.parametrize(
    ("arn", "name"),
    [
        pytest.param("arn:aws:iam::123456789012:instance-profile/node", "node", id="plain"),
        pytest.param("arn:aws:iam::123456789012:instance-profile/team/a/node", "node", id="path"),
        pytest.param("arn:aws-cn:iam::123456789012:instance-profile/node", "node", id="partition"),
        pytest.param(
            "arn:aws:iam::1:instance-profile/a+b=c,d.e@f-g_h", "a+b=c,d.e@f-g_h", id="odd characters"
        ),
        pytest.param("node", "node", id="no slash"),
        pytest.param("", "", id="empty"),
    ],
)
def test_the_profile_name_is_what_follows_the_last_slash(arn: str, name: str) -> None:
    """A profile may lie under a path, which is no part of its name."""
    assert ObjectMetaTextUtil.get_profile_name_from_arn(arn) == name
