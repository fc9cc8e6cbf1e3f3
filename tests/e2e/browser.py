# SPDX-License-Identifier: MIT
"""Debian's headless chromium driven through chromium-driver, in plain WebDriver over HTTP
(urllib only): open a page, run a script in it, take a screenshot."""
import base64
import json
import os
import shutil
import socket
import subprocess
import time
import urllib.request

CHROMIUM = "/usr/bin/chromium"
CHROMEDRIVER = "/usr/bin/chromedriver"
START_TIMEOUT_S = 20


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def missing():
    """Why the browser cannot run here, or None."""
    for program in (CHROMIUM, CHROMEDRIVER):
        if not shutil.which(program):
            return f"{program} is not installed (chromium, chromium-driver)"
    return None


class Browser:
    """One chromium session of the given window size; ends with the with-block."""

    def __init__(self, width=1280, height=900, preexec_fn=None):
        self.size = (width, height)
        self.preexec_fn = preexec_fn
        self.port = free_port()
        self.driver = None
        self.session = None

    def __enter__(self):
        self.driver = subprocess.Popen([CHROMEDRIVER, f"--port={self.port}"],
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                       preexec_fn=self.preexec_fn)
        deadline = time.monotonic() + START_TIMEOUT_S
        while True:
            try:
                self.call("GET", "/status")
                break
            except OSError:
                if time.monotonic() > deadline:
                    self.__exit__()
                    raise RuntimeError("chromedriver did not start")
                time.sleep(0.1)
        arguments = ["--headless=new", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
                     f"--window-size={self.size[0]},{self.size[1]}"]
        if os.geteuid() != 0:
            arguments.remove("--no-sandbox")
        capabilities = {"capabilities": {"alwaysMatch": {
            "browserName": "chrome",
            "goog:chromeOptions": {"binary": CHROMIUM, "args": arguments}}}}
        self.session = self.call("POST", "/session", capabilities)["sessionId"]
        return self

    def __exit__(self, *exc):
        if self.session:
            try:
                self.call("DELETE", f"/session/{self.session}")
            except OSError:
                pass
        if self.driver:
            self.driver.terminate()
            try:
                self.driver.wait(5)
            except subprocess.TimeoutExpired:
                self.driver.kill()
                self.driver.wait()

    def call(self, method, path, body=None):
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request(f"http://127.0.0.1:{self.port}{path}", data=data,
                                         method=method,
                                         headers={"Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=60) as reply:
            return json.loads(reply.read() or b"{}").get("value", {})

    def open(self, url):
        self.call("POST", f"/session/{self.session}/url", {"url": url})

    def run(self, script, *arguments):
        """The value the script returns (its body, as in a function)."""
        return self.call("POST", f"/session/{self.session}/execute/sync",
                         {"script": script, "args": list(arguments)})

    def wait_for(self, script, timeout_s=20):
        """The script's first truthy value, polled until the time-out."""
        deadline = time.monotonic() + timeout_s
        while True:
            value = self.run(script)
            if value:
                return value
            if time.monotonic() > deadline:
                raise AssertionError(f"the page never satisfied: {script}")
            time.sleep(0.2)

    def screenshot(self, path):
        png = base64.b64decode(self.call("GET", f"/session/{self.session}/screenshot"))
        with open(path, "wb") as stream:
            stream.write(png)
        return png
