"""A browser that is steered, and esmcmap for it to look at: what the tests of the page and the pictures of it share."""

import json
import pathlib
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
MODULES = ROOT / "build/browser"
sys.path.insert(0, str(ROOT / "tools"))

from lab import build_dir  # noqa: E402


def missing():
    """Why no browser can be steered here; empty when one can."""
    if not shutil.which("chromium") or not shutil.which("node"):
        return "no Chromium or no node here"
    if not (MODULES / "node_modules").exists():
        return "no browser driver: npm has not fetched it"
    return "" if (build_dir() / "bin/esmcmap").exists() else "no esmcmap in this build"


class Browser:
    def __init__(self):
        self.process = subprocess.Popen(["node", str(ROOT / "tests/map/browser.js"), str(MODULES), shutil.which("chromium")],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def __call__(self, command, **more):
        self.process.stdin.write(json.dumps({"do": command, **more}) + "\n")
        self.process.stdin.flush()
        answer = json.loads(self.process.stdout.readline())
        assert "error" not in answer, answer["error"]
        return answer.get("value")

    def eval(self, js):
        return self("eval", js=js)

    def wait(self, js, seconds=20):
        return self("wait", js=js, ms=seconds * 1000)

    def press(self, *keys):
        for key in keys:
            self("press", key=key)

    def quiet(self, url):
        """That nothing was complained of, and nothing asked of anybody but the server."""
        log = self("log")
        assert log["complaints"] == []
        assert [one for one in log["requests"] if not one.startswith((url, "data:"))] == []
        return log

    def close(self):
        self.process.stdin.close()
        self.process.wait(60)
        self.process.stdout.close()
