#!/usr/bin/env python3
"""zarvo-host inspect in a real browser: tethrix-service with a small sample
library, zarvo-host inspect on it, and headless Chromium showing the page,
driven through its DevTools protocol. Exits 77 (skipped) when Chromium or
python3-websocket is missing; scripts/setup installs both.

    inspect_page_test.py --build BUILD_DIR [--screenshot FILE.png]
"""

import argparse
import json
import os
import shutil
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import time
import urllib.request

SKIPPED = 77
SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
TRACKS = 6000
TRACKS_LIST = '.list[data-path="Root.tracks"]'


def skip(why):
    print("SKIPPED: " + why + "; scripts/setup installs it")
    sys.exit(SKIPPED)


try:
    import websocket
except ImportError:
    # Debian's package, for an interpreter that is not Debian's own.
    sys.path.append("/usr/lib/python3/dist-packages")
    try:
        import websocket
    except ImportError:
        skip("the Python module websocket (Debian's python3-websocket) is missing")


class Failure(Exception):
    pass


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def read_line_until(stream, prefix, process, what):
    """The first line of `stream` that holds `prefix`, from there on."""
    deadline = time.monotonic() + 30
    while time.monotonic() < deadline:
        line = stream.readline()
        if not line:
            raise Failure("%s ended before saying %r (exit %s)" % (what, prefix, process.poll()))
        if prefix in line:
            return line[line.index(prefix) + len(prefix):].strip()
    raise Failure("%s did not say %r" % (what, prefix))


class Page:
    """One browser tab, through the DevTools protocol."""

    def __init__(self, url):
        self.socket = websocket.create_connection(url, timeout=30, suppress_origin=True)
        self.sequence = 0

    def call(self, method, **params):
        self.sequence += 1
        self.socket.send(json.dumps({"id": self.sequence, "method": method, "params": params}))
        while True:
            message = json.loads(self.socket.recv())
            if message.get("id") == self.sequence:
                if "error" in message:
                    raise Failure("%s: %s" % (method, message["error"]))
                return message["result"]

    def evaluate(self, expression):
        result = self.call("Runtime.evaluate", expression=expression, returnByValue=True)
        if "exceptionDetails" in result:
            raise Failure("the page threw: %s" % result["exceptionDetails"])
        return result["result"].get("value")

    def wait_for(self, expression, what, limit=20.0):
        """The first truthy value of `expression`, polled; the seconds it took."""
        start = time.monotonic()
        while True:
            value = self.evaluate(expression)
            if value:
                return value, time.monotonic() - start
            if time.monotonic() - start > limit:
                raise Failure("the page never showed " + what)
            time.sleep(0.02)


def row_titles(first, count):
    """JS: the titles of the filled rows first..first+count-1 of the tracks list, or null."""
    return ("(() => { const titles = []; for (let i = %d; i < %d; ++i) {"
            " const f = document.querySelector('%s .row[data-index=\"' + i + '\"]:not(.placeholder)"
            " .field[data-name=\"title\"]');"
            " if (!f) return null; titles.push(JSON.parse(f.lastChild.textContent)); } return titles; })()"
            % (first, first + count, TRACKS_LIST))


def panel(stat):
    return "Number(document.querySelector('%s [data-stat=\"%s\"]').textContent) || 0" % (TRACKS_LIST, stat)


