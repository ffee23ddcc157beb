
// The page: buttons, keys and mouse, the details of an entry, the search.

const run = JSON.parse(document.getElementById("run").textContent);
const rows = document.getElementById("table").tBodies[0].rows;
const entries = unpackEntries(run);

function byId(id) {
    return document.getElementById(id);
}

/** What an entry says, in a line: the table has it already. */
function summary(number) {
    return rows[number].cells[3].textContent.trim();
}

function element(name, text, parent) {
    const created = document.createElement(name);
    created.textContent = text;
    parent?.append(created);
    return created;
}

function makeModel() {
    const times = entries.map(entry => entry.time);
    const sound = unpackSound(run.sound);
    const soundEnd = sound ? Math.max(...sound.stretches.map(stretch => stretch.end)) : 0;
    const end = Math.max(times[times.length - 1], soundEnd);
    const items = makeItems(entries, end);
    return {items, sound, times, end, lanes: usedLanes(items), bands: makeBands(entries, end)};
}

class Page {
    constructor() {
        this.picture = new Picture(byId("drawing"), makeModel());
        this.itemOfEntry = new Map();
        for (const item of this.picture.byNumber) {
            this.itemOfEntry.set(item.number, item);
            if (item.type === "bar" && item.endNumber !== null)
                this.itemOfEntry.set(item.endNumber, item);
        }
        this.current = null;
        this.detailed = null;
        this.isWaiting = false; // for the next frame, to draw
        byId("picture").hidden = false;
        this.addLaneFilters();
        this.addLegend();
        this.addTools();
        this.addKeys();
        this.addPointer();
        this.search = new Search(this);
        const shown = this.picture.byNumber.filter(item => this.picture.isShown(item));
        if (shown.length > 0)
            this.select(shown.find(item => item.type !== "bar") ?? shown[0]);
        this.drawNow();
        new ResizeObserver(() => this.draw()).observe(byId("chart"));
        window.addEventListener("beforeprint", () => this.preparePrint());
        window.addEventListener("afterprint", () => this.endPrint());
    }

    /** Whether the entry can be gone to in the picture as it is now. */
    canShow(number) {
        const item = this.itemOfEntry.get(number);
        return item !== undefined && this.picture.isShown(item);
    }

    draw() {
        if (this.isWaiting)
            return;
        this.isWaiting = true;
        requestAnimationFrame(() => this.drawNow());
    }

    drawNow() {
        this.isWaiting = false;
        this.picture.draw(Math.max(byId("chart").clientWidth, 320));
        this.placeCursor();
    }

    /** On paper the whole run is as wide as the page. */
    preparePrint() {
        this.viewBeforePrint = [this.picture.from, this.picture.to];
        this.picture.fit();
        this.picture.draw(1240);
    }

    endPrint() {
        this.picture.setView(...this.viewBeforePrint);
        this.drawNow();
    }

    addLaneFilters() {
        for (const lane of this.picture.model.lanes) {
            const label = element("label", "", byId("lanes"));
            const box = element("input", "", label);
            box.type = "checkbox";
            box.checked = this.picture.shown.has(lane.id);
            box.dataset.lane = lane.id;
            label.append(` ${lane.title}`);
            box.addEventListener("change", () => {
                this.picture.shown[box.checked ? "add" : "delete"](lane.id);
                this.draw();
            });
        }
    }

