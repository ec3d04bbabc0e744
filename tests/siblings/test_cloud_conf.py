"""The credential store."""

import logging
import multiprocessing
import os
import stat
import threading
import traceback
from pathlib import Path

import pytest

from tovarincore.cloud_conf import CloudConf, CloudConfManager, ConfigError
from tovarincore.cloud_def import AWSCloudAuth, CloudRegion, K8sRegion

MARKER = "s3cr3t-m4rk3r"
AWS = CloudRegion("eu-central-1", "AWS")
LAB = K8sRegion("lab")


@pytest.fixture
def store(tmp_path: Path) -> Path:
    """The store's file, which does not exist yet."""
    return tmp_path / "cloud.toml"


def write(path: Path, text: str, mode: int = 0o600) -> None:
    """Put a file in the store's place."""
    path.write_text(text)
    path.chmod(mode)


def refusal(path: Path) -> str:
    """The text with which the store is refused; neither it nor its traceback shows a secret."""
    with pytest.raises(ConfigError) as caught:
        CloudConfManager().get_cloud_conf(AWS)
    assert MARKER not in "".join(traceback.format_exception(caught.value))
    error: BaseException | None = caught.value
    while error is not None:
        assert MARKER not in f"{error!r} {error.args} {vars(error)}"
        error = error.__cause__ or error.__context__
    return str(caught.value)


def mode_of(path: Path) -> int:
    """The permission bits of a file."""
    return stat.S_IMODE(path.stat().st_mode)


class TestStoring:
    """What was stored comes back."""

    def test_a_missing_file_is_an_empty_store(self, store: Path) -> None:
        """And reading does not make it."""
        manager = CloudConfManager()
        assert manager.get_cloud_conf(AWS) is None
        assert manager.list_regions() == []
        assert manager.delete_cloud_conf(AWS) is False
        assert not store.exists()
        assert not store.with_name("cloud.toml.lock").exists()

    @pytest.mark.parametrize(
        ("region", "conf"),
        [
            pytest.param(AWS, CloudConf(AWSCloudAuth("work"), "ada"), id="profile"),
            pytest.param(AWS, CloudConf(AWSCloudAuth("", "id", "key", "session"), "ada", "token"), id="keys"),
            pytest.param(AWS, CloudConf(AWSCloudAuth(), 'Ad\u00e4 "L" [\''), id="odd name"),
            pytest.param(CloudRegion('odd. "name"', "AWS"), CloudConf(AWSCloudAuth(), "a"), id="odd region"),
            pytest.param(LAB, CloudConf(None, "", "token"), id="kubernetes"),
            pytest.param(CloudRegion("local", "local"), CloudConf(None, "ada"), id="local"),
        ],
    )
    def test_what_is_stored_is_read_by_another_manager(self, region: CloudRegion, conf: CloudConf) -> None:
        """Nothing but the file connects the two."""
        CloudConfManager().set_cloud_conf(region, conf)
        assert CloudConfManager().get_cloud_conf(region) == conf
        assert CloudConfManager().list_regions() == [region]

    def test_a_region_is_replaced_and_removed_alone(self) -> None:
        """The others keep what they had."""
        manager = CloudConfManager()
        manager.set_cloud_conf(LAB, CloudConf(None, "", "token"))
        manager.set_cloud_conf(AWS, CloudConf(AWSCloudAuth("one"), "ada", "token"))
        manager.set_cloud_conf(AWS, CloudConf(AWSCloudAuth("two"), "bob"))
        assert manager.get_cloud_conf(AWS) == CloudConf(AWSCloudAuth("two"), "bob", None)
        assert manager.delete_cloud_conf(AWS) is True
        assert manager.list_regions() == [LAB]
        assert isinstance(manager.list_regions()[0], K8sRegion)

    def test_a_file_written_by_hand_is_read(self, store: Path) -> None:
        """In the form that the documentation shows."""
        write(store, '# mine\n[AWS.eu-central-1]\nuser_name = "ada"\naws_profile = "work"\n')
        assert CloudConfManager().get_cloud_conf(AWS) == CloudConf(AWSCloudAuth("work"), "ada")

    def test_a_change_by_someone_else_is_seen_at_once(self, store: Path) -> None:
        """A manager lives as long as the process."""
        manager = CloudConfManager()
        write(store, '[AWS.eu-central-1]\nuser_name = "ada"\n')
        assert manager.get_cloud_conf(AWS) == CloudConf(AWSCloudAuth(), "ada")
        write(store, '[AWS.eu-central-1]\nuser_name = "bob"\n')
        assert manager.get_cloud_conf(AWS) == CloudConf(AWSCloudAuth(), "bob")

    def test_the_file_lies_in_the_users_configuration_directory(
        self, monkeypatch: pytest.MonkeyPatch, tmp_path: Path
    ) -> None:
        """Which is made, for its owner alone, when something is stored."""
        monkeypatch.delenv("TOVARIN_CLOUD_CONF")
        monkeypatch.setenv("XDG_CONFIG_HOME", str(tmp_path / "config"))
        manager = CloudConfManager()
        manager.set_cloud_conf(LAB, CloudConf(None, "", "token"))
        assert manager.path == tmp_path / "config" / "tovarin" / "cloud.toml"
        assert mode_of(manager.path.parent) == 0o700
        assert manager.list_regions() == [LAB]


