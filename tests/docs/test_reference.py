"""What the pages list is what the code has: settings, rights, calls, names, targets, links."""

from __future__ import annotations

import importlib.util
import inspect
import json
import re
from functools import cache
from pathlib import Path
from types import ModuleType
from typing import Any

import pytest
from botocore import xform_name
from botocore.session import Session

from tests.docs.samples import PAGES, ROOT
from tovarincore import cloud_node
from tovarincore.core_conf import Setting, describe_settings
from tovarincore.testing.fakes import FakeEc2Client

DOCS = ROOT / "docs"
LINK = re.compile(r"\]\(([^)#:\s]+)(?:#([\w-]+))?\)")


def page(name: str) -> str:
    """The text of a page."""
    return (DOCS / name).read_text(encoding="utf-8")


@cache
def ec2_operations() -> dict[str, str]:
    """EC2's operations by the names of the client's methods, and by the names of its waiters."""
    session = Session()
    operations = {xform_name(name): name for name in session.get_service_model("ec2").operation_names}
    waiters = session.get_waiter_model("ec2")
    return operations | {
        xform_name(name): waiters.get_waiter(name).operation for name in waiters.waiter_names
    }


def operations_in(text: str, pattern: str) -> set[str]:
    """The EC2 operations among the names that a pattern finds in a source text."""
    return {ec2_operations()[name] for name in re.findall(pattern, text) if name in ec2_operations()}


def sources(folder: Path, ending: str) -> str:
    """The text of all files of a folder with this ending."""
    files = sorted(folder.rglob(f"*{ending}"))
    assert files, folder
    return "\n".join(file.read_text(encoding="utf-8") for file in files)


def actions_of(policy: dict[str, Any]) -> set[str]:
    """The actions that a policy allows."""
    found: set[str] = set()
    for statement in policy["Statement"]:
        actions = statement["Action"]
        found |= {actions} if isinstance(actions, str) else set(actions)
    return found


def policies() -> list[dict[str, Any]]:
    """The policies of the page on rights, in order."""
    blocks = re.findall(r"^```json\n(.*?)^```$", page("iam-policy.md"), re.MULTILINE | re.DOTALL)
    return [json.loads(block) for block in blocks]


def test_the_policy_allows_what_the_extension_asks_of_ec2_and_no_more() -> None:
    """Its actions are the operations named in the sources, tagging, and handing over the profile's role."""
    text = sources(ROOT / "tovarincore" / "cloud_node" / "providers" / "aws", ".cpp")
    called = operations_in(text, r'"([a-z_]+)"_s')
    assert len(called) == 15
    assert '"TagSpecifications"_k' in text and '"IamInstanceProfile"_k' in text
    expected = {f"ec2:{operation}" for operation in called} | {"ec2:CreateTags", "iam:PassRole"}
    assert actions_of(policies()[0]) == expected


def test_the_policy_of_the_command_adds_what_doctor_reads() -> None:
    """Its actions are those that the command asks for beyond the facade's."""
    called = operations_in(sources(ROOT / "tovarincore" / "command", ".py"), r"client\.([a-z_]+)\(")
    assert actions_of(policies()[1]) == {f"ec2:{operation}" for operation in called} - actions_of(
        policies()[0]
    )


def test_the_policy_names_the_tags_that_a_launch_and_a_dry_run_carry() -> None:
    """Conditions look at the tag of the sources, and let the dry run's user name pass."""
    launch = next(entry for entry in policies()[0]["Statement"] if entry["Sid"] == "LaunchUnderOneUserName")
    (condition,) = launch["Condition"]["StringEquals"].items()
    assert condition == ("aws:RequestTag/tovarin_username", ["ada", "dry_run"])
    folder = ROOT / "tovarincore" / "cloud_node"
    assert '"tovarin_username"_s' in sources(folder / "providers" / "aws", ".cpp")
    assert '"dry_run"_s' in sources(folder / "facade", ".cpp")


def module_of_docs(name: str) -> ModuleType:
    """A module beside the pages, which writes a part of them."""
    spec = importlib.util.spec_from_file_location(name, DOCS / f"{name}.py")
    assert spec is not None and spec.loader is not None
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


