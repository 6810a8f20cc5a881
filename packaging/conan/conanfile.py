"""An example: the libraries for Conan 2, from the source that this file is in. GLib and libsystemd are the
system's.
"""
import os

from conan import ConanFile
from conan.tools.cmake import CMake, CMakeToolchain, cmake_layout
from conan.tools.files import copy


class TevrolDbusRemote(ConanFile):
    name = "tevrol-dbus-remote"
    version = "1.1.0"
    license = "MIT"
    description = "Point-to-point message channel between two processes over D-Bus"
    package_type = "library"
    settings = "os", "arch", "compiler", "build_type"
    options = {"shared": [True, False]}
    default_options = {"shared": False}

    def export_sources(self):
        source = os.path.join(self.recipe_folder, "..", "..")
        for pattern in ("CMakeLists.txt", "LICENSE", "*.md", "cmake/*", "docs/*", "examples/*",
                        "packaging/*", "src/*", "tests/sanitizers/*"):
            copy(self, pattern, source, self.export_sources_folder)

    def layout(self):
        cmake_layout(self)

    def generate(self):
        toolchain = CMakeToolchain(self)
        toolchain.cache_variables["TEVROL_DEVELOPMENT"] = False
        toolchain.generate()

    def build(self):
        cmake = CMake(self)
        cmake.configure()
        cmake.build()

    def package(self):
        CMake(self).install()

    def package_info(self):
        # The CMake packages that are installed say all that an application needs.
        self.cpp_info.set_property("cmake_find_mode", "none")
        self.cpp_info.builddirs = [os.path.join("lib", "cmake")]
