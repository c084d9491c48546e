"""The viewer in a real browser: headless Chromium loads the page without
console errors, the map follows the frequency, a click shows the pixel's
spectrum, and a screenshot is kept.

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
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.ui import WebDriverWait
except ImportError:
    print("skipped: no selenium")
    sys.exit(77)

os.makedirs(scratch, exist_ok=True)
hdr = os.path.join(scratch, "plate.hdr")
subprocess.run([tool, "synth", hdr, "--width", "160", "--height", "120", "--frames", "512",
                "--fps", "1000"], check=True, stdout=subprocess.DEVNULL)
server = subprocess.Popen([tool, "view", hdr, "--no-browser"], stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL, text=True)
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
        driver.save_screenshot(os.path.join(scratch, "view.png"))
        errors = [e for e in driver.get_log("browser") if e["level"] == "SEVERE"]
        assert not errors, errors
        print("ok:", driver.find_element(By.ID, "pixel").text)
    finally:
        driver.quit()
finally:
    server.terminate()
    assert server.wait(timeout=10) == 0, "view did not exit 0 on SIGTERM"
