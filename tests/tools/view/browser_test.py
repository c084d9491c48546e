"""The viewer in a real browser: headless Chromium loads the page without
console errors, the map follows the frequency, a click shows the pixel's
spectrum, a drawn rectangle its mean spectrum, the modes of `frfcam modes`
and of a record are listed with their chart, a stable pole clicked on the
chart moves the frequency, and a screenshot is kept.

    browser_test.py FRFCAM_TOOL SCRATCH_DIR   (skips with 77 without Chromium)
"""
import os
import shutil
import subprocess
import sys
import time

tool, scratch = sys.argv[1], sys.argv[2]
driver_path = shutil.which("chromedriver") or "/usr/bin/chromedriver"
if not os.path.exists(driver_path):
    print("skipped: no chromedriver")
    sys.exit(77)
try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.action_chains import ActionChains
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.ui import WebDriverWait
except ImportError:
    print("skipped: no selenium")
    sys.exit(77)

os.makedirs(scratch, exist_ok=True)
hdr = os.path.join(scratch, "plate.hdr")
subprocess.run([tool, "synth", hdr, "--width", "160", "--height", "120", "--frames", "512",
                "--fps", "1000", "--force"], check=True, stdout=subprocess.DEVNULL)
quiet = {"check": True, "stdout": subprocess.DEVNULL}
subprocess.run([tool, "modes", hdr, "--reference", os.path.join(scratch, "plate_reference.txt"),
                "-o", os.path.join(scratch, "modes")], **quiet)
subprocess.run([tool, "synth-frf", os.path.join(scratch, "frf.csv")], **quiet)
subprocess.run([tool, "stability", os.path.join(scratch, "frf.csv"), "-o",
                os.path.join(scratch, "record.pb")], **quiet)
server = subprocess.Popen([tool, "view", hdr, "--no-browser", "--modes",
                           os.path.join(scratch, "modes"), "--record",
                           os.path.join(scratch, "record.pb")],
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
try:
    url = server.stdout.readline().strip()
    assert url.startswith("http://127.0.0.1:") and "token=" in url, url
    options = webdriver.ChromeOptions()
    for arg in ("--headless=new", "--no-sandbox", "--disable-gpu", "--window-size=1400,900"):
        options.add_argument(arg)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(service=Service(driver_path), options=options)
    try:
        driver.get(url)
        wait = WebDriverWait(driver, 20)
        wait.until(lambda d: (d.find_element(By.ID, "map").get_attribute("src") or "").startswith("blob:"))
        first = driver.find_element(By.ID, "map").get_attribute("src")
        freq = driver.find_element(By.ID, "frequency")
        freq.clear()
        freq.send_keys("300\n")
        wait.until(lambda d: d.find_element(By.ID, "map").get_attribute("src") != first)
        assert driver.find_element(By.ID, "bin").text == "bin 154", driver.find_element(By.ID, "bin").text
        driver.find_element(By.ID, "map").click()
        wait.until(lambda d: d.find_element(By.ID, "pixel").text.startswith("Pixel "))
        # A drag draws a rectangle: the spectrum shows its mean.
        ActionChains(driver).move_to_element_with_offset(driver.find_element(By.ID, "map"), 5, 5) \
            .click_and_hold().move_by_offset(40, 30).release().perform()
        wait.until(lambda d: d.execute_script("return mean !== null && mean.drawn"))
        rect = driver.execute_script("return mean.rectangle")
        assert rect[2] - rect[0] > 5 and rect[3] - rect[1] > 5, rect

        # The modes: three rows, an animated shape, and the chart.
        wait.until(lambda d: len(d.find_elements(By.CSS_SELECTOR, "#modes-table tbody tr")) == 3)
        wait.until(lambda d: d.execute_script(
            "const i = document.getElementById('mode-shape'); return i.complete && i.naturalWidth > 0"))
        # A stable pole near 150 Hz, clicked where the chart draws it.
        pole = driver.execute_script("""
            const sc = chartScales();
            let best = null;
            chart.orders.forEach((o) => o.s.forEach((f) => {
              if (f !== null && Math.abs(f - 150) < 5 && (!best || o.order > best[1])) best = [f, o.order];
            }));
            return best && [best[0], sc.x(best[0]), sc.y(best[1])];""")
        assert pole, "no stable pole near 150 Hz in the chart"
        canvas = driver.find_element(By.ID, "chart")
        driver.execute_script("arguments[0].scrollIntoView({block: 'center'})", canvas)
        ActionChains(driver).move_to_element_with_offset(
            canvas, pole[1] - canvas.size["width"] / 2, pole[2] - canvas.size["height"] / 2).click().perform()
        want = "bin %d" % round(pole[0] * 512 / 1000)
        wait.until(lambda d: d.find_element(By.ID, "bin").text == want)
        driver.save_screenshot(os.path.join(scratch, "view.png"))
        # The record's modes replace the table when chosen.
        driver.execute_script("const s = document.getElementById('source'); s.value = 'record';"
                              "s.dispatchEvent(new Event('change'));")
        wait.until(lambda d: d.execute_script("return modes.length > 0 && modes[0].mpc === undefined"))
        errors = [e for e in driver.get_log("browser") if e["level"] == "SEVERE"]
        assert not errors, errors
        print("ok:", driver.find_element(By.ID, "pixel").text)
    finally:
        driver.quit()
finally:
    server.terminate()
    assert server.wait(timeout=10) == 0, "view did not exit 0 on SIGTERM"
