"use strict";

// Looks at a timeline page in a frame and uses it by keys, mouse and typing. The address says which
// page ("page") and which of the functions at the end ("case"). What was found goes into #result,
// as JSON with all but plain characters escaped: {"checked":N,"failures":[...],"values":{...}}.

const parameters = new URLSearchParams(location.search);
const frame = document.getElementById("frame");
const result = {checked: 0, failures: [], values: {runs: []}};
let view; // the window in the frame
let page; // its document

function check(what, condition, found = "") {
    ++result.checked;
    if (!condition)
        result.failures.push(found === "" ? what : `${what} (found ${found})`);
}

function checkEqual(what, found, expected) {
    const [foundText, expectedText] = [JSON.stringify(found), JSON.stringify(expected)];
    check(`${what}: expected ${expectedText}`, foundText === expectedText, foundText);
}

const all = selector => [...page.querySelectorAll(selector)];
const one = selector => page.querySelector(selector);
const number = (element, name) => Number(element.getAttribute(name));
const visible = elements => elements.filter(element => element.style.display !== "none");

/** The browser's clock leaps ahead here and leaves frames out, so a timer stands in for them. */
function replaceFrames() {
    view.requestAnimationFrame = callback => view.setTimeout(callback, 16);
}

/** Resolved when the page has drawn what was asked for until now. */
function drawn() {
    return new Promise(done => view.requestAnimationFrame(
        () => view.requestAnimationFrame(done)));
}

async function press(element, ...keys) {
    element.focus();
    check(`#${element.id} takes the focus`, page.activeElement === element);
    for (const key of keys)
        element.dispatchEvent(new view.KeyboardEvent(
            "keydown", {key, bubbles: true, cancelable: true}));
    await drawn();
}

async function click(element) {
    element.click();
    await drawn();
}

async function point(type, x, y, more = {}) {
    const box = one("#chart").getBoundingClientRect();
    one("#chart").dispatchEvent(new view.PointerEvent(type, {
        clientX: box.left + x, clientY: box.top + y, bubbles: true, pointerId: 1, ...more}));
    await drawn();
}

async function type(text) {
    one("#search").value = text;
    one("#search").dispatchEvent(new view.Event("input", {bubbles: true}));
    await drawn();
}

/** The table's rows as objects. */
function rows() {
    return [...one("#table").tBodies[0].rows].map(row => ({
        time: Number(row.cells[0].textContent), lane: row.cells[1].textContent.trim(),
        kind: row.cells[2].textContent.trim(), text: row.cells[3].textContent.trim(), row}));
}

const title = () => one("#details h2").textContent;
const pieces = () => all(".bands .piece");
const states = (from = pieces()) => from.map(piece => piece.dataset.state);
const piece = state => pieces().find(candidate => candidate.dataset.state === state);
const rectangle = group => group.querySelector("rect");
const widthOf = state => number(rectangle(piece(state)), "width");

// Contrast, as the accessibility guidelines reckon it.

function luminance(colour) {
    const [red, green, blue] = colour.match(/[\d.]+/g).slice(0, 3).map(Number).map(
        value => value / 255).map(
        value => value <= 0.04045 ? value / 12.92 : ((value + 0.055) / 1.055) ** 2.4);
    return 0.2126 * red + 0.7152 * green + 0.0722 * blue;
}

function contrast(a, b) {
    const [low, high] = [luminance(a), luminance(b)].sort((x, y) => x - y);
    return (high + 0.05) / (low + 0.05);
}

function backgroundOf(element) {
    for (let at = element; at; at = at.parentElement) {
        const colour = view.getComputedStyle(at).backgroundColor;
        if (!/^rgba\(.*, 0\)$/.test(colour))
            return colour;
    }
    return "rgb(255, 255, 255)";
}

