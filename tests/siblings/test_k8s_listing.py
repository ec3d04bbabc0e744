"""Listings of a cluster's nodes."""

from __future__ import annotations

import json

import pytest

from stage.kube_api import Fault, KubeApi
from stage.kube_store import Refusal
from stage.kube_world import KubeWorld
from stage.patience import HANG_SECONDS, SETUP_SECONDS, in_time
from tovarincore.cloud_conf import CloudConf, CloudConfManager
from tovarincore.core_def import OPResult, OPResultErrorCode

FORBIDDEN = Refusal(403, "Forbidden", "secrets is forbidden: no")
INTERNAL = Refusal(500, "InternalError", "etcd is gone")
BUSY = Refusal(429, "TooManyRequests", "too many requests, please try again later")
STARTING = Refusal(503, "ServiceUnavailable", "the server is currently unable to handle the request")
EXPIRED = Refusal(410, "Expired", "The provided continue parameter is too old")


def add_pods(kube: KubeWorld, kube_api: KubeApi, count: int) -> None:
    """Put nodes there, as many as wanted, by copying one."""
    node = kube.launched()
    manifest = kube_api.store.get("pods", kube.namespace, node.instance_id)
    with kube_api.store.lock:
        for number in range(1, count):
            name = f"tovarin-{number:05}"
            copied = {**manifest, "metadata": {**manifest["metadata"], "name": name}}
            kube_api.store.objects["pods", kube.namespace, name] = copied
    kube_api.requests.clear()


def test_five_thousand_nodes_are_listed_page_by_page(kube: KubeWorld, kube_api: KubeApi) -> None:
    """All nodes of a large namespace are listed, each once, in pages of the configured size."""
    kube.limit(SETUP_SECONDS)
    add_pods(kube, kube_api, 5000)
    nodes, result = kube.client.get_cloud_nodes()
    assert result.success
    assert nodes is not None
    assert len({node.instance_id for node in nodes}) == len(nodes) == 5000
    assert kube_api.requests == ["GET pods"] * 50


@pytest.mark.parametrize(
    ("fault", "code"),
    [
        (Fault(INTERNAL), None),
        (Fault(FORBIDDEN), OPResultErrorCode.UNAUTHORIZED_OPERATION),
        (Fault(hang_up=True), OPResultErrorCode.CONNECTION_FAILED),
        (Fault(body=b"<html>"), OPResultErrorCode.PROTOCOL_ERROR),
        (Fault(body=b'{"items": 7}'), OPResultErrorCode.PROTOCOL_ERROR),
        (Fault(body=b"<html>", status=502), None),
        (Fault(BUSY), OPResultErrorCode.THROTTLED),
        (Fault(STARTING), OPResultErrorCode.UNAVAILABLE),
        (Fault(BUSY, headers={"Retry-After": "600"}), OPResultErrorCode.THROTTLED),
        (Fault(delay=HANG_SECONDS), OPResultErrorCode.TIMEOUT),
        (Fault(drip=0.05), OPResultErrorCode.TIMEOUT),
    ],
    ids=["500", "403", "hang-up", "html", "no list", "502", "429", "503", "429 for long", "slow", "dripping"],
)
def test_a_listing_fails_as_a_whole(
    kube: KubeWorld,
    kube_api: KubeApi,
    fault: Fault,
    code: OPResultErrorCode | None,
) -> None:
    """Whatever happens to the third page, there is no list rather than a part of one, and in time."""
    add_pods(kube, kube_api, 450)
    kube_api.fault("GET pods", fault, skip=2)
    limit = 1.0 if code is OPResultErrorCode.TIMEOUT else HANG_SECONDS
    kube.limit(limit)
    with in_time(limit if code is OPResultErrorCode.TIMEOUT else 0):
        nodes, result = kube.client.get_cloud_nodes()
    assert nodes is None
    assert (result.success, result.error, result.error_code) == (False, True, code)
    assert result.msg


def test_a_listing_that_outlives_its_state_is_begun_again(kube: KubeWorld, kube_api: KubeApi) -> None:
    """410: when the server gave up the state that the pages show, they are asked for once more."""
    add_pods(kube, kube_api, 250)
    kube_api.fault("GET pods", Fault(before=kube_api.store.expire_listings), skip=1)
    nodes, result = kube.client.get_cloud_nodes()
    assert result == OPResult(success=True)
    assert len({node.instance_id for node in nodes or []}) == len(nodes or []) == 250
    assert kube_api.requests == ["GET pods"] * 5