@pytest.mark.parametrize("setting", list(describe_settings()), ids=lambda setting: setting.name)
def test_every_setting_stands_in_the_reference(setting: Setting, tmp_path: Path) -> None:
    """Its row stands under its section and gives default, allowed values and meaning."""
    path = tmp_path / "made" / "settings.md"
    module_of_docs("settings_tables").write_settings_tables(path)
    section = path.read_text(encoding="utf-8").split(f"### `[{setting.section}]`\n")[1].split("###")[0]
    (row,) = (line for line in section.splitlines() if line.startswith(f"| `{setting.key}` |"))
    _key, default, value, meaning = (cell.strip() for cell in row.strip("|").split(" | "))
    assert default.strip("`").lower() == (
        str(setting.default).lower() if setting.default not in ("", {}) else "empty"
    )
    assert meaning == setting.doc
    for allowed in setting.allowed or ():
        assert f"`{allowed}`" in value
    assert setting.unit in value
    assert setting.minimum is None or str(setting.minimum) in value
    assert ("secret" in value) is setting.secret


def test_the_page_on_configuration_includes_the_reference() -> None:
    """The generated tables are part of the page."""
    assert "```{include} _generated/settings.md\n```" in page("configuration.md")


def public_methods(cls: type) -> list[str]:
    """The methods of a class that callers use."""
    return [name for name, member in vars(cls).items() if not name.startswith("_") and callable(member)]


def test_every_call_of_the_facade_stands_in_the_table() -> None:
    """Each stands at the beginning of a row or of a paragraph, which names its parameters in order."""
    rows = [line for line in page("facade.md").splitlines() if line.startswith(("| `", "`"))]
    for name in public_methods(cloud_node.CloudManager):
        parameters = list(inspect.signature(getattr(cloud_node.CloudManager, name)).parameters)[1:]
        shown = [match for row in rows for match in re.findall(rf"`{name}\(([^)]*)\)`", row.split(" | ")[0])]
        assert shown, name
        named = [part.split("=")[0].strip() for part in shown[0].split(",")]
        assert named == parameters[: len(named)], name


def test_the_surface_of_the_siblings_is_what_the_extension_binds() -> None:
    """The page lists module by module the names that the extension imports, in its order."""
    source = sources(ROOT / "tovarincore" / "cloud_node" / "contracts", ".cpp")
    bound = {
        module: re.findall(r'"(\w+)"_s', names)
        for module, names in re.findall(
            r'bind\(\{"tovarincore\.(\w+)"_s,\s*\{(.*?)\}\}\);', source, re.DOTALL
        )
    }
    assert len(bound) == 9
    surface = page("siblings.md").split("### Records")[0]
    listed = {
        module: re.findall(r"`(\w+)`", names)
        for module, names in re.findall(r"^\| `(\w+)` \| (.*) \|$", surface, re.MULTILINE)
    }
    assert listed == bound


def test_every_make_target_is_described() -> None:
    """The README and the Makefile name the same targets, besides help and setup, which need no line."""
    targets = set(re.findall(r"^([a-z-]+):.*## ", (ROOT / "Makefile").read_text(), re.MULTILINE))
    readme = (ROOT / "README.md").read_text(encoding="utf-8")
    assert set(re.findall(r"`make ([a-z-]+)`", readme)) - {"help"} == targets - {"help", "setup"}


def test_every_dependency_has_a_reason() -> None:
    """Each package that this one needs is named in the README."""
    project = (ROOT / "pyproject.toml").read_text().split("[tool.")[0]
    readme = (ROOT / "README.md").read_text(encoding="utf-8")
    for name in re.findall(r'"([\w-]+)>=', project):
        assert f"`{name}`" in readme, name


@pytest.mark.parametrize("name", ["security.md", "kubernetes.md"])
def test_every_test_that_holds_off_a_threat_exists(name: str) -> None:
    """The tables of threats name files of tests, and functions in them; no row is without one."""
    rows = re.findall(r"^\| (?!threat|---)[^|]+ \| [^|]+ \| ([^|]*test_[^|]*) \|$", page(name), re.MULTILINE)
    assert len(rows) >= 10
    tests = [
        test for row in rows for test in re.findall(r"`(?:tests/)?([\w/]*test_\w+\.py)(?:::(\w+))?`", row)
    ]
    assert len(tests) >= len(rows)
    for file, function in tests:
        path = ROOT / "tests" / file
        path = path if path.exists() else ROOT / "tests" / "siblings" / file
        assert path.exists(), file
        assert not function or f"def {function}(" in path.read_text(encoding="utf-8"), function


