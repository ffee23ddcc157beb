"use strict";

// The picture of a run. All shapes of an entry carry its number, for clicks and highlights.

const ROW = 14; // of labels
const BAR = 18;
const TALLEST = 10000;
const TOO_LONG = /(?<=^.{89}).{2,}/;
const DEVICE_FOLDER = /\/org\/bluez\/\d+\/hci\d\/dev_/g;
const pen = document.createElement("canvas").getContext("2d");
pen.font = "11px sans-serif";

/** Adds an element of HTML or SVG, as its parent is. */
function element(parent, name, attributes, text = "") {
    const made = document.createElementNS(parent.namespaceURI, name);
    for (const [key, value] of Object.entries(attributes))
        made.setAttribute(key, value);
    made.textContent = text;
    parent.append(made);
    return made;
}

/** Rows of labels: each label stands whole, clear of others and of arrows, or not at all. */
class Strip {
    constructor(y, rowCount, width) {
        this.rows = Array.from({length: rowCount}, (unused, row) => (
            {y: y + (row + 0.8) * ROW, taken: new Uint8Array(width)})); // pixels
        this.labels = [];
    }

    addArrow(x) {
        for (const {taken} of this.rows)
            taken[Math.round(x)] = 1;
    }

    draw(parent) {
        this.labels.sort((a, b) => b.importance - a.importance);
        for (const {x, text, entry, style} of this.labels) {
            const size = Math.ceil(pen.measureText(text).width);
            const place = this.place(x + 5, size) ?? this.place(x - 5 - size, size);
            if (!place)
                continue;
            place.taken.fill(1, place.start - 3, place.start + size + 3);
            element(parent, "text", {class: `label ${style}`, x: place.start, y: place.y,
                                     "data-entry": entry.number}, text);
        }
    }

    place(start, size) {
        const row = this.rows.find(({taken}) => start > 3 && start + size < taken.length
            && !taken.subarray(start - 3, start + size + 3).includes(1));
        return row && {...row, start};
    }
}

class Picture {
    constructor(run, sound, titles, svg) {
        Object.assign(this, {run, sound, titles, svg});
    }

    /** The whole run in so many pixels. */
    draw(width) {
        const {run, titles, svg} = this;
        this.width = width;
        this.strips = [];
        titles.replaceChildren();
        svg.replaceChildren();
        this.drawAxis();
        for (const [name, {lane}] of run.phones)
            this.drawLane(name, lane);
        this.rule();
        this.drawMessages();
        this.drawMarks("log", 3, run.entries.filter(({line}) => /^[0-9|]/.test(line)));
        this.drawLane("pulseaudio", run.lanes.pulseaudio);
        this.drawLane("commands", run.lanes.commands);
        this.drawCommands(run.entries.filter(({line}) => line[0] === "$"));
        this.drawMarks("control", 2, run.entries.filter(({lane}) => lane === "control"));
        this.drawSound();
        for (const strip of this.strips)
            strip.draw(svg);
        this.cursor = element(svg, "path", {class: "cursor"});
        svg.setAttribute("height", this.y);
        svg.setAttribute("width", width);
    }

    x(time) {
        return time / this.run.end * (this.width - 12) + 4;
    }

    title(text, y) {
        element(this.titles, "text", {x: 6, y: y + 4}, text);
    }

    strip(rowCount) {
        const strip = new Strip(this.y, rowCount, this.width);
        this.strips.push(strip);
        this.y += rowCount * ROW;
        return strip;
    }

    label(strip, entry, importance, style = "") {
        const text = entry.line.slice(2).replace(DEVICE_FOLDER, "").replace(TOO_LONG, "\u2026");
        strip.labels.push({x: this.x(entry.time), text, entry, importance, style});
    }

    /** A shape that stands for an entry. */
    mark(name, entry, attributes, text) {
        const made = element(this.svg, name, {...attributes, "data-entry": entry.number}, text);
        element(made, "title", {}, entry.line);
        return made;
    }

    /** A flag for each trouble and a dot for each other entry. The worst lies on top. */
    drawFlags(entries, y) {
        for (const kind of ["dot", ...Object.keys(TROUBLES).reverse()]) {
            const mark = TROUBLES[kind]?.mark ?? "\u2022";
            for (const entry of entries.filter(({trouble = "dot"}) => trouble === kind))
                this.mark("text", entry, {class: `flag ${kind}`, x: this.x(entry.time), y}, mark);
        }
    }

    rule() {
        this.y += 6;
        element(this.svg, "path", {class: "rule", d: `M0,${this.y - 3} H${this.width}`});
    }

    /** Times, and a flag for each trouble. */
    drawAxis() {
        const rough = this.run.end / this.width * 70;
        const power = 10 ** Math.floor(Math.log10(rough));
        const step = [1, 2, 5, 10].map(factor => factor * power).find(length => length >= rough);
        for (let tick = 0; tick * step <= this.run.end; ++tick) {
            const x = this.x(tick * step);
            element(this.svg, "path", {class: "rule", d: `M${x},16 v${TALLEST}`});
            if (x + 40 < this.width)
                element(this.svg, "text", {class: "tick", x, y: 11},
                        `${Number((tick * step).toFixed(6))} s`);
        }
        this.drawFlags(this.run.entries.filter(({trouble}) => trouble), 28);
        this.y = 40;
    }