function checkContrasts() {
    const style = element => view.getComputedStyle(element);
    const least = (what, element, colour, ground, ratio) => check(
        `contrast of ${what} "${element.textContent.trim().slice(0, 30)}" is ${ratio} and more`,
        contrast(colour, ground) >= ratio, `${contrast(colour, ground).toFixed(2)}: ${colour} on `
            + ground);
    const grounds = [...new Set(all(".stripe").map(stripe => style(stripe).fill))];
    check("there are grounds to compare with", grounds.length > 0);
    let texts = 0;
    for (const element of all("body *")) {
        const hasText = [...element.childNodes].some(
            node => node.nodeType === 3 && node.textContent.trim() !== "");
        if (!hasText || element.closest("script, style, title") || !element.getClientRects().length)
            continue;
        ++texts;
        if (!element.closest("svg"))
            least("text", element, style(element).color, backgroundOf(element), 4.5);
        else if (element.closest(".piece"))
            least("state", element, style(element).fill,
                  style(rectangle(element.closest(".piece"))).fill, 4.5);
        else
            grounds.forEach(ground => least("label", element, style(element).fill, ground, 4.5));
    }
    check("texts were compared", texts > 100, texts);
    for (const element of all(".arrow, .mark:not(.level9), .wave")) {
        const colour = style(element).fill === "none" ? style(element).stroke : style(element).fill;
        grounds.forEach(ground => least(element.getAttribute("class"), element, colour, ground, 3));
    }
}

// The road of one phone

const ROAD_LANES = ["phone anna", "phone ben", "agent", "bluez", "service", "tool", "pulse",
                    "sound", "caller", "control"];
const ROAD_PIECES = 17;

function checkStructure() {
    checkEqual("the title says which run it is", [page.title, one("h1").textContent],
               ["road: timeline of a run", "Timeline of a run road"]);
    checkEqual("language", page.documentElement.lang, "en");
    checkEqual("landmarks", ["header", "main", "aside"].map(name => all(`body ${name}`).length),
               [1, 1, 1]);
    checkEqual("one heading of the first order", all("h1").length, 1);
    for (const control of all("button, input")) {
        const name = control.textContent.trim() || control.closest("label")?.textContent.trim();
        check(`${control.id || control.type} has a name`, Boolean(name));
    }
    checkEqual("the table says what its columns are", all("#table th[scope=col]").map(
        cell => cell.textContent), ["Time, s", "Lane", "Kind", "What"]);
    check("the picture has a name", Boolean(one("#drawing").getAttribute("aria-label")));
    const cursor = one("#cursor");
    checkEqual("the entry is announced", [cursor.getAttribute("role"),
                                          Boolean(cursor.getAttribute("aria-valuetext"))],
               ["slider", true]);
    check("nothing is wider than the window",
          page.documentElement.scrollWidth <= view.innerWidth, page.documentElement.scrollWidth);
}

function checkItems() {
    const found = rows();
    const count = kind => found.filter(row => row.kind === kind && row.lane !== "control").length;
    const wrong = found.filter(row => row.kind === "error" && !row.text.startsWith(
        "org.freedesktop.DBus"));
    checkEqual("what went wrong is counted", one(".facts").textContent.split(", ")[2],
               `${wrong.length} errors`);
    check("the sample has some of everything", ["log", "call", "reply", "error", "signal", "start",
        "end", "phone", "heard", "source"].every(kind => count(kind) > 0));
    checkEqual("lanes", all(".lane").map(lane => lane.dataset.lane), ROAD_LANES);
    const names = ["call", "reply", "error"];
    checkEqual("arrows", names.map(kind => visible(all(`.arrows .${kind}`)).length),
               names.map(count));
    const toNobody = found.filter(row => row.text.includes("NameOwnerChanged")).length;
    checkEqual("signals", visible(all(".arrows .signal")).length, count("signal") - toNobody);
    checkEqual("bars", all(".bars .bar").length, count("start"));
    const failed = found.filter(row => / ends (with status [1-9]|by SIG)/.test(row.text)).length;
    checkEqual("failed bars", all(".bars .bar.failed").length, failed);
    for (const level of [1, 2, 4, 9])
        check(`level ${level} has its mark, if it occurs`,
              level === 1 || all(`.marks .level${level}`).length > 0);
    checkEqual("log marks", all(".marks [class*=level]").length, count("log"));
    const answered = all(".activation").length;
    checkEqual("answered calls", answered, count("reply") + count("error"));
}