def run(arguments, work, processes):
    chromium = shutil.which("chromium") or shutil.which("chromium-browser")
    if not chromium:
        skip("the browser chromium is missing")
    binaries = os.path.join(arguments.build, "bin")
    port = free_port()
    files_url = "http://127.0.0.1:%d/" % port
    library = os.path.join(work, "library")
    subprocess.run([os.path.join(SOURCE, "examples", "generate-media-library"), "--tracks", str(TRACKS),
                    "--covers", "4", "--quiet", "--output", library, "--files-url", files_url], check=True)
    with open(os.path.join(SOURCE, "examples", "media.xml")) as source:
        config = source.read().replace("http://127.0.0.1:8080/", files_url)
    config_path = os.path.join(work, "media.xml")
    with open(config_path, "w") as out:
        out.write(config)

    def start_service():
        service = subprocess.Popen(
            [os.path.join(binaries, "tethrix-service"), "--db", os.path.join(library, "media.db"),
             "--files", os.path.join(library, "files"), "--port", str(port),
             "--runtime", os.path.join(SOURCE, "examples", "player.xml")],
            stdout=subprocess.PIPE, stderr=open(os.path.join(work, "service.log"), "a"), text=True)
        processes.append(service)
        read_line_until(service.stdout, "listening on", service, "tethrix-service")
        return service

    service = start_service()
    host = subprocess.Popen(
        [os.path.join(binaries, "zarvo-host"), "inspect", "--port", "0", "--config", config_path,
         "--declaration", "@" + os.path.join(SOURCE, "examples", "player.xml"), "--service", "127.0.0.1:%d" % port],
        stdout=subprocess.PIPE, stderr=open(os.path.join(work, "host.log"), "w"), text=True)
    processes.append(host)
    page_url = read_line_until(host.stdout, "inspector at ", host, "zarvo-host inspect")

    browser = subprocess.Popen(
        [chromium, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         "--disable-dev-shm-usage", "--remote-allow-origins=*", "--user-data-dir=" + os.path.join(work, "profile"),
         "--remote-debugging-port=0", "--window-size=1280,860", "about:blank"],
        stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    processes.append(browser)
    devtools = read_line_until(browser.stderr, "DevTools listening on ", browser, "chromium")
    debug_port = devtools.split(":")[2].split("/")[0]
    with urllib.request.urlopen("http://127.0.0.1:%s/json/list" % debug_port) as answer:
        target = next(t for t in json.load(answer) if t["type"] == "page")
    page = Page(target["webSocketDebuggerUrl"])
    page.call("Page.enable")
    page.call("Page.navigate", url=page_url)

    database = sqlite3.connect(os.path.join(library, "media.db"))
    ordered = "SELECT title FROM tracks ORDER BY title, id LIMIT ? OFFSET ?"

    first_title = database.execute(ordered, (1, 0)).fetchone()[0]
    titles, took = page.wait_for(row_titles(0, 1), "the first track's title")
    if titles != [first_title]:
        raise Failure("row 0 shows %r, the first track is %r" % (titles, first_title))
    print("ok: the tracks list shows the first track, %r, %.2f s after loading the page" % (first_title, took))

    volume = ".node[data-path$='.volume'] .value"
    page.wait_for("document.querySelector(\"%s\") !== null" % volume, "the runtime value volume")
    request = urllib.request.Request(files_url + "runtime/player", data=b'{"values":{"volume":77}}', method="POST")
    published = time.monotonic()
    urllib.request.urlopen(request).read()
    page.wait_for("document.querySelector(\"%s\").textContent === '77'" % volume, "the published volume 77")
    took = time.monotonic() - published
    if took >= 1.0:
        raise Failure("the published value took %.2f s to show" % took)
    print("ok: a value published on the service showed after %.3f s" % took)

    queries_before = page.evaluate(panel("sent"))
    page.evaluate("inspector.scrollList('Root.tracks', 5000)")
    expected = [row[0] for row in database.execute(ordered, (5, 5000))]
    titles, took = page.wait_for(row_titles(5000, 5), "rows 5000 to 5004 filled")
    if titles != expected:
        raise Failure("rows 5000 to 5004 show %r, not %r" % (titles, expected))
    queries_after = page.evaluate(panel("sent"))
    if queries_after <= queries_before:
        raise Failure("the panel's query count stayed at %s while scrolling to row 5000" % queries_after)
    print("ok: rows 5000 to 5004 filled with the right titles %.2f s after scrolling there; "
          "queries %s -> %s" % (took, queries_before, queries_after))

    width, took = page.wait_for(
        "Math.max(0, ...Array.from(document.querySelectorAll('%s img.cover')).map(i => i.naturalWidth))"
        % TRACKS_LIST, "a cover image")
    print("ok: a cover image is %d pixels wide" % width)

    if arguments.screenshot:
        page.evaluate("inspector.scrollList('Root.tracks', 4998);"
                      "document.querySelector('%s').scrollIntoView({block: 'center'})" % TRACKS_LIST)
        page.wait_for(row_titles(4998, 4), "rows 4998 to 5001")
        time.sleep(0.5)
        shot = page.call("Page.captureScreenshot", format="png")
        with open(arguments.screenshot, "wb") as out:
            import base64
            out.write(base64.b64decode(shot["data"]))
        print("ok: screenshot written to " + arguments.screenshot)

    flag = "document.querySelector('#connected').dataset.value"
    service.send_signal(signal.SIGKILL)
    service.wait()
    stopped = time.monotonic()
    page.wait_for(flag + " === 'false'", "the flag false after the service was killed")
    print("ok: the flag turned false %.2f s after the service was killed" % (time.monotonic() - stopped))
    restarted = time.monotonic()
    start_service()
    page.wait_for(flag + " === 'true'", "the flag true after the service came back")
    print("ok: the flag turned true %.2f s after the service was restarted" % (time.monotonic() - restarted))

    # A clean end: every row released and the tree let go (a sanitizer
    # build reports what was not).
    host.send_signal(signal.SIGTERM)
    status = host.wait(timeout=30)
    if status != 0:
        raise Failure("zarvo-host inspect exited with status %d on SIGTERM" % status)
    print("ok: zarvo-host inspect ended cleanly on SIGTERM")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", required=True, help="the build directory")
    parser.add_argument("--screenshot", help="also write a PNG of the page to this file")
    arguments = parser.parse_args()
    work = tempfile.mkdtemp(prefix="zarvo-inspect-")
    processes = []
    started = time.monotonic()
    try:
        run(arguments, work, processes)
    except Failure as failure:
        print("FAILED: %s" % failure)
        for log in ("host.log", "service.log"):
            path = os.path.join(work, log)
            if os.path.exists(path):
                with open(path) as text:
                    print("--- last lines of %s:\n%s" % (log, "".join(text.readlines()[-30:])))
        return 1
    finally:
        for process in reversed(processes):
            if process.poll() is None:
                process.terminate()
                try:
                    process.wait(timeout=10)
                except subprocess.TimeoutExpired:
                    process.kill()
        shutil.rmtree(work, ignore_errors=True)
    print("all checks passed in %.1f s" % (time.monotonic() - started))
    return 0


if __name__ == "__main__":
    sys.exit(main())
