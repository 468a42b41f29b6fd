"""The examples described in code, through Python and through C, render what
their scene directories render."""

import subprocess

import pytest

import lumivane as lv
from conftest import BUILD, assert_same_within_noise, example_host, render_directory, render_in_code


@pytest.fixture(scope="module")
def spotlight_directory(tmp_path_factory):
    return render_directory("spotlight", tmp_path_factory.mktemp("spotlight") / "scene", 80, 64, 16)


def test_cornell_in_python_renders_as_its_directory(tmp_path):
    from_files = render_directory("cornell", tmp_path / "files", 64, 64, 16)
    in_code = render_in_code(example_host("cornell").describe, tmp_path / "code", 64, 64, 16)
    assert_same_within_noise(from_files, in_code)


def test_spotlight_in_python_renders_as_its_directory(tmp_path, spotlight_directory):
    in_code = render_in_code(example_host("spotlight").describe, tmp_path / "code", 80, 64, 16)
    assert_same_within_noise(spotlight_directory, in_code)


def test_spotlight_in_c_renders_as_its_directory(tmp_path, spotlight_directory):
    host = BUILD / "example-spotlight-host"
    if not host.exists():
        pytest.skip(f"no {host}: the C host is built with the library")
    subprocess.run([str(host), "80", "64", "16"], cwd=tmp_path, check=True, stdout=subprocess.DEVNULL)
    assert_same_within_noise(spotlight_directory, lv.read_image(tmp_path / "beauty.hdr"))
