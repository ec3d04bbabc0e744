"""Settings: where they come from, and what is refused."""

import copy
import pickle
import threading
from pathlib import Path
from typing import Any

import pytest

from tests.siblings.test_core_conf_refusals import refusal
from tovarincore.cloud_def import CloudNode, CloudRegion
from tovarincore.core_conf import CoreConf, core_conf_glbl, describe_settings


def node(name: str = "alpha", uuid: str = "u-1", dns_address: str = "alpha.example") -> CloudNode:
    """A node with the names that the address table looks at."""
    return CloudNode(CloudRegion("r", "AWS"), "i-1", None, uuid=uuid, name=name, dns_address=dns_address)  # type: ignore[arg-type]


class TestDefaults:
    """Without a file and without variables."""

    def test_every_setting_has_its_default(self) -> None:
        """What the table of settings says is what a caller gets."""
        for row in describe_settings():
            if row.kind is not dict:
                value = getattr(core_conf_glbl, row.name)
                assert (row.name, value, type(value)) == (row.name, row.default, row.kind)

    def test_the_defaults_of_the_node_managers_are_off(self) -> None:
        """A machine without configuration uses no proxy, checks certificates and profiles nothing."""
        assert core_conf_glbl.proxy_enabled is False
        assert core_conf_glbl.network__bypass_ssl_verification is False
        assert core_conf_glbl.development_settings__profiler_node_second == 0
        assert core_conf_glbl.network__aws_custom_vpc == ""

    def test_the_file_lies_in_the_users_configuration_directory(
        self, monkeypatch: pytest.MonkeyPatch, tmp_path: Path
    ) -> None:
        """The platform says where that is."""
        monkeypatch.setenv("XDG_CONFIG_HOME", str(tmp_path / "elsewhere"))
        assert core_conf_glbl.path == tmp_path / "elsewhere" / "tovarin" / "core.toml"

    def test_a_file_that_a_variable_names_has_to_exist(
        self, conf_file: Path, monkeypatch: pytest.MonkeyPatch, tmp_path: Path
    ) -> None:
        """With the defaults in its place, requests would go elsewhere; the error says both ways out."""
        named = tmp_path / "my settings.toml"
        monkeypatch.setenv("TOVARIN_CONF", str(named))
        message = refusal()
        assert message.startswith(f"{named}: no such file, though the environment variable TOVARIN_CONF")
        assert f"touch '{named}', or unset TOVARIN_CONF" in message
        named.touch()
        assert core_conf_glbl.worker__port == 8855

    def test_an_empty_variable_names_no_file(self, monkeypatch: pytest.MonkeyPatch) -> None:
        """As if it were not set."""
        monkeypatch.setenv("TOVARIN_CONF", "")
        assert core_conf_glbl.worker__port == 8855