class TestPrivacy:
    """Only the owner may read the file, and nothing shows what is in it."""

    def test_the_file_is_its_owners_from_its_first_moment(self, store: Path) -> None:
        """Whatever the process's mask says, also in the place where it is written before it is moved."""
        seen: list[int] = []
        replace = os.replace

        def spy(source: str, target: Path) -> None:
            seen.append(mode_of(Path(source)))
            replace(source, target)

        mask = os.umask(0)
        try:
            with pytest.MonkeyPatch.context() as patch:
                patch.setattr(os, "replace", spy)
                CloudConfManager().set_cloud_conf(LAB, CloudConf(None, "", MARKER))
        finally:
            os.umask(mask)
        assert (seen, mode_of(store), mode_of(store.with_name("cloud.toml.lock"))) == ([0o600], 0o600, 0o600)

    @pytest.mark.parametrize("mode", [0o640, 0o604, 0o644, 0o660, 0o602, 0o700])
    def test_a_wider_mode_is_refused_with_the_command_that_corrects_it(
        self, tmp_path: Path, mode: int
    ) -> None:
        """For reading and for writing; the command takes a path with blanks."""
        path = tmp_path / "my store.toml"
        write(path, f'[k8s.lab]\nworker_token = "{MARKER}"\n', mode)
        with pytest.MonkeyPatch.context() as patch:
            patch.setenv("TOVARIN_CLOUD_CONF", str(path))
            assert f"has mode {mode:04o}" in refusal(path)
            assert refusal(path).endswith(f"correct it with: chmod 600 '{path}'")
            with pytest.raises(ConfigError, match="chmod 600"):
                CloudConfManager().set_cloud_conf(LAB, CloudConf(None, "", "t"))
        assert MARKER in path.read_text()

    def test_a_narrower_mode_is_accepted(self, store: Path) -> None:
        """A file that not even its owner may change."""
        write(store, '[k8s.lab]\nworker_token = "t"\n', 0o400)
        assert CloudConfManager().get_cloud_conf(LAB) == CloudConf(None, "", "t")

    def test_records_and_managers_show_no_secret(self, caplog: pytest.LogCaptureFixture) -> None:
        """Neither their representation nor any log line of storing and reading."""
        caplog.set_level(logging.DEBUG)
        manager = CloudConfManager()
        manager.set_cloud_conf(AWS, CloudConf(AWSCloudAuth("work", MARKER, MARKER, MARKER), "ada", MARKER))
        stored = manager.get_cloud_conf(AWS)
        assert stored is not None
        assert stored.worker_token == MARKER
        assert repr(stored) == "CloudConf(cloud_auth=AWSCloudAuth(aws_profile='work'), user_name='ada')"
        assert MARKER not in f"{manager!r} {vars(manager)} {caplog.text}"

    @pytest.mark.parametrize(
        ("text", "part"),
        [
            pytest.param(f'[k8s.lab]\nworker_token = "{MARKER}', "is not valid TOML at ", id="quote"),
            pytest.param(
                f"[k8s.lab]\nworker_token = {MARKER}", "is not valid TOML at line 2", id="no quotes"
            ),
            pytest.param(f"[k8s.lab]\n{MARKER}", "is not valid TOML at", id="value alone"),
            pytest.param(
                f'worker_token = "{MARKER}"', 'unknown kind of region "worker_token"', id="no table"
            ),
            pytest.param(
                f'[k8s]\nworker_token = "{MARKER}"', "is not a table; allowed is [k8s.<region", id="no name"
            ),
            pytest.param(f'k8s = "{MARKER}"', "k8s is not a table", id="kind as text"),
            pytest.param(f'[aws.a]\nworker_token = "{MARKER}"', 'unknown kind of region "aws"', id="kind"),
            pytest.param(f'[k8s.lab]\nworker_tokn = "{MARKER}"', 'did you mean "worker_token"?', id="key"),
            pytest.param(f'[k8s.lab]\nworker_token = ["{MARKER}"]', "worker_token is a list", id="list"),
            pytest.param(f'[k8s.lab]\nworker_token = "{MARKER} b"', "without blanks", id="blank"),
            pytest.param(f'[k8s.lab]\nworker_token = "{MARKER}\\n"', "control characters", id="line break"),
            pytest.param(
                f'[k8s.lab]\naws_secret_access_key = "{MARKER}"', "unknown key", id="keys of others"
            ),
            pytest.param(
                f'[AWS.a]\nuser_name = "u"\naws_secret_access_key = "{MARKER}"',
                "go together",
                id="half a key",
            ),
            pytest.param(
                f'[AWS.a]\nuser_name = "u"\naws_session_token = "{MARKER}"',
                "aws_session_token goes with",
                id="token",
            ),
            pytest.param(f'[AWS.a]\nworker_token = "{MARKER}"', "user_name is missing", id="no user"),
        ],
    )
    def test_a_refused_file_is_named_and_its_values_are_not_shown(
        self, store: Path, text: str, part: str
    ) -> None:
        """Place, key and what is allowed are enough to correct it."""
        write(store, text)
        message = refusal(store)
        assert message.startswith(f"{store}: ")
        assert part in message

    def test_a_file_that_is_not_utf8_is_refused_without_its_bytes(self, store: Path) -> None:
        """The decoder's own error carries all of them."""
        store.write_bytes(MARKER.encode() + b"\xff")
        store.chmod(0o600)
        assert "is not UTF-8 text" in refusal(store)

    @pytest.mark.parametrize("make", [Path.mkdir, os.mkfifo], ids=["directory", "pipe"])
    def test_what_is_no_file_is_refused(self, store: Path, make: object) -> None:
        """And a pipe is not waited for."""
        make(store)  # type: ignore[operator]
        store.chmod(0o600)
        assert "is not a file" in refusal(store)