    drawLane(title, pieces) {
        this.title(title, this.y + BAR / 2);
        for (const {state, entry, end} of pieces) {
            const x = this.x(entry.time);
            const width = Math.max(3, this.x(end ?? this.run.end) - x);
            this.mark("rect", entry, {class: `piece ${state}`, x, y: this.y, width, height: BAR});
            if (pen.measureText(state).width + 8 < width)
                element(this.svg, "text", {x: x + 4, y: this.y + 13, "data-entry": entry.number},
                        state);
        }
        this.y += BAR + 3;
    }

    /** Those who talk over the bus stand in a row, so that an arrow never passes another lane. */
    drawMessages() {
        const gaps = {};
        for (const [name, rowCount] of [["agent", 2], ["bluetoothd", 3], ["service", 0]]) {
            this.drawLane(name, this.run.lanes[name]);
            const top = this.y - 3;
            const strip = this.strip(rowCount);
            this.y += 12;
            gaps[name] = {top, bottom: this.y, strip, labels: strip};
        }
        this.drawLane("product", this.run.lanes.product);
        gaps.service.labels = this.strip(3); // They are many at a time, so not between arrows.
        for (const {entry, below, isDown} of this.run.messages) {
            const {top, bottom, strip, labels} = gaps[below];
            const style = `message ${entry.kind}`;
            const x = this.x(entry.time);
            const group = this.mark("g", entry, {class: style});
            const [start, end, back] = isDown ? [top, bottom, -7] : [bottom, top, 7];
            element(group, "path", {class: "hit", d: `M${x},${start} V${end}`});
            element(group, "path", {class: "shaft", d: `M${x},${start} V${end + back / 2}`});
            element(group, "path", {d: `M${x},${end} l-3.5,${back} h7 z`});
            strip.addArrow(x);
            const isToProduct = entry.line[0] === "@" && entry.kind === "call";
            const importance = {error: 4, call: isToProduct ? 3 : 2, signal: 1}[entry.kind] ?? 0;
            // An answer without values says nothing that its arrow does not.
            if (entry.kind !== "reply" || entry.arguments.length > 0)
                this.label(labels, entry, importance, style);
        }
    }

    /** A lane of what happens at one time each: troubles, then information, then traces. */
    drawMarks(title, rowCount, entries) {
        this.rule();
        const y = this.y + ROW / 2;
        this.title(title, y);
        this.y += ROW;
        this.drawFlags(entries, y);
        const strip = this.strip(rowCount);
        for (const entry of entries) {
            const importance = entry.trouble ? 2 : entry.line[0] === "9" ? 0 : 1;
            this.label(strip, entry, importance, entry.trouble);
        }
        this.rule();
    }

    /** Each text stands right of a line from its bar, and is cut where the next such line is. */
    drawCommands(entries) {
        const ends = Array(3).fill(this.width); // of what is free to the left, in each row
        const changes = entries.filter(({line}, at) => line !== entries[at - 1]?.line);
        for (const entry of changes.reverse()) {
            const x = this.x(entry.time);
            let text = entry.line.slice(2);
            const row = [pen.measureText(text).width + 8, 90].map(
                room => ends.findIndex(end => end - x > room)).find(at => at >= 0);
            if (row === undefined)
                continue;
            while (pen.measureText(text).width > ends[row] - x - 8)
                text = `${text.slice(0, -2)}\u2026`;
            const y = this.y + (row + 0.8) * ROW;
            element(this.svg, "path", {class: "lead", d: `M${x},${this.y - 3} V${y}`});
            this.mark("text", entry, {class: "label", x: x + 4, y}, text);
            ends.fill(x, 0, row + 1);
        }
        this.y += ends.length * ROW;
    }

    drawSound() {
        const {bucket, peaks} = this.sound;
        if (peaks.length === 0)
            return;
        const middle = this.y + 32;
        this.title("sound", middle);
        const lines = peaks.map((peak, index) => (
            `M${this.x(index * bucket)},${middle - 0.5 - 30 * peak} v${1 + 60 * peak}`));
        element(this.svg, "path", {class: "sound", d: lines.join(""),
                                   "stroke-width": this.x(bucket) - this.x(0) + 0.5});
        this.y += 64;
    }

    /** Shows where an entry is, and its answer or end. */
    point(entry) {
        const numbers = [entry.number, entry.partner?.number];
        for (const one of document.querySelectorAll("[data-entry]"))
            one.classList.toggle("current", numbers.includes(Number(one.dataset.entry)));
        this.cursor.setAttribute("d", `M${this.x(entry.time)},16 v${TALLEST}`);
    }
}
