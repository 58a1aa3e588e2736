#!/usr/bin/env python3
"""reachability-trace's page in a real browser (headless Chromium).

Writes the page of a known capture (the sample capture with two entities
whose ids are markup), opens it and checks that it loads without a console
error, shows every entity of the capture, with the hostile ids as text and
nothing of them run, zooms, and that a click on a known change shows the
numbered lines that caused it. Saves a screenshot of the page after the
click.

Usage: trace_page_browser_test.py --trace BIN --capture FILE --out DIR
"""

import argparse
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

# Ids the page must show as text: markup that would run if it were parsed.
HOSTILE_IDS = ["</script><script>window.pwned=1</script>", "<svg/onload=window.pwned=2>"]
# The change clicked: the connectivity event that dropped the kitchen plug.
EVENT_LINE = "[stateChangeCallback]: endpointId=plug-wifi isReachable=false action=invokingCallback"
CLICKED_ENTITY = "kitchen-plug"
CHROMIUM_FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                  "--no-first-run", "--disable-background-networking",
                  "--disable-component-update", "--disable-sync"]
TIME = re.compile(r"(?:\d{4}-)?(\d\d)-(\d\d) (\d\d):(\d\d):(\d\d)\.(\d{3})")


class Failure(Exception):
    pass


def check(condition, message):
    if not condition:
        raise Failure(message)


def millis(match):
    """A capture time (month, day, h, m, s, ms) in ms, good for differences within a month."""
    month, day, hours, minutes, seconds, ms = (int(part) for part in match.groups())
    return ((((month * 31 + day) * 24 + hours) * 60 + minutes) * 60 + seconds) * 1000 + ms


def write_capture(sample, path):
    """The sample capture with the hostile entities recorded by the host; returns the number
    and the time of the event line that the test clicks."""
    with open(sample, encoding="utf-8") as source:
        lines = source.read().splitlines()
    event = next(i for i, line in enumerate(lines) if line.endswith(EVENT_LINE))
    destroyed = next(i for i, line in enumerate(lines) if "event=cacheDestroyed" in line)
    hostile = ["11-22 14:00:40.500  4711  4711 I ReachabilityCache-CacheCore: [insertEndpoint]: "
               "action=newEntity entityId=%s endpointId=hostile-%d" % (entity, n)
               for n, entity in enumerate(HOSTILE_IDS)]
    lines[destroyed:destroyed] = hostile
    with open(path, "w", encoding="utf-8") as out:
        out.write("\n".join(lines) + "\n")
    return event + 1, millis(TIME.match(lines[event]))


def run(command):
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    check(done.returncode == 0, "%s failed: %s" % (" ".join(command), done.stderr.strip()))
    return done.stdout


def browser(profile):
    options = Options()
    for flag in CHROMIUM_FLAGS + ["--user-data-dir=" + profile, "--window-size=1600,1000"]:
        options.add_argument(flag)
    options.binary_location = shutil.which("chromium") or "/usr/bin/chromium"
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    service = Service(shutil.which("chromedriver") or "/usr/bin/chromedriver")
    return webdriver.Chrome(service=service, options=options)


def shown_range(driver):
    """The view's window as the page writes it: (from, to) in ms."""
    times = TIME.findall(driver.find_element(By.ID, "range").text)
    check(len(times) == 2, "the range reads " + driver.find_element(By.ID, "range").text)
    return tuple(millis(TIME.match("%s-%s %s:%s:%s.%s" % time)) for time in times)