function checkBands() {
    checkEqual("states", states(), [
        "Off", "Starting", "On", "Restart pending", "Starting", "On", "Off",
        "Idle", "AcceptedRemote", "Idle", "LocalConnecting", "AcceptedLocal", "Streaming", "Idle",
        "Seen", "Idle", "Reconnect pending"]);
    const timeOf = text => rows().find(row => row.text.startsWith(text)).time;
    const starts = [["On", "agent started"], ["Restart pending", "forceSyncDown"],
                    ["AcceptedRemote", "Device /"],
                    ["Reconnect pending", "load timer for reconnect"]];
    for (const [state, text] of starts)
        checkEqual(`${state} begins`, Number(piece(state).dataset.start), timeOf(text));
    checkEqual("a reconnect ends", Number(piece("Reconnect pending").dataset.end),
               timeOf("connectAudioSource"));
    const fill = group => view.getComputedStyle(rectangle(group)).fill;
    const legend = all("#legend span").filter(part => part.querySelector(".piece"));
    for (const group of pieces()) {
        const entry = legend.find(part => part.textContent.trim() === group.dataset.state);
        check(`${group.dataset.state} is in the legend`, Boolean(entry));
        if (entry)
            checkEqual(`colour of ${group.dataset.state}`, fill(entry), fill(group));
    }
    const policy = ["Idle", "Seen", "LocalConnecting", "AcceptedRemote", "AcceptedLocal",
                    "Streaming", "Reconnect pending"];
    checkEqual("every state of the connection has its own colour",
               new Set(policy.map(state => fill(piece(state)))).size, policy.length);
    for (const group of pieces()) {
        const text = group.querySelector("text");
        if (text)
            check(`"${text.textContent}" is inside its piece`,
                  text.getBBox().x + text.getBBox().width
                      <= number(rectangle(group), "x") + number(rectangle(group), "width"));
    }
}

/** Where a time is, reckoned from two pieces of the bands. */
function xOf(time) {
    const [a, b] = [piece("On"), pieces()[6]];
    const [ax, bx] = [a, b].map(group => number(rectangle(group), "x"));
    const [at, bt] = [a, b].map(group => Number(group.dataset.start));
    return ax + (time - at) / (bt - at) * (bx - ax);
}

function checkSound() {
    const found = rows();
    const played = found.findIndex(row => row.text.includes("PlayBluetooth answers"));
    const wave = one(".wave").getBBox();
    check("the sound begins in its place", Math.abs(wave.x - xOf(found[played].time)) < 2, wave.x);
    const stopped = found.find(row => row.text.startsWith("anna: leaves")).time;
    check("the sound ends when the phone leaves",
          Math.abs(wave.x + wave.width - xOf(stopped)) < 12, wave.x + wave.width);
    check("the sound can be seen", wave.height > 40, wave.height);
    // The first second is silent, so the outline is thin there.
    const middle = wave.y + wave.height / 2;
    const thick = x => {
        const point = one("#drawing").createSVGPoint();
        [point.x, point.y] = [x, middle - 8];
        return one(".wave").isPointInFill(point);
    };
    const seconds = xOf(1) - xOf(0);
    check("silence is thin", !thick(wave.x + seconds * 0.5));
    check("a tone is thick", thick(wave.x + seconds * 1.6));
    checkEqual("late sound is marked", all(".late").length, 1);
}