    addLegend() {
        const legend = byId("legend");
        const used = bands => states => states.filter(
            state => bands.some(piece => piece.state === state));
        const {stack, policy, reconnect} = this.picture.model.bands;
        const swatch = state => shape("swatch piece " + stateClass(state),
                                      [["rect", "", {width: 22, height: 14, rx: 2}]]);
        this.addLegendPart(legend, "Stack",
                           used(stack)(STACK_STATES).map(state => [swatch(state), state]));
        this.addLegendPart(legend, "Connection", [
            ...used(policy)(POLICY_STATES), ...used(reconnect)(["Reconnect pending"]),
        ].map(state => [swatch(state), state]));
        const arrow = kind => shape("swatch", [["path", "arrow " + kind, {
            d: arrowShape(kind, -3, 25), transform: "translate(1 7) rotate(-90)"}]]);
        this.addLegendPart(legend, "Bus", [
            [arrow("call"), "call"], [arrow("reply"), "answer"], [arrow("error"), "error"],
            [arrow("signal"), "signal"]]);
        const mark = style => shape("swatch narrow", [["path", "mark " + style, {
            d: MARK_SHAPES[style], transform: "translate(7 7)"}]]);
        this.addLegendPart(legend, "Log", [
            [mark("level1"), "1 error"], [mark("level2"), "2 warning"],
            [mark("level4"), "4 information"], [mark("level9"), "9 trace"]]);
        const bar = failed => shape("swatch", [["path", failed ? "bar failed" : "bar", {
            d: barShape({failed}, 1, 18, 7)}]]);
        this.addLegendPart(legend, "Programs", [[bar(false), "runs"], [bar(true), "fails"]]);
    }

    addLegendPart(legend, title, parts) {
        if (parts.length === 0)
            return;
        const group = element("p", "", legend);
        element("b", title, group);
        for (const [picture, text] of parts) {
            const part = element("span", "", group);
            part.append(picture, text);
        }
    }

    addTools() {
        const {picture} = this;
        const actions = {
            "zoom-in": () => this.zoom(1 / 1.6),
            "zoom-out": () => this.zoom(1.6),
            "left": () => picture.move(-0.2),
            "right": () => picture.move(0.2),
            "fit": () => picture.fit(),
        };
        for (const [id, action] of Object.entries(actions)) {
            byId(id).addEventListener("click", () => {
                action();
                this.draw();
            });
        }
        byId("shorten").checked = false;
        byId("shorten").addEventListener("change", () => {
            picture.setShortened(byId("shorten").checked);
            this.draw();
        });
    }

    /** Around the current entry where it can be seen, else around the middle. */
    zoom(factor) {
        const {picture} = this;
        const at = this.current && picture.scale.drawn(this.current.time);
        const inView = this.current && at >= picture.from && at <= picture.to;
        picture.zoom(factor, inView ? at : undefined);
    }

    addKeys() {
        const {picture} = this;
        const zooming = {
            "+": () => this.zoom(1 / 1.6),
            "=": () => this.zoom(1 / 1.6),
            "-": () => this.zoom(1.6),
            "0": () => picture.fit(),
            "q": () => byId("shorten").click(),
        };
        const moving = {
            "ArrowLeft": () => picture.move(-0.1),
            "ArrowRight": () => picture.move(0.1),
            "Home": () => picture.setView(picture.scale.start,
                                          picture.scale.start + picture.to - picture.from),
            "End": () => picture.setView(picture.scale.end - picture.to + picture.from,
                                         picture.scale.end),
        };
        const walking = {
            "ArrowLeft": () => this.walk(-1),
            "ArrowRight": () => this.walk(1),
            "ArrowUp": () => this.changeLane(-1),
            "ArrowDown": () => this.changeLane(1),
            "Home": () => this.walkToEnd(-1),
            "End": () => this.walkToEnd(1),
        };
        const onKey = (...keys) => event => {
            const action = Object.assign({}, ...keys)[event.key];
            if (!action || event.ctrlKey || event.altKey || event.metaKey)
                return;
            event.preventDefault();
            event.stopPropagation();
            action();
            this.draw();
        };
        byId("chart").addEventListener("keydown", onKey(zooming, moving));
        byId("cursor").addEventListener("keydown", onKey(zooming, walking));
    }