def check_page(driver, page, entities, event_number, event_ms):
    driver.get("file://" + os.path.abspath(page))
    wait = WebDriverWait(driver, 10)
    wait.until(lambda d: d.find_element(By.ID, "count").text != "")
    errors = [entry for entry in driver.get_log("browser") if entry["level"] == "SEVERE"]
    check(not errors, "console errors: %s" % errors)

    labels = {label.get_attribute("textContent")
              for label in driver.find_elements(By.CSS_SELECTOR, ".label")}
    check(labels == entities, "lanes %s, the capture's entities %s" %
          (sorted(labels), sorted(entities)))
    check(driver.execute_script("return window.pwned === undefined"), "an id ran as script")
    check(driver.find_element(By.ID, "count").text ==
          "%d of %d entities" % (len(entities), len(entities)),
          "count reads " + driver.find_element(By.ID, "count").text)

    whole = shown_range(driver)
    for _ in range(2):
        driver.find_element(By.ID, "zoom-in").click()
    wait.until(lambda d: shown_range(d) != whole)
    zoomed = shown_range(driver)
    check(abs((zoomed[1] - zoomed[0]) * 4 - (whole[1] - whole[0])) <= 4,
          "two zooms in: %s from %s" % (zoomed, whole))
    driver.find_element(By.ID, "zoom-all").click()
    wait.until(lambda d: shown_range(d) == whole)

    search = driver.find_element(By.ID, "search")
    search.send_keys(CLICKED_ENTITY)
    wait.until(lambda d: d.find_element(By.ID, "count").text.startswith("1 of"))
    plot = driver.find_element(By.ID, "plot")
    start, end = shown_range(driver)
    width = plot.size["width"]
    x = (event_ms - start) * width / (end - start)
    ActionChains(driver).move_to_element_with_offset(
        plot, int(round(x - width / 2)), int(11 - plot.size["height"] / 2)).click().perform()
    wait.until(lambda d: d.find_elements(By.CSS_SELECTOR, "#details .answered"))
    details = driver.find_element(By.ID, "details").text
    check("isEntityReachable answered unreachable" in details, "details: " + details)
    check("line %d" % event_number in details and EVENT_LINE in details,
          "the event line %d is not among the cause's lines: %s" % (event_number, details))
    check(CLICKED_ENTITY in details, "details: " + details)

    search.clear()
    search.send_keys(" ")  # an input event: every lane again, the change still picked
    wait.until(lambda d: d.find_element(By.ID, "count").text.startswith("%d of" % len(entities)))
    ActionChains(driver).move_to_element(driver.find_element(By.ID, "title")).perform()


def check_window_page(driver, page, start, end):
    """A page of a window: it opens without an error, says so, and shows the window."""
    driver.get("file://" + os.path.abspath(page))
    WebDriverWait(driver, 10).until(lambda d: d.find_element(By.ID, "count").text != "")
    errors = [entry for entry in driver.get_log("browser") if entry["level"] == "SEVERE"]
    check(not errors, "console errors on the window's page: %s" % errors)
    note = driver.find_element(By.ID, "note").text
    check("the window from 11-22 %s to 11-22 %s" % (start, end) in note, "note: " + note)
    shown = shown_range(driver)
    check(shown[1] - shown[0] == millis(TIME.match("11-22 " + end)) -
          millis(TIME.match("11-22 " + start)), "the window's page shows %s" % (shown,))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--trace", required=True)
    parser.add_argument("--capture", required=True)
    parser.add_argument("--out", required=True)
    args = parser.parse_args()
    os.makedirs(args.out, exist_ok=True)
    capture = os.path.join(args.out, "capture.txt")
    page = os.path.join(args.out, "page.html")
    event_number, event_ms = write_capture(args.capture, capture)
    run([args.trace, "--html", page, capture])
    window_page = os.path.join(args.out, "window.html")
    window = ("14:00:33.000", "14:00:37.000")
    run([args.trace, "--html", window_page, "--from", window[0], "--to", window[1], capture])
    document = json.loads(run([args.trace, "--json", capture]))
    entities = set(document["caches"][-1]["entities"])
    check(set(HOSTILE_IDS) <= entities, "the hostile ids are not in the capture's trace")

    shot = os.path.join(args.out, "page.png")
    if os.path.exists(shot):
        os.remove(shot)
    profile = tempfile.mkdtemp(prefix="trace-page-chromium-")
    driver = browser(profile)
    try:
        check_page(driver, page, entities, event_number, event_ms)
        driver.save_screenshot(shot)
        check_window_page(driver, window_page, *window)
        print("page checked: %d lanes, zoom, the cause of the change at line %d, a window"
              % (len(entities), event_number))
    except Failure as failure:
        if not os.path.exists(shot):
            driver.save_screenshot(shot)
        print("FAILED: %s (screenshot: %s)" % (failure, shot), file=sys.stderr)
        return 1
    finally:
        driver.quit()
        shutil.rmtree(profile, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