def anchors(text: str) -> set[str]:
    """The anchors of a page's headings."""
    headings = re.findall(
        r"^#+ (.*)$", re.sub(r"^```.*?^```$", "", text, flags=re.MULTILINE | re.DOTALL), re.MULTILINE
    )
    return {re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-") for heading in headings}


@pytest.mark.parametrize("file", [file for file in PAGES if file.exists()], ids=lambda file: file.name)
def test_every_link_leads_somewhere(file: Path) -> None:
    """Files that a page links exist, and so do the headings."""
    for target, anchor in LINK.findall(file.read_text(encoding="utf-8")):
        linked = file.parent / target
        assert linked.exists(), target
        assert not anchor or anchor in anchors(linked.read_text(encoding="utf-8")), f"{target}#{anchor}"


def test_the_reference_shows_types_for_each_method() -> None:
    """Those of the stub, without the shorthands that it uses inside."""
    typed = module_of_docs("stub_signatures").typed_signatures(
        ROOT / "tovarincore" / "cloud_node.pyi", "tovarincore.cloud_node"
    )
    name = "tovarincore.cloud_node.CloudManager"
    assert typed[f"{name}.get_node_list"] == ("(region: CloudRegion)", "list[CloudNode]")
    assert typed[f"{name}.list_instances"][1] == "tuple[list[CloudNode] | None, OPResult]"
    public = [key for key in vars(cloud_node.CloudManager) if not key.startswith("_")]
    assert [key for key in public if f"{name}.{key}" not in typed] == []


def test_every_page_is_in_the_index() -> None:
    """No page is left out of the table of contents."""
    listed = set(re.findall(r"^([a-z-]+)$", page("index.md"), re.MULTILINE))
    assert listed == {file.stem for file in DOCS.glob("*.md")} - {"index"}


def test_the_ec2_for_users_tests_answers_every_request_of_the_extension() -> None:
    """The fake client has each operation that the sources call, and the way to a waiter."""
    text = sources(ROOT / "tovarincore" / "cloud_node" / "providers" / "aws", ".cpp")
    called = {name for name in re.findall(r'"([a-z_]+)"_s', text) if name in ec2_operations()}
    assert called - {"instance_status_ok"} | {"get_waiter"} <= set(dir(FakeEc2Client))


def test_the_texts_of_the_troubleshooting_page_are_those_of_the_sources() -> None:
    """Each sentence that a reader may look up is one that the package says."""
    texts = re.findall(r"^\| `([^`]+)`", page("troubleshooting.md"), re.MULTILINE)
    said = sources(ROOT / "tovarincore", ".py") + sources(ROOT / "tovarincore" / "cloud_node", ".cpp")
    # A sentence of a source may go on in the next line.
    said = re.sub(r'"\s*\n\s*f?"', "", said)
    sentences = [text for text in texts if " " in text]
    assert len(sentences) >= 8
    assert [text for text in sentences if text not in said and text != "cannot import name"] == []


@pytest.mark.parametrize(
    "row",
    [
        line
        for line in (ROOT / "CONTRIBUTING.md").read_text(encoding="utf-8").splitlines()
        if re.match(r"\| (?!where is|---).*`", line)
    ],
    ids=lambda row: row.split("|")[1].strip(),
)
def test_what_a_newcomer_looks_for_is_where_the_table_says(row: str) -> None:
    """Each row names files, and what to look for in them."""
    places = re.findall(r"`([^`]+)`", row)
    homes = (ROOT / "tovarincore" / "cloud_node", ROOT / "tovarincore")
    found = {place: home / place for place in places for home in homes if (home / place).exists()}
    assert found, row
    text = "".join(path.read_text(encoding="utf-8") for path in found.values() if path.is_file())
    for name in set(places) - set(found):
        assert re.search(rf"\b{name}\(", text), f"{name} is not in {[*found]}"
