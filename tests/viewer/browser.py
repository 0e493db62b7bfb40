"""A headless Chromium, driven over the WebDriver protocol as chromedriver speaks it."""

import base64
import json
import shutil
import subprocess
import tempfile
import urllib.error
import urllib.request

CHROMIUM, DRIVER = shutil.which("chromium"), shutil.which("chromedriver")
# What would reach for the network by itself, and what needs more than a container has.
FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
         "--disable-component-update", "--disable-sync", "--disable-dev-shm-usage"]
ELEMENT = "element-6066-11e4-a52e-4f735466cecf"
KEYS = {"Enter": "\ue007", "Tab": "\ue004", "Escape": "\ue00c", "Up": "\ue013", "Down": "\ue015", "Left": "\ue012", "Right": "\ue014",
        "Home": "\ue011", "End": "\ue010", "Shift": "\ue008"}


def why_not():
    """Why there is no browser here; nothing where there is one."""
    if not CHROMIUM or not DRIVER:
        return "chromium and chromium-driver are not installed"
    return None


class Browser:
    def __init__(self):
        self.profile = tempfile.TemporaryDirectory(prefix="quorvix-browser-", ignore_cleanup_errors=True)
        self.driver = subprocess.Popen([DRIVER, "--port=0"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.session = None
        try:
            self.base = f"http://127.0.0.1:{self.port()}"
            options = {"binary": CHROMIUM, "args": [*FLAGS, f"--user-data-dir={self.profile.name}"]}
            wanted = {"browserName": "chrome", "goog:chromeOptions": options,
                      "goog:loggingPrefs": {"browser": "ALL", "performance": "ALL"}}
            self.session = self.call("POST", "/session", {"capabilities": {"alwaysMatch": wanted}})["sessionId"]
        except BaseException:
            self.close()
            raise

    def port(self):
        """It says on which port it listens, once it does."""
        for line in self.driver.stdout:
            if "on port" in line and "successfully" in line:
                return int(line.rstrip(".\n").rpartition(" ")[2])
        raise RuntimeError("chromedriver ended before it listened")

    def close(self):
        try:
            if self.session:
                self.call("DELETE", f"/session/{self.session}")
        finally:
            self.driver.terminate()
            self.driver.wait()
            self.driver.stdout.close()
            self.profile.cleanup()

    def call(self, method, path, body=None):
        request = urllib.request.Request(self.base + path, method=method, headers={"Content-Type": "application/json"},
                                         data=None if body is None else json.dumps(body).encode())
        # Straight to the driver, whatever proxy the environment names.
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        try:
            with opener.open(request, timeout=120) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            raise RuntimeError(json.load(error)["value"]["message"]) from None

    def post(self, path, body):
        return self.call("POST", f"/session/{self.session}{path}", body)

    def protocol(self, command, **parameters):
        return self.post("/goog/cdp/execute", {"cmd": command, "params": parameters})

    def look(self, scheme="light", width=1200, height=900, motion="no-preference"):
        self.protocol("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": scheme},
                                                              {"name": "prefers-reduced-motion", "value": motion}])
        self.protocol("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=width < 600)

    def open(self, page, anchor=""):
        # From nothing: another anchor of the same page would not load it again.
        self.post("/url", {"url": "about:blank"})
        self.post("/url", {"url": page.resolve().as_uri() + anchor})

    def run(self, script, *arguments):
        return self.post("/execute/sync", {"script": script, "args": list(arguments)})

    def press(self, *names):
        """Keys one after the other, to whatever has the focus."""
        actions = []
        for name in names:
            key = KEYS.get(name, name)
            actions += [{"type": "keyDown", "value": key}, {"type": "keyUp", "value": key}]
        self.post("/actions", {"actions": [{"type": "key", "id": "keyboard", "actions": actions}]})

    def log(self, kind):
        return self.post("/se/log", {"type": kind})

    def errors(self):
        return [entry["message"] for entry in self.log("browser")]

    def requests(self):
        """Every address that pages asked for since the last call."""
        found = []
        for entry in self.log("performance"):
            message = json.loads(entry["message"])["message"]
            if message["method"] == "Network.requestWillBeSent":
                found.append(message["params"]["request"]["url"])
        return found

    def picture(self, path):
        width, height = self.run("return [innerWidth, document.documentElement.scrollHeight]")
        clip = {"x": 0, "y": 0, "width": width, "height": min(height, 6000), "scale": 1}
        data = self.protocol("Page.captureScreenshot", captureBeyondViewport=True, clip=clip)["data"]
        path.write_bytes(base64.b64decode(data))