function checkLabels() {
    const boxes = all(".labels text").map(text => ({text: text.textContent, ...box(text)}));
    check("there are labels", boxes.length > 10, boxes.length);
    boxes.forEach((a, i) => boxes.slice(i + 1).forEach(b => check(
        `labels "${a.text}" and "${b.text}" do not overlap`,
        a.right <= b.left || b.right <= a.left || a.bottom <= b.top + 4 || b.bottom <= a.top + 4)));
    function box(text) {
        const {x, y, width, height} = text.getBBox();
        return {left: x, right: x + width, top: y, bottom: y + height};
    }
}

async function checkKeys() {
    const chart = one("#chart");
    const whole = widthOf("AcceptedRemote");
    await press(chart, "+");
    checkEqual("+ zooms in", (widthOf("AcceptedRemote") / whole).toFixed(2), "1.60");
    const before = number(rectangle(piece("AcceptedRemote")), "x");
    await press(chart, "ArrowRight");
    check("the right arrow moves on", number(rectangle(piece("AcceptedRemote")), "x") < before);
    await press(chart, "ArrowLeft", "-");
    await press(chart, "+", "+", "0");
    checkEqual("0 shows the whole run", widthOf("AcceptedRemote"), whole);
    await press(chart, "q");
    check("q shortens quiet stretches",
          all(".break").length > 3 && widthOf("AcceptedRemote") < whole * 0.6);
    checkEqual("and the box says so", one("#shorten").checked, true);
    await press(chart, "q");
    checkEqual("q again draws to scale", [all(".break").length, widthOf("AcceptedRemote")],
               [0, whole]);
    check("a second is as long everywhere", Math.abs(
        widthOf("Streaming") / widthOf("AcceptedRemote")
        - lengthOf("Streaming") / lengthOf("AcceptedRemote")) < 0.02);
    function lengthOf(state) {
        return piece(state).dataset.end - piece(state).dataset.start;
    }
}

async function checkCursor() {
    const cursor = one("#cursor");
    const found = rows();
    await press(cursor, "Home");
    const isInService = () => / s, (service: |bus: service)/.test(
        cursor.getAttribute("aria-valuetext"));
    while (!isInService())
        await press(cursor, "ArrowUp");
    await press(cursor, "Home");
    // All that is drawn from the service's lane, in the order of the journal.
    const expected = found.filter(({lane, kind, text}) => lane === "service" && kind !== "end"
        || lane === "bus" && text.startsWith("service"));
    const walked = [];
    for (let i = 0; i < found.length; ++i) {
        walked.push(title());
        const value = cursor.getAttribute("aria-valuenow");
        check("the details are those of the entry",
              cursor.getAttribute("aria-valuetext").includes(title()), title());
        await press(cursor, "ArrowRight");
        if (cursor.getAttribute("aria-valuenow") === value)
            break;
    }
    checkEqual("walking passes all entries of the lane", walked,
               expected.map(({text}) => text.trim()));
    const log = found.find(({text}) => text.startsWith("set lm master"));
    await type(log.text);
    await press(one("#search"), "Enter");
    await type("");
    const list = one("#details dl").textContent;
    for (const part of ["BluetoothManager.cpp", "serviceBluezRegistered", "level"])
        check(`the details of a log line say ${part}`, list.includes(part));
    await press(cursor, "ArrowUp");
    check("the up arrow goes to the lane above",
          !isInService());
}

async function checkPointer() {
    const current = title();
    const mark = one(".marks .level2");
    const [x, y] = mark.getAttribute("transform").match(/[\d.]+/g).map(Number);
    await point("pointermove", x + 1, y + 1);
    check("pointing at a mark shows its details", title().endsWith("error Remove Device"), title());
    await point("pointerleave", 0, 0);
    checkEqual("and only as long as it lasts", title(), current);
    await point("pointermove", x, y);
    await point("pointerdown", x, y);
    await point("pointerup", x, y);
    await point("pointerleave", 0, 0);
    check("a click keeps them", title().endsWith("error Remove Device"), title());

    const before = widthOf("AcceptedRemote");
    one("#chart").dispatchEvent(new view.WheelEvent("wheel", {
        deltaY: -100, clientX: 500, clientY: 300, bubbles: true, cancelable: true}));
    await drawn();
    check("the wheel zooms in", widthOf("AcceptedRemote") > before);
    one("#chart").setPointerCapture = () => {}; // a made up pointer cannot be captured
    const start = number(rectangle(piece("AcceptedRemote")), "x");
    await point("pointerdown", 500, 300, {button: 0});
    await point("pointermove", 470, 300);
    await point("pointerup", 470, 300);
    check("dragging moves the run",
          Math.abs(number(rectangle(piece("AcceptedRemote")), "x") - start + 30) < 1);
    await click(one("#fit"));
}

