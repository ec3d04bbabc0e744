"""The store is parsed once for each change of its file, and never older than the file."""

import gc
import os
import time
import traceback
from collections.abc import Callable
from pathlib import Path

import pytest

from tovarincore._cloud_conf import store_file
from tovarincore._config_files.toml_file import parse_toml
from tovarincore._transport import masker
from tovarincore.cloud_conf import CloudConf, CloudConfManager, ConfigError
from tovarincore.cloud_def import AWSCloudAuth, CloudRegion, K8sRegion

LAB = K8sRegion("lab")
AWS = CloudRegion("eu-central-1", "AWS")
CANARY = "s3cr3t-canary"


@pytest.fixture
def store(tmp_path: Path) -> Path:
    """A store with one token, unchanged for a while."""
    path = tmp_path / "cloud.toml"
    write(path, CANARY)
    return path


def write(path: Path, token: str, *, aged: bool = True) -> None:
    """Write a token into the store in place; ``aged``: wait until the change is old enough to rely on."""
    path.write_text(f'[k8s.lab]\nworker_token = "{token}"\n')
    path.chmod(0o600)
    if aged:
        time.sleep(0.1)


@pytest.fixture
def parsings(monkeypatch: pytest.MonkeyPatch) -> list[Path]:
    """Every parsing of a store in the test."""
    seen: list[Path] = []

    def parse_and_note(data: bytes, path: Path) -> dict[str, object]:
        seen.append(path)
        return parse_toml(data, path)

    monkeypatch.setattr(store_file, "parse_toml", parse_and_note)
    return seen


def token() -> str | None:
    """Return the token that is stored now, asked for by yet another manager."""
    conf = CloudConfManager().get_cloud_conf(LAB)
    return None if conf is None else conf.worker_token


def test_an_unchanged_store_is_parsed_once(store: Path, parsings: list[Path]) -> None:
    """Whichever manager asks, for whichever region."""
    for _ in range(5):
        assert token() == CANARY
        assert CloudConfManager().get_cloud_conf(AWS) is None
    assert parsings == [store]


def with_the_old_time(path: Path) -> None:
    """Write in place and set the time of change back, as some tools do."""
    times = path.stat()
    write(path, CANARY.upper(), aged=False)
    os.utime(path, ns=(times.st_atime_ns, times.st_mtime_ns))


CHANGES: dict[str, Callable[[Path], None]] = {
    "in place": lambda path: write(path, CANARY.upper(), aged=False),
    "in place with the old time": with_the_old_time,
    "replaced": lambda path: CloudConfManager().set_cloud_conf(LAB, CloudConf(None, "", CANARY.upper())),
}


@pytest.mark.parametrize("change", CHANGES.values(), ids=CHANGES.keys())
def test_a_change_is_seen_at_once(store: Path, change: Callable[[Path], None]) -> None:
    """Whatever the file's length and times say afterwards."""
    assert token() == CANARY
    change(store)
    assert token() == CANARY.upper()
    store.unlink()
    assert token() is None


def test_changes_within_one_tick_of_the_file_systems_clock_are_seen(store: Path) -> None:
    """Many writes in place of the same length, each read back at once."""
    for number in range(1000):
        write(store, f"token-{number:04}", aged=False)
        assert token() == f"token-{number:04}"


def test_a_mode_that_opens_the_store_is_refused_at_once(store: Path) -> None:
    """What was read before does not count any more, nor does it when the folder is opened."""
    assert token() == CANARY
    store.chmod(0o644)
    with pytest.raises(ConfigError, match="chmod 600"):
        token()
    store.chmod(0o600)
    assert token() == CANARY
    store.parent.chmod(0o777)
    with pytest.raises(ConfigError, match="chmod o-w"):
        token()


def test_a_file_system_that_counts_whole_seconds_is_given_time(
    store: Path, parsings: list[Path], monkeypatch: pytest.MonkeyPatch
) -> None:
    """A change within the same second would not show."""
    monkeypatch.setattr(store_file, "_SECOND", 1)
    for _ in range(3):
        token()
    assert len(parsings) == 3