def test_the_server_s_mark_of_a_place_is_bounded(kube: KubeWorld, kube_api: KubeApi) -> None:
    """It goes into the next request: a megabyte of it is no answer."""
    page = {"items": [], "metadata": {"continue": "x" * 1_000_000}}
    kube_api.fault("GET pods", Fault(body=json.dumps(page).encode()))
    nodes, result = kube.client.get_cloud_nodes()
    assert (nodes, result.error_code) == (None, OPResultErrorCode.PROTOCOL_ERROR)
    assert kube_api.requests == ["GET pods"]


def test_a_listing_is_begun_again_only_once(kube: KubeWorld, kube_api: KubeApi) -> None:
    """A state that is given up twice is an error with a separate code, not a part of the nodes."""
    add_pods(kube, kube_api, 250)
    kube_api.fault("GET pods", Fault(EXPIRED), skip=1, times=None)
    nodes, result = kube.client.get_cloud_nodes()
    assert nodes is None
    assert result.error_code is OPResultErrorCode.EXPIRED
    assert kube_api.requests == ["GET pods"] * 3


@pytest.mark.parametrize("refusal", [BUSY, STARTING], ids=["429", "503"])
def test_a_busy_server_is_asked_again_when_it_wants(
    kube: KubeWorld, kube_api: KubeApi, refusal: Refusal
) -> None:
    """The header Retry-After is kept, as long as that is before the deadline."""
    kube.launched()
    kube_api.requests.clear()
    kube_api.fault("GET pods", Fault(refusal, headers={"Retry-After": "1"}))
    with in_time(1, least=1):
        nodes, result = kube.client.get_cloud_nodes()
    assert result.success
    assert len(nodes or []) == 1
    assert kube_api.requests == ["GET pods"] * 2


def test_a_pause_beyond_the_deadline_is_not_waited_for(kube: KubeWorld, kube_api: KubeApi) -> None:
    """The server's answer comes back at once when it asks for more time than there is."""
    kube_api.fault("GET pods", Fault(BUSY, headers={"Retry-After": "3600"}))
    with in_time():
        assert kube.client.get_cloud_nodes()[1].error_code is OPResultErrorCode.THROTTLED


@pytest.mark.parametrize(
    ("item", "named"),
    [
        (None, "one without a usable name"),
        (7, "one without a usable name"),
        ([], "one without a usable name"),
        ({}, "one without a usable name"),
        ({"metadata": None}, "one without a usable name"),
        ({"metadata": {"name": "../x"}}, "one without a usable name"),
        ({"metadata": {"name": "odd", "labels": 7}}, "odd"),
        ({"metadata": {"name": "odd"}, "status": {"phase": []}}, "odd"),
        ({"metadata": {"name": "odd"}, "status": {"conditions": [None]}}, "odd"),
    ],
)
def test_a_pod_that_cannot_be_read_is_skipped_and_named(
    kube: KubeWorld, kube_api: KubeApi, caplog: pytest.LogCaptureFixture, item: object, named: str
) -> None:
    """One bad pod does not hide the others, and is not passed over in silence."""
    good = kube_api.store.get("pods", kube.namespace, kube.launched().instance_id)
    page = {"kind": "PodList", "metadata": {}, "items": [item, good]}
    kube_api.fault("GET pods", Fault(body=json.dumps(page).encode()))
    nodes, result = kube.client.get_cloud_nodes()
    assert [node.instance_id for node in nodes or []] == [good["metadata"]["name"]]
    assert result.success
    assert f"skipped pods that cannot be read: {named}" in (result.msg or "")
    assert (result.msg or "-") in caplog.text


def test_a_user_lists_the_nodes_that_are_the_users_own(
    kube: KubeWorld, kube_api: KubeApi, monkeypatch: pytest.MonkeyPatch
) -> None:
    """The owner's label tells the nodes of people who share a namespace apart."""
    own = kube.launched()
    monkeypatch.setenv("LOGNAME", "somebody else@example.org")
    other = kube.launched()
    assert {node.uuid for node in kube.client.get_cloud_nodes()[0] or []} == {own.uuid, other.uuid}
    assert [node.uuid for node in kube.client.get_cloud_nodes(own_only=True)[0] or []] == [other.uuid]
    metadata = kube.pod(other.instance_id).metadata
    assert metadata is not None
    assert (metadata.annotations or {})["tovarincore/owner"] == "somebody else@example.org"
    assert (metadata.labels or {})["tovarincore/owner"].startswith("sha256-")


def test_the_stored_user_name_is_the_owner(kube: KubeWorld) -> None:
    """What is stored for the region counts more than the name of the system's user."""
    CloudConfManager().set_cloud_conf(kube.region, CloudConf(None, user_name="ada"))
    metadata = kube.pod(kube.launched().instance_id).metadata
    assert metadata is not None
    assert (metadata.labels or {})["tovarincore/owner"] == "ada"