async function checkFilters() {
    const box = one("#lanes input[data-lane=agent]");
    await click(box);
    checkEqual("a lane can be left out", all(".lane").map(lane => lane.dataset.lane),
               ROAD_LANES.filter(lane => lane !== "agent"));
    const toAgent = rows().filter(({kind, text}) => kind === "call" && text.includes("agent"));
    check("and its arrows with it", toAgent.length > 0
        && visible(all(".arrows .call")).length === all(".arrows .call").length - toAgent.length);
    await click(box);
    checkEqual("the bus daemon is left out at first",
               one("#lanes input[data-lane=daemon]").checked, false);
    await click(one("#lanes input[data-lane=daemon]"));
    check("and can be shown", all(".lane").some(lane => lane.dataset.lane === "daemon"));
    await click(one("#lanes input[data-lane=daemon]"));
}

async function checkSearch() {
    const shown = () => rows().filter(({row}) => !row.hidden);
    const total = rows().length;
    await type("registeragent");
    check("the search leaves what matches",
          shown().length > 0 && shown().every(({text}) => text.includes("RegisterAgent")));
    check("the table is open then", one("#table-details").open);
    checkEqual("the matches are counted", one("#matches").textContent,
               `${shown().length} of ${total} entries`);
    check("all else is faint in the picture",
          all(".arrows .dim").length > 0 && all(".arrows path:not(.dim)").length === shown().length);
    await press(one("#search"), "Enter");
    check("Enter goes to a match", title().includes("RegisterAgent"), title());
    await type("no such text");
    checkEqual("nothing matches", [shown().length, one("#matches").textContent],
               [0, `0 of ${total} entries`]);
    await type("");
    checkEqual("an empty search shows all", [shown().length, all(".dim").length], [total, 0]);
    await click(one("#details button"));
    check("the details lead to the table's row", page.activeElement.localName === "tr"
        && page.activeElement.textContent.includes(title()));
    one("#table-details").open = false;
}

async function checkPrint() {
    await press(one("#chart"), "+", "+", "+");
    view.dispatchEvent(new view.Event("beforeprint"));
    const width = Number(one("#drawing").getAttribute("viewBox").split(" ")[2]);
    const edges = pieces().map(rectangle).flatMap(
        rect => [number(rect, "x"), number(rect, "x") + number(rect, "width")]);
    check("the whole run goes to paper", states().length === ROAD_PIECES
        && Math.min(...edges) > 100 && Math.max(...edges) <= width, Math.max(...edges));
    view.dispatchEvent(new view.Event("afterprint"));
    check("afterwards the view is as before", pieces().length < ROAD_PIECES);
    await press(one("#chart"), "0");
}

function checkSelfContained() {
    checkEqual("the page loads nothing", view.performance.getEntriesByType("resource").length, 0);
    checkEqual("and names nothing to load",
               all("img, link, iframe, object, embed, [src], [href^=http]").length, 0);
    checkEqual("two scripts: the data and the page's own", page.scripts.length, 2);
    checkEqual("nothing of the journal was run", view.broken, undefined);
}

