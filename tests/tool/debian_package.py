#!/usr/bin/env python3
"""The Debian packages as a user meets them: built with cpack, installed with
dpkg (into a scratch root, so that the machine is left alone), their files and
relations checked, the installed weft tool and Python module run, then
removed. (Building against an installed tree is
InstalledPackage.BuildsAndRunsTheExamples' business.)

    debian_package.py --cpack CPACK --build-dir DIR --work-dir DIR --libdir lib/ARCH
"""
import argparse
import glob
import gzip
import os
import shutil
import subprocess
import sys
import unittest

ARGS = None


def run(*command, **kwargs):
    result = subprocess.run(command, capture_output=True, text=True, timeout=300, **kwargs)
    if result.returncode != 0:
        raise AssertionError("failed: %s\n%s\n%s" % (" ".join(command), result.stdout, result.stderr))
    return result.stdout


class DebianPackageTest(unittest.TestCase):
    def setUp(self):
        shutil.rmtree(ARGS.work_dir, ignore_errors=True)
        self.root = os.path.join(ARGS.work_dir, "root")
        for folder in ("info", "updates", "triggers"):
            os.makedirs(os.path.join(self.root, "var/lib/dpkg", folder))
        open(os.path.join(self.root, "var/lib/dpkg/status"), "w").close()
        # Only the files and the packages' own relations are checked here:
        # the scratch root holds no libc to depend on.
        self.dpkg = ["dpkg", "--root=" + self.root, "--force-not-root", "--force-script-chrootless",
                     "--force-depends", "--log=/dev/null"]
        # The library package calls ldconfig after install and removal: in a
        # scratch root that has nothing to do, and the machine's cache stays
        # as it is.
        ldconfig = os.path.join(ARGS.work_dir, "bin", "ldconfig")
        os.makedirs(os.path.dirname(ldconfig))
        with open(ldconfig, "w") as fake:
            fake.write("#!/bin/sh\nexit 0\n")
        os.chmod(ldconfig, 0o755)
        self.dpkg_env = dict(os.environ, PATH=os.path.dirname(ldconfig) + os.pathsep + os.environ["PATH"])

    def test_packages_install_hold_their_files_run_and_remove_cleanly(self):
        run(ARGS.cpack, "-G", "DEB", "--config", os.path.join(ARGS.build_dir, "CPackConfig.cmake"),
            "-B", ARGS.work_dir)
        debs = {run("dpkg-deb", "--field", path, "Package").strip(): path
                for path in glob.glob(os.path.join(ARGS.work_dir, "*.deb"))}
        python = ["python3-weft"] if ARGS.python_module == "1" else []
        if not python and "python3-weft" in debs:
            # A build without the module (a sanitizer's) still gets the
            # component's package from CPack: it must hold no file.
            contents = run("dpkg-deb", "--contents", debs.pop("python3-weft"))
            self.assertNotIn("weft.", contents)
        self.assertEqual(sorted(debs), sorted(["libweft-dev", "libweft1", "weft-tools"] + python))
        version = run("dpkg-deb", "--field", debs["libweft1"], "Version").strip()
        for package in ["libweft-dev", "weft-tools"] + python:
            self.assertIn("libweft1 (= %s)" % version,
                          run("dpkg-deb", "--field", debs[package], "Depends"), package)

        run(*self.dpkg, "--install", *debs.values(), env=self.dpkg_env)
        libdir = "usr/" + ARGS.libdir
        owned = {package: run(*self.dpkg, "--listfiles", package).split()
                 for package in debs}
        expected = {
            "libweft1": ["/%s/libweftlib.so.1" % libdir, "/usr/share/doc/libweft1/copyright"],
            "libweft-dev": ["/%s/libweftlib.so" % libdir, "/usr/include/weft/WEFTConnection.h",
                            "/usr/include/weft/platform/tavo/Thread.h",
                            "/%s/cmake/weft/weftConfig.cmake" % libdir,
                            "/%s/pkgconfig/weft.pc" % libdir, "/usr/share/doc/libweft-dev/copyright"],
            "weft-tools": ["/usr/bin/weft", "/usr/share/man/man1/weft.1.gz",
                           "/usr/share/bash-completion/completions/weft",
                           "/usr/share/doc/weft-tools/copyright"],
        }
        if python:
            expected["python3-weft"] = ["/usr/share/doc/python3-weft/copyright"]
            modules = [path for path in owned["python3-weft"]
                       if path.startswith("/usr/lib/python3/dist-packages/weft.")]
            self.assertEqual(len(modules), 1, owned["python3-weft"])
            # It imports from where it is installed and finds the library without help.
            site = os.path.join(self.root, "usr/lib/python3/dist-packages")
            where = run(sys.executable, "-c", "import weft; print(weft.__file__)", cwd=self.root,
                        env={"PATH": os.environ["PATH"], "PYTHONPATH": site})
            self.assertTrue(where.startswith(site), where)
        for package, files in expected.items():
            for path in files:
                self.assertIn(path, owned[package], package)
        self.assertFalse(os.path.exists(os.path.join(self.root, "usr/include/tavo")))
        with gzip.open(os.path.join(self.root, "usr/share/man/man1/weft.1.gz"), "rt") as man:
            self.assertIn(".SH EXIT STATUS", man.read())

        # What a user of the installed package would type, minus the root.
        pc_env = dict(os.environ, PKG_CONFIG_LIBDIR=os.path.join(self.root, libdir, "pkgconfig"))
        self.assertEqual(run("pkg-config", "--cflags", "--libs", "weft", env=pc_env).split(),
                         ["-I/usr/include/weft/platform", "-lweftlib"])
        # The packaged tool finds the packaged library, and its demo checks every step on both
        # transports (and exits 0, under the build's sanitizer too).
        demo = run(os.path.join(self.root, "usr/bin/weft"), "demo").splitlines()
        self.assertEqual(sum(line.startswith("=== ") for line in demo), 2, demo)
        self.assertEqual(demo[-1], "demo finished: every step was seen")

        run(*self.dpkg, "--purge", *debs, env=self.dpkg_env)
        left = [os.path.join(folder, name) for folder, _, names in os.walk(os.path.join(self.root, "usr"))
                for name in names]
        self.assertEqual(left, [])


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    for option in ("--cpack", "--build-dir", "--work-dir", "--libdir"):
        parser.add_argument(option, required=True)
    parser.add_argument("--python-module", default="0", help="1 when the Python module is built")
    ARGS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0]] + rest)
