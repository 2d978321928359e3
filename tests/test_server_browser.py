"""The page in real headless Chromium, its microphone fed from a WAV file:
what it sends is that file (through the browser's resampling), and what
comes back is, bit for bit, the offline conversion of what it sent."""
import os
import shutil
import time

import numpy as np
import pytest
import soundfile as sf
import soxr

from test_server import running_server
from corvina_tools import Converter

webdriver = pytest.importorskip("selenium.webdriver", reason="the browser test drives Chromium with selenium")
CHROMIUM = shutil.which("chromium") or shutil.which("chromium-browser")
DRIVER = shutil.which("chromedriver")
pytestmark = pytest.mark.skipif(not (CHROMIUM and DRIVER), reason="needs Debian's chromium and chromium-driver")
SCREENSHOT = os.environ.get("CORVINA_SCREENSHOT")        # where to keep the page's picture, if anywhere
SECONDS = 4.0


def browser(wav):
    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    for flag in ("--headless=new", "--no-sandbox", "--disable-gpu", "--window-size=900,800",
                 "--use-fake-ui-for-media-stream", "--use-fake-device-for-media-stream",
                 f"--use-file-for-fake-audio-capture={wav}", "--autoplay-policy=no-user-gesture-required"):
        options.add_argument(flag)
    return webdriver.Chrome(options=options, service=webdriver.ChromeService(executable_path=DRIVER))


def page_record(driver):
    return driver.execute_script("""
        const r = window.corvinaPage, flat = (blocks) => blocks.flatMap((b) => Array.from(b));
        return {sent: flat(r.sent), received: flat(r.received), controls: r.controls,
                roundTrip: r.roundTripMs, underruns: r.underruns};""")


def offline(models, sent, controls):
    converter, out, done = Converter(models, 16000, 24000), [], 0
    for control in controls + [{"block": len(sent) // 160}]:
        out.append(converter.process(sent[done * 160:control["block"] * 160]))
        done = control["block"]
        if "pitch" in control:
            converter.pitch_shift = control["pitch"]
        if "speaker" in control:
            converter.speaker = control["speaker"]
    return np.concatenate(out + [converter.flush()])


def best_match(signal, reference):
    """The largest normalised correlation of `signal` with any stretch of
    `reference` (the fake microphone loops its file from any point)."""
    looped = np.concatenate([reference, reference, reference])
    spectrum = np.fft.rfft(looped, 2 * len(looped)) * np.conj(np.fft.rfft(signal, 2 * len(looped)))
    lag = int(np.argmax(np.fft.irfft(spectrum)[:len(reference)]))
    piece = looped[lag:lag + len(signal)]
    return float(np.dot(piece, signal) / np.linalg.norm(piece) / np.linalg.norm(signal))


def test_the_page_streams_the_microphone_through_the_server(models, tmp_path):
    # Noise below 4 kHz: survives the browser's resampling, and unlike a
    # harmonic voice-like signal it matches no stretch of an unrelated one.
    voice = (0.2 * soxr.resample(np.random.default_rng(16).standard_normal(24000), 8000, 16000)).astype(np.float32)
    wav = tmp_path / "microphone.wav"
    sf.write(wav, voice, 16000, subtype="PCM_16")
    with running_server(models) as (address, state), browser(wav) as driver:
        driver.get(f"http://{address}/")
        driver.find_element("id", "start").click()
        time.sleep(SECONDS / 2)
        driver.execute_script("""const p = document.getElementById('pitch'); p.value = 5;
                                 p.dispatchEvent(new Event('change'));
                                 const s = document.getElementById('speaker'); s.value = 2;
                                 s.dispatchEvent(new Event('change'));""")
        time.sleep(SECONDS / 2)
        driver.find_element("id", "stop").click()
        for _ in range(100):
            if driver.find_element("id", "status").text.startswith("closed"):
                break
            time.sleep(0.05)
        status = driver.find_element("id", "status").text
        if SCREENSHOT:
            driver.save_screenshot(SCREENSHOT)
        record = page_record(driver)
    assert status == "closed: end of stream"
    sent = np.array(record["sent"], np.float32)
    received = np.array(record["received"], np.float32)
    assert len(sent) > 16000 * SECONDS / 2 and len(record["controls"]) == 2
    np.testing.assert_array_equal(received, offline(models, sent, record["controls"]))
    # What the page sent is the file, as far as Chromium's resampling to and
    # from its 48 kHz device allows: quarter seconds of it match a stretch of
    # the file at about 0.94 (unrelated noise scores about 0.1), except where
    # the capture dropped audio on a busy machine.
    matches = [best_match(sent[i:i + 4000], voice) for i in range(0, len(sent) - 4000, 4000)]
    assert np.median(matches) > 0.8, matches
    print(f"page round trip {record['roundTrip']:.1f} ms, underruns {record['underruns']}")