const cases = {
    async road() {
        checkStructure();
        checkItems();
        checkBands();
        checkSound();
        checkLabels();
        await checkKeys();
        await checkCursor();
        await checkPointer();
        await checkFilters();
        await checkSearch();
        await checkPrint();
        checkSelfContained();
    },

    /** A colour scheme ("scheme"), a window's width, and no motion where none is wanted. */
    async looks() {
        const dark = parameters.get("scheme") === "dark";
        checkEqual("the scheme is the wanted one",
                   view.matchMedia("(prefers-color-scheme: dark)").matches, dark);
        check("the page keeps to it", luminance(backgroundOf(page.body)) < 0.5 === dark,
              backgroundOf(page.body));
        if (view.matchMedia("(prefers-reduced-motion: reduce)").matches)
            check("nothing moves", all("*").every(element => ["transitionDuration",
                "animationDuration"].every(name => /^0s$/.test(view.getComputedStyle(element)[name]))));
        one("#table-details").open = true;
        checkContrasts();
        checkStructure();
        checkLabels();
    },

    async hostile() {
        const found = rows();
        const script = "</script><script>window.broken = 1</script>";
        const image = "<img src=x onerror='window.broken = 1'>";
        checkEqual("texts stand as they are", found[2].text, script);
        checkEqual("with all their characters", found[3].text,
                   "<!-- {{script}} \"quoted\" & 'single' \u2028 \\u003c </table>");
        checkEqual("names, too", [found[4].text, found[7].lane, found[7].kind],
                   [`${image}: ${script}`, image, script]);
        checkEqual("all entries are there", found.length, 10);
        check("lines that are no entries are counted",
              one(".facts").textContent.includes("4 unreadable lines"), one(".facts").textContent);
        check("a phone's name is a lane's name",
              all("#lanes label").some(label => label.textContent.trim() === `Phone ${image}`));
        for (let number = 0; number < found.length; ++number) {
            await type(found[number].text);
            await press(one("#search"), "Enter");
            await type("");
        }
        await press(one("#chart"), "+", "q", "0");
        checkSelfContained();
    },

    async empty() {
        checkEqual("the page says that there is nothing", one(".facts").textContent,
                   "The journal is empty.");
        checkEqual("and shows no picture", one("#picture").hidden, true);
        checkSelfContained();
    },

    /** Hands back the states of each run of the service: "Off, On; Idle, Seen". */
    async bands() {
        const {runs} = result.values;
        const services = rows().filter(({lane, kind}) => lane === "service" && kind !== "log");
        for (let i = 0; i + 1 < services.length; i += 2) {
            const own = pieces().filter(({dataset}) => dataset.start >= services[i].time
                                        && dataset.end <= services[i + 1].time);
            const isStack = ({dataset}) => ["Off", "Starting", "On", "Restart pending"].includes(
                dataset.state);
            runs.push([own.filter(isStack), own.filter(group => !isStack(group))].map(
                part => states(part).join(", ")).join("; "));
        }
        check("there are runs", runs.length > 0);
    },
};

/** How long the page takes, in milliseconds; without waiting, so that real time can be measured. */
function measure() {
    const [navigation] = view.performance.getEntriesByType("navigation");
    result.values.opening = navigation.domContentLoadedEventEnd;
    const start = performance.now();
    view.dispatchEvent(new view.Event("beforeprint"));
    one("#drawing").getBoundingClientRect();
    result.values.drawing = performance.now() - start;
    check("the arrows are there", all(".arrows path").length > 500, all(".arrows path").length);
    checkSelfContained();
}

function report() {
    result.done = true;
    document.getElementById("result").textContent = encodeURIComponent(JSON.stringify(result));
}

frame.addEventListener("load", async () => {
    view = frame.contentWindow;
    page = view.document;
    view.addEventListener("error", event => check(`no error: ${event.message}`, false));
    if (parameters.get("case") === "measure") {
        measure();
    } else {
        try {
            replaceFrames();
            await drawn();
            await cases[parameters.get("case")]();
        } catch (error) {
            check(`${error}\n${error.stack}`, false);
        }
    }
    report();
});
frame.src = parameters.get("page");
