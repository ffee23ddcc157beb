"use strict";

// Looks at a timeline page in a frame and uses it by keys, mouse and typing. The address says which
// page ("page") and which of the functions at the end ("case"). What was found goes into #result,
// as JSON with all but plain characters escaped: {"checked":N,"failures":[...]}.

const parameters = new URLSearchParams(location.search);
const frame = document.getElementById("frame");
const result = {checked: 0, failures: []};
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
const visible = selector => all(selector).filter(element => element.style.display !== "none");

/** Resolved when the page has drawn what was asked for until now. */
function drawn() {
    return new Promise(done => view.requestAnimationFrame(
        () => view.requestAnimationFrame(done)));
}

async function press(element, ...keys) {
    element.focus();
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
const piece = state => pieces().find(candidate => candidate.dataset.state === state);
const rectangle = group => group.querySelector("rect");
const left = state => number(rectangle(piece(state)), "x");
const width = state => number(rectangle(piece(state)), "width");
const fill = group => view.getComputedStyle(rectangle(group)).fill;

// The road of one phone

const LANES = ["phone anna", "phone ben", "agent", "bluez", "service", "tool", "pulse", "sound",
               "caller", "control"];
const STATES = ["Off", "Starting", "On", "Restart pending", "Starting", "On", "Off",
                "Idle", "AcceptedRemote", "Idle", "Seen", "LocalConnecting", "AcceptedLocal",
                "Streaming", "Idle", "Reconnect pending"];

function checkItems() {
    const found = rows();
    const count = kind => found.filter(row => row.kind === kind && row.lane !== "control").length;
    checkEqual("the title says which run it is", page.title, "road: timeline of a run");
    // The bus daemon's lane is left out at first, and what it refuses is nothing that went wrong.
    const ofDaemon = kind => found.filter(
        row => row.kind === kind && row.text.includes("org.freedesktop.DBus")).length;
    const kinds = ["call", "reply", "error", "signal"];
    check("the sample has what the bus daemon says", kinds.every(kind => ofDaemon(kind) > 0));
    const wrong = found.filter(row => row.kind === "error").length - ofDaemon("error");
    checkEqual("what went wrong is counted", one(".facts").textContent.split(", ")[2],
               `${wrong} errors`);
    checkEqual("lanes", all(".lane").map(lane => lane.dataset.lane), LANES);
    checkEqual("arrows", kinds.map(kind => visible(`.arrows .${kind}`).length),
               kinds.map(kind => count(kind) - ofDaemon(kind)));
    checkEqual("bars", all(".bars .bar").length, count("start"));
    checkEqual("failed bars", all(".bars .failed").length, 0);
    checkEqual("log marks", all(".marks [class*=level]").length, count("log"));
    for (const level of [2, 4, 9])
        check(`level ${level} has its mark`, all(`.marks .level${level}`).length > 0);
    checkEqual("answered calls", all(".activation").length,
               count("reply") + count("error") - ofDaemon("error"));
}

function checkBands() {
    checkEqual("states", pieces().map(group => group.dataset.state), STATES);
    const timeOf = text => rows().find(row => row.text.startsWith(text)).time;
    for (const [state, text] of [["On", "agent started"], ["Restart pending", "forceSyncDown"],
                                 ["AcceptedRemote", "Device /"],
                                 ["Reconnect pending", "load timer for reconnect"]])
        checkEqual(`${state} begins`, Number(piece(state).dataset.start), timeOf(text));
    checkEqual("a reconnect ends", Number(piece("Reconnect pending").dataset.end),
               timeOf("connectAudioSource"));
    const legend = all("#legend span").filter(part => part.querySelector(".piece"));
    for (const state of new Set(STATES)) {
        const entry = legend.find(part => part.textContent.trim() === state);
        checkEqual(`the legend's colour of ${state}`, entry && fill(entry), fill(piece(state)));
    }
    const ofConnection = new Set(STATES.slice(7));
    checkEqual("every state of the connection has its own colour",
               new Set([...ofConnection].map(state => fill(piece(state)))).size, ofConnection.size);
}

/** Silence from 2 to 2.5 s and from 10 to 10.25 s, a tone to 10.5 s: in its place on the axis. */
function checkSound() {
    const [on, restart] = [piece("On"), piece("Restart pending")];
    const time = group => Number(group.dataset.start);
    const second = (left("Restart pending") - left("On")) / (time(restart) - time(on));
    const xOf = at => left("On") + (at - time(on)) * second;
    const waves = all(".wave");
    checkEqual("stretches of sound in their places", waves.map((wave, i) => Math.abs(
        wave.getBBox().x - xOf([2, 10][i])) < 2), [true, true]);
    const {x, y, width, height} = waves[1].getBBox();
    check("the sound ends in its place", Math.abs(x + width - xOf(10.5)) < 2, x + width);
    check("the sound can be seen", height > 20, height);
    const isThick = at => {
        const place = one("#drawing").createSVGPoint();
        [place.x, place.y] = [xOf(at), y + height / 2 - 8];
        return waves[1].isPointInFill(place);
    };
    checkEqual("silence is thin, a tone is thick", [10.1, 10.4].map(isThick), [false, true]);
    checkEqual("late sound is marked", all(".late").length, 1);
}

function checkLabels() {
    const boxes = all(".labels text").map(text => ({text: text.textContent, box: text.getBBox()}));
    check("there are labels", boxes.length > 10, boxes.length);
    const isBefore = (a, b, start, length, slack) => a.box[start] + a.box[length]
        <= b.box[start] + slack;
    const apart = (a, b) => isBefore(a, b, "x", "width", 0) || isBefore(b, a, "x", "width", 0)
        || isBefore(a, b, "y", "height", 4) || isBefore(b, a, "y", "height", 4);
    boxes.forEach((a, i) => boxes.slice(i + 1).forEach(b => check(
        `labels "${a.text}" and "${b.text}" do not overlap`, apart(a, b))));
}

async function checkKeys() {
    const chart = one("#chart");
    const whole = width("AcceptedRemote");
    const length = state => piece(state).dataset.end - piece(state).dataset.start;
    check("a second is as long everywhere", Math.abs(width("Streaming") / whole
        - length("Streaming") / length("AcceptedRemote")) < 0.02);
    await press(chart, "+");
    checkEqual("+ zooms in", (width("AcceptedRemote") / whole).toFixed(2), "1.60");
    await press(chart, "ArrowRight");
    const before = left("Streaming");
    await press(chart, "ArrowRight");
    check("the right arrow moves on", left("Streaming") < before);
    await press(chart, "ArrowLeft");
    checkEqual("the left arrow moves back", left("Streaming").toFixed(3), before.toFixed(3));
    await press(chart, "-", "+", "+", "0");
    checkEqual("0 shows the whole run", width("AcceptedRemote"), whole);
    await press(chart, "q");
    check("q shortens quiet stretches",
          all(".break").length > 3 && width("AcceptedRemote") < whole * 0.6);
    checkEqual("and the box says so", one("#shorten").checked, true);
    await press(chart, "q");
    checkEqual("q again draws to scale", [all(".break").length, width("AcceptedRemote")],
               [0, whole]);
}

async function checkCursor() {
    const cursor = one("#cursor");
    const at = () => cursor.getAttribute("aria-valuetext");
    const isInService = () => / s, (service: |bus: service)/.test(at());
    await press(cursor, "Home");
    while (!isInService())
        await press(cursor, "ArrowUp");
    await press(cursor, "Home");
    // All that is drawn from the service's lane, in the order of the journal.
    const expected = rows().filter(({lane, kind, text}) => lane === "service" && kind !== "end"
        || lane === "bus" && text.startsWith("service") && !text.includes("org.freedesktop.DBus"));
    const walked = [];
    for (let before = ""; before !== at(); await press(cursor, "ArrowRight")) {
        before = at();
        walked.push(title());
        check("the details are those of the entry", before.includes(title()), title());
    }
    checkEqual("walking passes all entries of the lane", walked, expected.map(({text}) => text));
    await press(cursor, "ArrowUp");
    check("the up arrow goes to the lane above", !isInService());
    await type("bluez service registered");
    await press(one("#search"), "Enter");
    const list = one("#details dl").textContent;
    for (const part of ["BluetoothManager.cpp", "serviceBluezRegistered", "level"])
        check(`the details of a log line say ${part}`, list.includes(part));
    await type("");
}

async function checkPointer() {
    const current = title();
    const mark = all(".marks .level2").pop();
    const [x, y] = mark.getAttribute("transform").match(/[\d.]+/g).map(Number);
    const pointed = "restart agent ok";
    await point("pointermove", x + 1, y + 1);
    checkEqual("pointing at a mark shows its details", title(), pointed);
    await point("pointerleave", 0, 0);
    checkEqual("and only as long as it lasts", title(), current);
    await point("pointerdown", x, y);
    await point("pointerup", x, y);
    await point("pointerleave", 0, 0);
    checkEqual("a click keeps them", title(), pointed);

    const before = width("AcceptedRemote");
    one("#chart").dispatchEvent(new view.WheelEvent("wheel", {
        deltaY: -100, clientX: 500, clientY: 300, bubbles: true, cancelable: true}));
    await drawn();
    check("the wheel zooms in", width("AcceptedRemote") > before);
    one("#chart").setPointerCapture = () => {}; // a made up pointer cannot be captured
    const start = left("Streaming");
    await point("pointerdown", 500, 300, {button: 0});
    await point("pointermove", 470, 300);
    await point("pointerup", 470, 300);
    check("dragging moves the run", Math.abs(left("Streaming") - start + 30) < 1);
    await click(one("#fit"));
}

async function checkFilters() {
    const lanes = () => all(".lane").map(lane => lane.dataset.lane);
    const box = lane => one(`#lanes input[data-lane=${lane}]`);
    const calls = visible(".arrows .call").length;
    await click(box("agent"));
    checkEqual("a lane can be left out", lanes(), LANES.filter(lane => lane !== "agent"));
    const ofAgent = rows().filter(({kind, text}) => kind === "call" && text.includes("agent"));
    check("the sample has calls of the agent", ofAgent.length > 0);
    checkEqual("its arrows go with it", visible(".arrows .call").length, calls - ofAgent.length);
    await click(box("agent"));
    await click(box("daemon"));
    check("the bus daemon can be shown", lanes().includes("daemon"));
    await click(box("daemon"));
}

async function checkSearch() {
    const shown = () => rows().filter(({row}) => !row.hidden);
    const total = rows().length;
    await type("getstatus");
    check("the search leaves what matches",
          shown().length > 0 && shown().every(({text}) => text.includes("GetStatus")));
    check("the table is open then", one("#table-details").open);
    checkEqual("the matches are counted", one("#matches").textContent,
               `${shown().length} of ${total} entries`);
    checkEqual("all else is faint in the picture",
               all(".arrows path:not(.dim), .marks path:not(.dim), .bars path:not(.dim)").length,
               shown().length);
    await press(one("#search"), "Enter");
    check("Enter goes to a match", title().includes("GetStatus"), title());
    await type("no such text");
    checkEqual("nothing matches", [shown().length, one("#matches").textContent],
               [0, `0 of ${total} entries`]);
    await type("");
    checkEqual("an empty search shows all", [shown().length, all(".dim").length], [total, 0]);
    await click(one("#details button"));
    check("the details lead to the table's row", page.activeElement.localName === "tr"
        && page.activeElement.textContent.includes(title()));
}

async function checkPrint() {
    await press(one("#chart"), "+", "+", "+");
    view.dispatchEvent(new view.Event("beforeprint"));
    checkEqual("the whole run goes to paper", pieces().length, STATES.length);
    const paper = Number(one("#drawing").getAttribute("viewBox").split(" ")[2]);
    for (const {x, width} of pieces().map(group => rectangle(group).getBBox()))
        check("and is on it", x > 100 && x + width <= paper, `${x} to ${x + width} of ${paper}`);
    view.dispatchEvent(new view.Event("afterprint"));
    check("afterwards the view is as before", pieces().length < STATES.length);
}

function checkSelfContained() {
    checkEqual("the page loads nothing", view.performance.getEntriesByType("resource").length, 0);
    checkEqual("and names nothing to load",
               all("img, link, iframe, object, embed, [src], [href^=http]").length, 0);
    checkEqual("two scripts: the data and the page's own", page.scripts.length, 2);
    checkEqual("nothing of the journal was run", view.broken, undefined);
}

// How the page looks

function luminance(colour) {
    const [red, green, blue] = colour.match(/[\d.]+/g).map(value => (Number(value) / 255) ** 2.2);
    return 0.2126 * red + 0.7152 * green + 0.0722 * blue;
}

function backgroundOf(element) {
    const colour = view.getComputedStyle(element).backgroundColor;
    return /^rgba\(.*, 0\)$/.test(colour) ? backgroundOf(element.parentElement) : colour;
}

function checkContrast(element, colour, ground, least) {
    const [low, high] = [luminance(colour), luminance(ground)].sort((a, b) => a - b);
    check(`"${element.textContent.trim().slice(0, 30)}" ${element.getAttribute("class")} can be `
          + `seen: ${colour} on ${ground}`, (high + 0.05) / (low + 0.05) >= least);
}

function checkLooks(isDark) {
    const style = element => view.getComputedStyle(element);
    check("the page keeps to the scheme",
          luminance(backgroundOf(page.body)) < 0.5 === isDark, backgroundOf(page.body));
    one("#table-details").open = true;
    check("nothing is wider than the window",
          page.documentElement.scrollWidth <= view.innerWidth, page.documentElement.scrollWidth);
    checkLabels();
    for (const element of all("h1, h2, p, button, label, kbd, dt, dd, th, td"))
        if (element.getClientRects().length)
            checkContrast(element, style(element).color, backgroundOf(element), 4.5);
    for (const group of pieces().filter(group => group.querySelector("text")))
        checkContrast(group, style(group.querySelector("text")).fill, fill(group), 4.5);
    const grounds = new Set(all(".stripe").map(stripe => style(stripe).fill));
    for (const ground of grounds) {
        all(".labels text, .lane-title").forEach(
            text => checkContrast(text, style(text).fill, ground, 4.5));
        for (const shape of all(".arrow, .mark:not(.level9), .wave")) {
            const {fill, stroke} = style(shape);
            checkContrast(shape, fill === "none" ? stroke : fill, ground, 3);
        }
    }
}

const cases = {
    async road() {
        checkItems();
        checkBands();
        checkSound();
        await checkKeys();
        await checkCursor();
        await checkPointer();
        await checkFilters();
        await checkSearch();
        await checkPrint();
        checkSelfContained();
    },

    light: () => checkLooks(false),
    dark: () => checkLooks(true),

    async hostile() {
        const found = rows();
        const script = "</script><script>window.broken = 1</script>";
        const image = "<img src=x onerror='window.broken = 1'>";
        checkEqual("all entries are there", found.length, 12);
        checkEqual("texts stand as they are", [found[1].text, found[2].text],
                   [script, "<!-- {{script}} \"quoted\" & 'single' \u2028 \\u003c </table>"]);
        checkEqual("names, too", [found[3].text, found[6].lane, found[6].kind],
                   [`${image}: ${script}`, image, script]);
        check("lines that are no entries are counted",
              one(".facts").textContent.includes("4 unreadable lines"), one(".facts").textContent);
        check("a phone's name is a lane's name",
              all("#lanes label").some(label => label.textContent.trim() === `Phone ${image}`));
        checkEqual("a program that crashed is a failed bar", all(".bars .failed").length, 1);
        checkEqual("the bus daemon's answer is that of who was called",
                   [visible(".arrows .error").length, all(".activation.failed").length], [1, 1]);
        for (const {text} of found) {
            await type(text);
            await press(one("#search"), "Enter");
        }
        await press(one("#chart"), "+", "q", "0");
        checkSelfContained();
    },

    empty() {
        checkEqual("the page says that there is nothing", one(".facts").textContent,
                   "The journal is empty.");
        checkEqual("and shows no picture", one("#picture").hidden, true);
        checkSelfContained();
    },

    /** The service's runs begin with "== TITLE" and end with "= STACK; CONNECTION". */
    states() {
        const found = rows();
        const starts = found.filter(({kind}) => kind === "start");
        const ends = found.filter(({kind}) => kind === "end");
        const isStack = state => ["Off", "Starting", "On", "Restart pending"].includes(state);
        starts.forEach(({time}, i) => {
            const states = pieces().map(group => group.dataset).filter(
                ({start, end}) => start >= time && end <= ends[i].time).map(({state}) => state);
            const [title, expected] = ["== ", "= "].map(mark => found.find(
                row => row.time >= time && row.text.startsWith(mark)).text);
            checkEqual(title, "= " + [states.filter(isStack), states.filter(
                state => !isStack(state))].map(part => part.join(", ")).join("; "), expected);
        });
    },

    /** Milliseconds; nothing is waited for, so that real time can be measured. */
    long() {
        const opening = view.performance.getEntriesByType("navigation")[0].domContentLoadedEventEnd;
        check("the page opens", opening > 0 && opening < 5000, opening); // measured: 400
        const start = performance.now();
        view.dispatchEvent(new view.Event("beforeprint"));
        one("#drawing").getBoundingClientRect();
        const drawing = performance.now() - start;
        check("it is drawn again soon", drawing < 2000, drawing); // measured: 100
        check("the arrows are there", all(".arrows path").length > 500);
        check("the sound is there", all(".wave").length > 0);
    },
};

frame.addEventListener("load", async () => {
    view = frame.contentWindow;
    page = view.document;
    view.addEventListener("error", event => check(`no error: ${event.message}`, false));
    // The browser's clock leaps ahead here and leaves frames out, so a timer stands in for them.
    view.requestAnimationFrame = callback => view.setTimeout(callback, 16);
    try {
        await cases[parameters.get("case")]();
    } catch (error) {
        check(`${error}\n${error.stack}`, false);
    }
    document.getElementById("result").textContent = encodeURIComponent(JSON.stringify(result));
});
frame.src = parameters.get("page");