class TestRefusedRecords:
    """What must not be stored."""

    @pytest.mark.parametrize(
        ("region", "conf", "part"),
        [
            pytest.param(AWS, CloudConf(None, "ada"), "allowed is an AWSCloudAuth", id="no credentials"),
            pytest.param(
                LAB, CloudConf(AWSCloudAuth(), ""), "only regions of AWS", id="credentials of others"
            ),
            pytest.param(AWS, CloudConf(AWSCloudAuth(), ""), "user_name is missing", id="no user"),
            pytest.param(
                AWS, CloudConf(AWSCloudAuth("", "id", None), "ada", MARKER), "go together", id="half a key"
            ),
            pytest.param(LAB, CloudConf(None, "", f"{MARKER}\n"), "control characters", id="token"),
            pytest.param(CloudRegion("a", "azure"), CloudConf(None, ""), 'kind of region "azure"', id="kind"),
        ],
    )
    def test_the_store_stays_as_it_was(
        self, store: Path, region: CloudRegion, conf: CloudConf, part: str
    ) -> None:
        """A record that could not be read again is refused when it is stored."""
        CloudConfManager().set_cloud_conf(LAB, CloudConf(None, "", "kept"))
        before = store.read_bytes()
        with pytest.raises(ConfigError) as caught:
            CloudConfManager().set_cloud_conf(region, conf)
        assert part in str(caught.value)
        assert MARKER not in str(caught.value)
        assert store.read_bytes() == before


def store_some(path: str, worker: int) -> None:
    """One of several writers, in a separate process."""
    os.environ["TOVARIN_CLOUD_CONF"] = path
    for number in range(5):
        CloudConfManager().set_cloud_conf(K8sRegion(f"p{worker}-{number}"), CloudConf(None, "", "t"))


class TestConcurrency:
    """Several writers."""

    def test_threads_lose_no_entry(self) -> None:
        """Each change is made on top of the others."""
        manager, barrier = CloudConfManager(), threading.Barrier(8)

        def put(worker: int) -> None:
            barrier.wait()
            for number in range(5):
                manager.set_cloud_conf(K8sRegion(f"t{worker}-{number}"), CloudConf(None, "", "t"))

        threads = [threading.Thread(target=put, args=(worker,)) for worker in range(8)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        assert len(manager.list_regions()) == 40

    def test_processes_lose_no_entry(self, store: Path) -> None:
        """The lock is the file system's."""
        context = multiprocessing.get_context("spawn")
        processes = [context.Process(target=store_some, args=(str(store), worker)) for worker in range(3)]
        for process in processes:
            process.start()
        for process in processes:
            process.join(60)
        assert [process.exitcode for process in processes] == [0, 0, 0]
        assert len(CloudConfManager().list_regions()) == 15