    addPointer() {
        const chart = byId("chart");
        const {picture} = this;
        const place = event => {
            const box = chart.getBoundingClientRect();
            return {x: event.clientX - box.left, y: event.clientY - box.top};
        };
        let grip = null;
        chart.addEventListener("wheel", event => {
            const {x} = place(event);
            if (x < GUTTER || event.ctrlKey)
                return;
            event.preventDefault();
            if (event.shiftKey || Math.abs(event.deltaX) > Math.abs(event.deltaY))
                picture.move((event.deltaX || event.deltaY) / 1000);
            else
                picture.zoom(Math.exp(Math.max(-100, Math.min(100, event.deltaY)) / 400),
                             picture.drawnAt(x));
            this.draw();
        }, {passive: false});
        chart.addEventListener("pointerdown", event => {
            if (event.button === 0)
                grip = {...place(event), from: picture.from, to: picture.to, moved: false};
        });
        chart.addEventListener("pointermove", event => {
            const {x, y} = place(event);
            if (!grip) {
                this.preview(picture.itemAt(x, y));
                return;
            }
            if (!grip.moved && Math.abs(x - grip.x) < 4)
                return;
            if (!grip.moved)
                chart.setPointerCapture(event.pointerId);
            grip.moved = true;
            const way = (grip.x - x) / picture.unit;
            picture.setView(grip.from + way, grip.to + way);
            this.draw();
        });
        chart.addEventListener("pointerup", event => {
            const item = grip && !grip.moved ? picture.itemAt(grip.x, grip.y) : null;
            grip = null;
            if (item)
                this.select(item);
        });
        chart.addEventListener("pointercancel", () => { grip = null; });
        chart.addEventListener("pointerleave", () => this.preview(null));
    }

    /** All that can be walked to in a lane, in the order of time. */
    itemsOf(laneId) {
        return this.picture.byNumber.filter(
            item => laneOfItem(item) === laneId && this.picture.isShown(item));
    }

    walk(way) {
        const items = this.itemsOf(laneOfItem(this.current));
        const index = items.indexOf(this.current) + way;
        if (items[index])
            this.select(items[index]);
    }

    walkToEnd(way) {
        const items = this.itemsOf(laneOfItem(this.current));
        if (items.length > 0)
            this.select(items[way < 0 ? 0 : items.length - 1]);
    }

    /** To what is nearest in time in the next lane that has anything. */
    changeLane(way) {
        const lanes = [...this.picture.places.keys()];
        const away = item => Math.abs(item.time - this.current.time);
        for (let i = lanes.indexOf(laneOfItem(this.current)) + way; lanes[i]; i += way) {
            const items = this.itemsOf(lanes[i]);
            if (items.length === 0)
                continue;
            this.select(items.reduce((near, item) => away(item) < away(near) ? item : near));
            return;
        }
    }

    select(item) {
        this.current = item;
        this.picture.reveal(item.time);
        const cursor = byId("cursor");
        cursor.setAttribute("aria-valuemin", 1);
        cursor.setAttribute("aria-valuemax", entries.length);
        cursor.setAttribute("aria-valuenow", item.number + 1);
        cursor.setAttribute("aria-valuetext", `${entries[item.number].time.toFixed(3)} s, `
            + `${entries[item.number].lane}: ${summary(item.number)}`);
        this.preview(null);
        this.draw();
    }

    /** Shows the details of what is pointed at, or else of the current entry. */
    preview(item) {
        const shown = item ?? this.current;
        if (!shown || shown === this.detailed)
            return;
        this.detailed = shown;
        this.picture.highlight([shown, ...this.partners(shown)]);
        showDetails(shown);
    }

    /** A call and its answer belong together. */
    partners(item) {
        const number = item.answer ?? item.call;
        return number === undefined ? [] : [this.itemOfEntry.get(number)];
    }

    placeCursor() {
        if (!this.current)
            return;
        const {picture} = this;
        const x = picture.x(this.current.time);
        const place = picture.places.get(laneOfItem(this.current));
        const y = !place ? AXIS : this.current.type === "bar" ? picture.barY(this.current)
                                                              : place.line;
        const {style} = byId("cursor");
        style.left = `${Math.min(Math.max(x, GUTTER - 4), picture.width - 4)}px`;
        style.top = `${y}px`;
        byId("cursor").classList.toggle("away", !place || x < GUTTER - 4 || x > picture.width);
    }
}

/** Entries by words: hides the other rows of the table and makes them faint in the picture. */
class Search {
    constructor(page) {
        this.page = page;
        this.matches = null; // numbers of entries; null: nothing is looked for
        this.texts = null;
        byId("search-form").hidden = false;
        byId("search").addEventListener("input", () => this.search());
        byId("search").addEventListener("keydown", event => {
            if (event.key === "Enter")
                this.next();
        });
    }