class TestFileAndEnvironment:
    """The file on top of the defaults, the environment on top of the file."""

    def test_the_environment_wins_over_the_file(
        self, conf_file: Path, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        """Settings of the file that no variable names stay."""
        conf_file.write_text('[worker]\nport = 9000\nscheme = "wss"\n')
        monkeypatch.setenv("TOVARIN_WORKER__PORT", "9001")
        assert (core_conf_glbl.worker__port, core_conf_glbl.worker__scheme) == (9001, "wss")

    @pytest.mark.parametrize(
        ("variable", "text", "value"),
        [
            ("TOVARIN_PROXY__ENABLED", "no", False),
            ("TOVARIN_WORKER__USE_PROXY", "TRUE", True),
            ("TOVARIN_WORKER__USE_PROXY", "1", True),
            ("TOVARIN_CONTAINER__CPU_COUNT", "2", 2.0),
            ("TOVARIN_CONTAINER__OPERATION_SECONDS", "0.5", 0.5),
            ("TOVARIN_KUBERNETES__PAGE_SIZE", "7", 7),
            ("TOVARIN_NETWORK__AWS_CUSTOM_VPC", "vpc-1", "vpc-1"),
        ],
    )
    def test_variables_are_read_as_the_settings_type(
        self, variable: str, text: str, value: object, monkeypatch: pytest.MonkeyPatch
    ) -> None:
        """A variable is always a text; the setting decides what it stands for."""
        monkeypatch.setenv(variable, text)
        read = getattr(core_conf_glbl, variable.removeprefix("TOVARIN_").lower())
        assert (read, type(read)) == (value, type(value))

    def test_a_whole_number_will_do_for_a_fraction(self, conf_file: Path) -> None:
        """TOML tells 2 and 2.0 apart, people do not."""
        conf_file.write_text("[container]\ncpu_count = 2\n")
        assert type(core_conf_glbl.container__cpu_count) is float

    def test_the_file_is_read_once_until_reload(self, conf_file: Path) -> None:
        """A change in the middle of a run takes effect when it is asked for, and as a whole."""
        conf_file.write_text("[worker]\nport = 9000\n")
        assert core_conf_glbl.worker__port == 9000
        conf_file.write_text("[worker]\nport = 9001\n")
        assert core_conf_glbl.worker__port == 9000
        core_conf_glbl.reload()
        assert core_conf_glbl.worker__port == 9001

    def test_a_mended_file_is_read_without_reload(self, conf_file: Path) -> None:
        """A refusal is not remembered."""
        conf_file.write_text("[worker]\nport = 0\n")
        refusal()
        conf_file.write_text("[worker]\nport = 1\n")
        assert core_conf_glbl.worker__port == 1

    def test_threads_that_read_first_at_once_read_the_same(self, conf_file: Path) -> None:
        """What is derived from the settings is built once, whoever comes first."""
        conf_file.write_text("[worker]\nport = 9000\n")
        barrier = threading.Barrier(8)
        built: list[int] = []
        got: list[object] = []

        def build() -> object:
            built.append(core_conf_glbl.worker__port)
            return object()

        def read() -> None:
            barrier.wait()
            got.append(core_conf_glbl.derive("test", build))

        threads = [threading.Thread(target=read) for _ in range(8)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        assert built == [9000]
        assert all(value is got[0] for value in got)

    def test_what_was_derived_is_built_anew_after_reload(self) -> None:
        """It belongs to one reading of the settings."""
        first = core_conf_glbl.derive("test", object)
        assert core_conf_glbl.derive("test", object) is first
        core_conf_glbl.reload()
        assert core_conf_glbl.derive("test", object) is not first


class TestAttributes:
    """The configuration as an object."""

    def test_an_unknown_attribute_names_the_nearest_setting(self) -> None:
        """As an AttributeError, so that getattr with a default and hasattr work."""
        with pytest.raises(AttributeError, match=r"'worker__prot'; did you mean \"worker__port\"\?"):
            _ = core_conf_glbl.worker__prot
        assert getattr(core_conf_glbl, "worker__prot", None) is None

    def test_probing_by_copy_and_pickle_reads_nothing(self, conf_file: Path) -> None:
        """A broken file would show itself; the objects fail, if at all, for their own reason."""
        conf_file.write_text("broken [")
        conf = CoreConf()
        for probe in ("__deepcopy__", "__getstate_", "_anything", "_ipython_display_"):
            assert not hasattr(conf, probe)
        assert isinstance(copy.copy(conf), CoreConf)
        with pytest.raises(TypeError, match="RLock"):
            pickle.dumps(conf)

    def test_a_bare_copy_does_not_recurse(self) -> None:
        """An object made without its constructor lacks even its own fields."""
        bare = CoreConf.__new__(CoreConf)
        with pytest.raises(AttributeError, match="_settings"):
            _ = bare.worker__port

    def test_dir_lists_the_settings(self) -> None:
        """For completion in a shell."""
        assert {"worker__port", "network__aws_custom_vpc", "reload"} <= set(dir(core_conf_glbl))

    def test_each_setting_is_documented(self) -> None:
        """The reference page is made of these rows."""
        rows = list(describe_settings())
        assert len({row.name for row in rows}) == len(rows)
        for row in rows:
            assert row.doc.endswith(".")
            assert "\n" not in row.doc
            assert row.secret == (row.name in {"worker__token", "proxy__http", "proxy__https"})


class TestProxies:
    """The pair for Amazon's client."""

    def test_both_proxies_are_passed_on(self, conf_file: Path) -> None:
        """First http, then https."""
        conf_file.write_text('[proxy]\nenabled = true\nhttp = "http://a:1"\nhttps = "http://b:2"\n')
        assert core_conf_glbl.proxy_enabled is True
        assert core_conf_glbl.get_proxy_conf_tuple() == ("http://a:1", "http://b:2")

    @pytest.mark.parametrize("key", ["http", "https"])
    def test_one_proxy_serves_both(self, conf_file: Path, key: str) -> None:
        """An empty text is no proxy that a client could use."""
        conf_file.write_text(f'[proxy]\nenabled = true\n{key} = "http://a:1"\n')
        assert core_conf_glbl.get_proxy_conf_tuple() == ("http://a:1", "http://a:1")


class TestWorkerAddresses:
    """Where the web-socket client really connects to."""

    def test_without_a_table_there_is_no_address(self) -> None:
        """The client then uses the node's own."""
        assert core_conf_glbl.get_worker_address(node()) is None

    @pytest.mark.parametrize(
        ("table", "address"),
        [
            pytest.param('"*" = "h:1"\nalpha = "h:2"', ("h", 2), id="exact before pattern"),
            pytest.param('"alpha.example" = "h:1"\nu-1 = "h:2"\nalpha = "h:3"', ("h", 3), id="name first"),
            pytest.param('"alpha.example" = "h:1"\nu-1 = "h:2"', ("h", 2), id="uuid before address"),
            pytest.param('"*.example" = "h:1"\n"a*" = "h:2"', ("h", 1), id="first pattern of the file"),
            pytest.param('"[b]*" = "h:1"\n"ALPHA" = "h:2"', None, id="none fits"),
            pytest.param('"u-?" = "[::1]:8855"', ("::1", 8855), id="ipv6"),
        ],
    )
    def test_the_key_that_fits_best_gives_the_address(
        self, conf_file: Path, table: str, address: tuple[str, int] | None
    ) -> None:
        """Exact keys by name, uuid and address, then patterns in the file's order."""
        conf_file.write_text(f"[worker_addresses]\n{table}\n")
        assert core_conf_glbl.get_worker_address(node()) == address

    def test_a_node_without_a_name_is_found_by_its_other_names(self, conf_file: Path) -> None:
        """A record may hold None where a provider gave nothing."""
        conf_file.write_text('[worker_addresses]\n"u-*" = "h:1"\n')
        nameless: Any = node(name=None)  # type: ignore[arg-type]
        assert core_conf_glbl.get_worker_address(nameless) == ("h", 1)

    @pytest.mark.parametrize(
        "value",
        ['"h"', '"h:0"', '"h:65536"', '"h:x"', '":1"', '"::1:80"', '"[h]:1"', '"http://h:1"', "1", '"h :1"'],
    )
    def test_anything_but_host_and_port_is_refused(self, conf_file: Path, value: str) -> None:
        """The key is named, and what an address looks like."""
        conf_file.write_text(f'[worker_addresses]\n"a*" = {value}\n')
        message = refusal()
        assert f'{conf_file}: [worker_addresses] "a*": ' in message
        assert '"host:port"' in message
