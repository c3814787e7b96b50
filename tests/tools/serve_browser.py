#!/usr/bin/env python3
"""The live view in a real browser: headless Chromium, driven over its
DevTools protocol, against 'akudoa serve' fed a simulated one-source scene.
Usage: serve_browser.py AKUDOA_BINARY WORK_DIR. Fails when no browser starts."""
import base64, json, os, shutil, signal, subprocess, sys, time, urllib.request
import websocket

tool, work = sys.argv[1], sys.argv[2]
shutil.rmtree(work, ignore_errors=True)
os.makedirs(work)
SOURCE, FAR = (4, 3), (13, 10)
open(os.path.join(work, "cam.ini"), "w").write(
    "[AudioRecordingParam]\nsample_frequency = 96000\nchannel_num = 64\nframe_size = 512\n"
    "[AcousticCameraParam]\nimage_resolution_row = 16\nimage_resolution_col = 12\nimage_correction_flag = 0\n"
    "distanceMeasure_en = false\nrotate_mode = 1\n[DOA]\nDOAVersionSelect = 3\nextra_en = false\n")
open(os.path.join(work, "scene.ini"), "w").write(
    "[scene]\nduration = 0.5\nmic_noise_db = -60\n[source a]\npixel = %d %d\nsignal = noise\n" % SOURCE)
subprocess.run([tool, "simulate", "--config", "cam.ini", "--scene", "scene.ini", "--out", "rec.wav"],
               cwd=work, check=True, stdout=subprocess.DEVNULL)
failures = []


def check(ok, what):
    print(("ok   " if ok else "FAIL ") + what, flush=True)
    failures.extend([] if ok else [what])


def wait_for(cond, seconds, what):
    end = time.time() + seconds
    while time.time() < end:
        v = cond()
        if v:
            return v
        time.sleep(0.2)
    raise SystemExit("FAIL timed out waiting for " + what)


log = open(os.path.join(work, "serve.out"), "w+")
serve = subprocess.Popen([tool, "serve", "--config", "cam.ini", "--in", "rec.wav", "--loop", "--listen",
                          "127.0.0.1:0"], cwd=work, stdout=log, stderr=subprocess.STDOUT)
url = wait_for(lambda: [w for w in open(log.name).read().split() if w.startswith("http://")], 300, "the URL")[0]
profile = os.path.join(work, "profile")
browser = subprocess.Popen(
    ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
     "--disable-background-networking", "--disable-component-update", "--disable-sync", "--user-data-dir=" + profile,
     "--use-fake-ui-for-media-stream", "--use-fake-device-for-media-stream", "--autoplay-policy=no-user-gesture-required",
     "--remote-debugging-port=0", "--remote-allow-origins=*", "--window-size=1100,560", "about:blank"],
    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True,
    env=dict(os.environ, TMPDIR=work))  # its scratch directory goes with ours
try:
    port_file = os.path.join(profile, "DevToolsActivePort")
    port = wait_for(lambda: os.path.exists(port_file) and open(port_file).read().split("\n")[0], 60,
                    "the browser to start (is chromium installed?)")
    pages = json.load(urllib.request.urlopen("http://127.0.0.1:%s/json/list" % port))
    ws = websocket.create_connection([p for p in pages if p["type"] == "page"][0]["webSocketDebuggerUrl"],
                                     suppress_origin=True)
    ids = iter(range(1, 1 << 30))

    def cdp(method, **params):
        i = next(ids)
        ws.send(json.dumps({"id": i, "method": method, "params": params}))
        while True:
            m = json.loads(ws.recv())
            if m.get("id") == i:
                return m.get("result", {})

    def js(expr):
        return cdp("Runtime.evaluate", expression=expr, returnByValue=True, awaitPromise=True)["result"].get("value")

    def click(cell):
        x, y = js("(() => { const b = document.getElementById('mark').getBoundingClientRect();"
                  " return [b.left + (%d + 0.5) * b.width / akudoa.cols, b.top + (%d + 0.5) * b.height / akudoa.rows]; })()"
                  % (cell[1], cell[0]))
        cdp("Input.dispatchMouseEvent", type="mouseMoved", x=x, y=y)
        for kind in ("mousePressed", "mouseReleased"):
            cdp("Input.dispatchMouseEvent", type=kind, x=x, y=y, button="left", clickCount=1)
        wait_for(lambda: js("akudoa.cell + ''") == "%d,%d" % cell and js("akudoa.audioBlocks") >= 24, 60,
                 "sound from cell %s" % (cell,))
        return js("akudoa.audioDb")

    cdp("Emulation.setDeviceMetricsOverride", width=1100, height=560, deviceScaleFactor=1, mobile=False)
    cdp("Page.navigate", url=url)
    wait_for(lambda: js("window.akudoa ? akudoa.frames : 0") >= 10, 60, "the first frames")
    first = js("akudoa.frames")
    check(wait_for(lambda: js("akudoa.frames") > first, 30, "a new frame"), "the frame counter advances")
    # The brightest canvas pixel (colour-map lightness rises with level).
    bright = js("""(() => { const c = document.getElementById('heat'), d = c.getContext('2d')
        .getImageData(0, 0, c.width, c.height).data; let best = -1, at = 0;
        for (let i = 0; i < d.length; i += 4) { const l = 0.2126 * d[i] + 0.7152 * d[i + 1] + 0.0722 * d[i + 2];
          if (l > best) { best = l; at = i / 4; } }
        return [Math.floor(Math.floor(at / c.width) * akudoa.rows / c.height),
                Math.floor(at % c.width * akudoa.cols / c.width)]; })()""")
    check(tuple(bright) == SOURCE, "brightest pixel at the source's cell %s (found %s)" % (SOURCE, bright))
    bar = js("""(() => { const g = document.getElementById('bar').getContext('2d'), h = g.canvas.height;
        const px = y => Array.from(g.getImageData(10, y, 1, 1).data.slice(0, 3));
        return [px(10), px(h - 11)]; })()""")
    check(bar == [js("akudoa.cmap[255]"), js("akudoa.cmap[0]")], "colour bar from the map's top colour down to its bottom one: %s" % bar)
    near = click(SOURCE)
    power, low, high = js("akudoa.target")
    check(20000 <= low <= high <= 40000 and power > -200, "power %.1f dB over %s - %s Hz, inside the band" % (power, low, high))
    far = click(FAR)
    check(near - far >= 10, "sound at the source %.1f dB, at a far cell %.1f dB" % (near, far))
    open(os.path.join(work, "live-view.png"), "wb").write(base64.b64decode(cdp("Page.captureScreenshot")["data"]))
finally:
    os.killpg(browser.pid, signal.SIGTERM)
    browser.wait()
serve.send_signal(signal.SIGTERM)
check(serve.wait(timeout=60) == 0, "serve exits 0 on SIGTERM")
print(open(log.name).read())
print("%d passed, %d failed" % (6 - len(failures), len(failures)))
sys.exit(1 if failures else 0)