    search() {
        const wanted = byId("search").value.trim().toLowerCase();
        this.texts ??= Array.from(rows, row => row.textContent.toLowerCase());
        this.matches = null;
        if (wanted !== "") {
            this.matches = new Set();
            this.texts.forEach((text, number) => {
                if (text.includes(wanted))
                    this.matches.add(number);
            });
            byId("table-details").open = true;
        }
        this.texts.forEach((text, number) => {
            rows[number].hidden = this.matches !== null && !this.matches.has(number);
        });
        this.page.picture.dim(item => this.matches !== null && !this.matches.has(item.number)
                                  && !this.matches.has(item.endNumber));
        byId("matches").textContent = this.matches === null
            ? "" : `${this.matches.size} of ${rows.length} entries`;
    }

    next() {
        const {page} = this;
        const numbers = [...this.matches ?? []].filter(number => page.canShow(number));
        if (numbers.length === 0)
            return;
        const number = numbers.find(match => match > page.current.number) ?? numbers[0];
        page.select(page.itemOfEntry.get(number));
        byId("matches").textContent = `${numbers.indexOf(number) + 1} of ${numbers.length}: `
            + summary(number);
    }
}

/** A small picture of its own: [name, class, attributes] of each element. */
function shape(className, parts) {
    const svg = svgElement("svg", className, null, {width: 24, height: 14, "aria-hidden": true});
    for (const [name, partClass, attributes] of parts)
        svgElement(name, partClass, svg, attributes);
    return svg;
}

function laneOfItem(item) {
    return item.type === "arrow" ? item.from : item.lane;
}

function duration(seconds) {
    return seconds < 1 ? `${(seconds * 1000).toFixed(1)} ms` : `${seconds.toFixed(3)} s`;
}

/** What the fields of the entry do not say by themselves: [name, text]. */
function relations(item) {
    const facts = [];
    if (item.type === "bar") {
        const ended = item.endNumber === null ? "still running when the run ended"
                                              : item.exit || "ended";
        facts.push(["ran", `${duration(item.end - item.time)}, ${ended}`]);
    } else if (item.call !== undefined) {
        facts.push(["answers", `${summary(item.call)} (after `
            + `${duration(item.time - entries[item.call].time)})`]);
    } else if (item.kind === "call") {
        facts.push(["answered", item.answer === null ? "never" : `${summary(item.answer)} (after `
            + `${duration(entries[item.answer].time - item.time)})`]);
    }
    return facts;
}

/** These come first in the details; the others as they are. */
const FIRST_FIELDS = ["lane", "kind", "level", "phone", "state", "program", "arguments",
                      "senderName", "destinationName", "interface", "member", "path"];

function showDetails(item) {
    const details = byId("details");
    const entry = entries[item.number];
    const title = summary(item.number) || entry.kind;
    details.replaceChildren();
    element("h2", title, details);
    const list = element("dl", "", details);
    const values = [...new Set([...FIRST_FIELDS, ...Object.keys(entry)])].map(
        name => [name, entry[name]]).filter(
        ([name, value]) => name !== "time" && value !== undefined && value !== ""
            && value !== title);
    for (const [name, value] of [["time", `${entry.time.toFixed(6)} s`], ...relations(item),
                                 ...values]) {
        element("dt", name, list);
        element("dd", typeof value === "string" ? value : JSON.stringify(value), list);
    }
    const button = element("button", "Show in the table", details);
    button.type = "button";
    button.addEventListener("click", () => showRow(item.number));
}

function showRow(number) {
    byId("table-details").open = true;
    rows[number].hidden = false;
    rows[number].tabIndex = -1;
    rows[number].focus({preventScroll: true});
    rows[number].scrollIntoView({block: "center"});
}

/** Runs are told apart by where they are now; the run itself knew its folder by another name. */
function showFolder() {
    const folder = decodeURIComponent(location.pathname).split("/").slice(-2, -1)[0];
    if (folder) {
        byId("folder").textContent = folder;
        document.title = `${folder}: timeline of a run`;
    }
}

showFolder();
if (entries.length > 0)
    new Page();