def test_a_file_from_the_future_is_parsed_each_time(
    store: Path, parsings: list[Path], monkeypatch: pytest.MonkeyPatch
) -> None:
    """Its file system's clock is not ours, so that its times say nothing."""
    monkeypatch.setattr(time, "time_ns", lambda: 1)
    for _ in range(3):
        token()
    assert len(parsings) == 3


def test_what_a_caller_changes_is_its_own(store: Path) -> None:
    """Not what the next one is given."""
    conf = CloudConfManager().get_cloud_conf(LAB)
    assert conf is not None
    conf.worker_token = "mine"
    assert token() == CANARY


def in_memory(secret: str) -> bool:
    """Whether some object still holds a secret."""
    gc.collect()
    return any(reference() == secret for reference in list(masker._living.values()))


def test_former_secrets_leave_the_memory(store: Path) -> None:
    """Once a changed file is read, also when it cannot be used."""
    assert token() == CANARY and in_memory(CANARY)
    write(store, "other-token-1")
    assert token() == "other-token-1" and not in_memory(CANARY)
    write(store, "with a blank")
    with pytest.raises(ConfigError):
        token()
    assert not in_memory("other-token-1")


@pytest.mark.parametrize(
    "text",
    [
        f'[k8s.lab]\nworker_token = "{CANARY}"\nworker_tokn = "x"\n',
        f'[k8s.lab]\nworker_token = "{CANARY} blank"\n',
        f'[k8s.lab]\nworker_token = "{CANARY}\n',
        f'[AWS.a]\nuser_name = "*"\naws_access_key_id = "{CANARY}"\naws_secret_access_key = "{CANARY}"\n',
    ],
    ids=["unknown key", "blank", "no TOML", "user name"],
)
def test_a_traceback_with_local_variables_shows_no_secret(store: Path, text: str) -> None:
    """Tools print the variables of every frame that an exception passed."""
    store.write_text(text)
    with pytest.raises(ConfigError) as caught:
        token()
    shown = traceback.TracebackException.from_exception(caught.value, capture_locals=True)
    lines = [line for line in "".join(shown.format()).splitlines() if "text = " not in line]
    assert CANARY not in "\n".join(lines)


@pytest.mark.parametrize("name", ["*", "team-*", "ad?", "a\\", " ada", "a" * 257])
def test_a_user_name_that_means_others_is_neither_stored_nor_read(store: Path, name: str) -> None:
    """EC2 would list their nodes; the text says what is allowed, and does not show the name."""
    with pytest.raises(
        ConfigError, match=r"AWS:eu-central-1: user_name is not allowed; allowed are 1 to 256"
    ):
        CloudConfManager().set_cloud_conf(AWS, CloudConf(AWSCloudAuth(), name))
    written = name.replace("\\", "\\\\")
    store.write_text(f'[AWS.eu-central-1]\nuser_name = "{written}"\n')
    with pytest.raises(
        ConfigError, match=r"\[AWS.eu-central-1\]: user_name is not allowed; allowed are 1 to"
    ):
        CloudConfManager().get_cloud_conf(AWS)


@pytest.mark.parametrize("name", ["../x", "a/b", "*", "", "k8s:lab"])
def test_a_region_of_an_impossible_name_is_neither_stored_nor_read(store: Path, name: str) -> None:
    """The name is shown, escaped, and what is allowed."""
    with pytest.raises(ConfigError, match="configuration of a region: .* cannot be the name of a region"):
        CloudConfManager().set_cloud_conf(K8sRegion(name), CloudConf(None, "", "t"))
    store.write_text(f'[k8s."{name}"]\nworker_token = "t"\n')
    with pytest.raises(ConfigError, match=r"cloud.toml: .* cannot be the name of a region; allowed are"):
        CloudConfManager().get_cloud_conf(LAB)
