"""A wheel with the modules in it is one for their system, with any Python of it. Everything else is in pyproject.toml."""
import pathlib

from setuptools import setup
from wheel.bdist_wheel import bdist_wheel


class Wheel(bdist_wheel):
    def finalize_options(self):
        super().finalize_options()
        self.root_is_pure = not [file for file in pathlib.Path("qoma").iterdir() if file.suffix in (".so", ".dll")]

    def get_tag(self):
        return "py3", "none", super().get_tag()[2]


setup(cmdclass={"bdist_wheel": Wheel})
