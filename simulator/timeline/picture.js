"use strict";

// The picture of a run. All shapes of an entry carry its number, for clicks and highlights.

const ROW = 14; // of labels
const BAR = 14;
const AXIS = 40; // times, and a flag for each trouble
const GUTTER = 84; // the lanes' titles
const LONGEST_LABEL = 90;
const DEVICE_FOLDER = /\/org\/bluez\/\d+\/hci\d\/dev_/g;
const FLAGS = {
    "crash": "M-6,-6 6,6 M-6,6 6,-6",
    "give-up": "M-6,-6 H6 V6 H-6 Z",
    "error": "M0,-7 7,6 H-7 Z",
    "warning": "M0,-6 6,0 0,6 -6,0 Z",
    "failure": "M-6,-6 H6 L0,6 Z",
};
const pen = document.createElement("canvas").getContext("2d");
pen.font = "11px sans-serif";

function shape(parent, name, attributes, text) {
    const made = document.createElementNS("http://www.w3.org/2000/svg", name);
    for (const [key, value] of Object.entries(attributes))
        made.setAttribute(key, value);
    if (text !== undefined)
        made.textContent = text;
    parent.append(made);
    return made;
}

function shorten(text, length) {
    return text.length > length ? text.slice(0, length - 1) + "\u2026" : text;
}

/** Rows of labels: each label stands whole, clear of others and of arrows, or not at all. */
class Strip {
    constructor(y, rowCount) {
        this.rows = Array.from({length: rowCount}, (unused, row) => (
            {y: y + (row + 0.8) * ROW, taken: []}));
        this.labels = [];
        this.arrows = new Set(); // full pixels
    }

    draw(parent, width) {
        this.labels.sort((a, b) => b.importance - a.importance);
        for (const {x, text, number, style} of this.labels) {
            const size = pen.measureText(text).width;
            const place = this.place(x + 5, size, width) ?? this.place(x - 5 - size, size, width);
            if (!place)
                continue;
            place.row.taken.push({start: place.start, end: place.start + size});
            shape(parent, "text", {class: `label ${style}`, x: place.start, y: place.row.y,
                                   "data-entry": number}, text);
        }
    }

    place(start, size, width) {
        const end = start + size;
        if (start < 0 || end > width || this.isCrossed(start, end))
            return null;
        const row = this.rows.find(
            ({taken}) => taken.every(other => other.end + 8 < start || end + 8 < other.start));
        return row && {row, start};
    }

    isCrossed(start, end) {
        for (let x = Math.floor(start) - 2; x < end + 2; ++x) {
            if (this.arrows.has(x))
                return true;
        }
        return false;
    }
}

class Picture {
    constructor(run, sound, titles, svg) {
        Object.assign(this, {run, sound, titles, svg});
    }

    /** The whole run in so many pixels. */
    draw(width) {
        const {run, titles, svg} = this;
        const others = run.bars.filter(({program}) => !DAEMONS.includes(program));
        this.width = width;
        this.strips = [];
        titles.replaceChildren();
        svg.replaceChildren();
        this.back = shape(svg, "g", {});
        this.front = shape(svg, "g", {});
        this.y = AXIS;
        for (const phone of run.phones.values())
            this.drawBand(phone.name, phone.band, "phone");
        this.drawMessages();
        this.drawMarks("log", 3, ({lane, kind}) => lane === "service" && /log|output/.test(kind));
        this.drawBars("pulseaudio", run.bars.filter(({program}) => program === "pulseaudio"));
        this.y += 6;
        this.drawBars("commands", others);
        const strip = this.strip(3);
        for (const {number, failed} of others)
            this.label(strip, number, failed ? 1 : 0);
        this.drawMarks("control", 2, ({lane}) => lane === "control");
        this.drawSound();
        this.drawAxis();
        for (const strip of this.strips)
            strip.draw(this.front, width);
        this.cursor = shape(svg, "path", {class: "cursor"});
        for (const [element, size] of [[titles, GUTTER], [svg, width]]) {
            for (const [key, value] of Object.entries({width: size, height: this.y}))
                element.setAttribute(key, value);
        }
    }

    x(time) {
        return time / Math.max(this.run.end, 0.1) * (this.width - 12) + 4;
    }

    xOf(number) {
        return this.x(this.run.entries[number].time);
    }

    title(text, y) {
        const title = shape(this.titles, "text", {x: 6, y: y + 4}, shorten(text, 12));
        shape(title, "title", {}, text);
    }

    strip(rowCount) {
        const strip = new Strip(this.y, rowCount);
        this.strips.push(strip);
        this.y += rowCount * ROW;
        return strip;
    }

    label(strip, number, importance, style = "") {
        const line = this.run.entries[number].line.slice(2).replace(DEVICE_FOLDER, "");
        const text = shorten(line, LONGEST_LABEL);
        strip.labels.push({x: this.xOf(number), text, number, importance, style});
    }

    /** A shape that stands for an entry. */
    mark(name, number, attributes) {
        const made = shape(this.front, name, {...attributes, "data-entry": number});
        shape(made, "title", {}, this.run.entries[number].line);
        return made;
    }

    flag(kind, number, y) {
        return this.mark("path", number, {class: `flag ${kind}`, d: FLAGS[kind],
                                          transform: `translate(${this.xOf(number)} ${y})`});
    }

    rule() {
        this.y += 6;
        shape(this.back, "path", {class: "rule", d: `M0,${this.y - 3} H${this.width}`});
    }

    drawAxis() {
        const rough = Math.max(this.run.end, 0.1) / this.width * 70;
        const power = 10 ** Math.floor(Math.log10(rough));
        const step = [1, 2, 5, 10].map(factor => factor * power).find(length => length >= rough);
        const digits = Math.max(0, Math.ceil(-Math.log10(step)));
        for (let tick = 0; tick * step <= this.run.end; ++tick) {
            const x = this.x(tick * step);
            shape(this.back, "path", {class: "grid", d: `M${x},16 V${this.y}`});
            if (x + 40 < this.width)
                shape(this.back, "text", {class: "tick", x, y: 11},
                      `${(tick * step).toFixed(digits)} s`);
        }
        const kinds = [...TROUBLES.keys()];
        const order = ({kind}) => kinds.indexOf(kind);
        // The worst comes last and lies on top.
        for (const {number, kind} of [...this.run.troubles].sort((a, b) => order(b) - order(a)))
            this.flag(kind, number, 28);
    }

    drawBand(title, band, style) {
        this.title(title, this.y + 11);
        for (const {state, number, start, end} of band.pieces) {
            const x = this.x(start);
            const width = Math.max(1, this.x(end) - x);
            this.mark("rect", number, {class: `piece ${style} ${state}`, x, y: this.y, width,
                                       height: 22});
            if (pen.measureText(state).width + 8 < width)
                shape(this.front, "text", {x: x + 4, y: this.y + 15, "data-entry": number}, state);
        }
        this.y += 26;
    }

    drawBars(title, bars) {
        this.title(title, this.y + BAR / 2);
        for (const {number, start, end, failed, endNumber} of bars) {
            const x = this.x(start);
            const width = Math.max(3, this.x(end) - x);
            this.mark("rect", number, {class: "bar", x, y: this.y, width, height: BAR});
            if (failed)
                this.mark("rect", endNumber, {class: "bar failed", x: x + width - 3, y: this.y,
                                              width: 3, height: BAR});
        }
        this.y += BAR;
    }

    /** Those who talk over the bus stand in a row, so that an arrow never passes another lane. */
    drawMessages() {
        const lanes = {};
        const gaps = {};
        const lane = (name, draw) => {
            const top = this.y;
            draw(name);
            lanes[name] = {top, bottom: this.y};
        };
        const gap = (one, other, rowCount) => {
            this.y += 4;
            gaps[one + other] = gaps[other + one] = this.strip(rowCount);
            this.y += 10;
        };
        const children = name => this.drawBars(
            name, this.run.bars.filter(({program}) => program === name));
        this.rule();
        lane("agent", children);
        gap("agent", "bluetoothd", 2);
        lane("bluetoothd", children);
        gap("bluetoothd", "service", 3);
        lane("service", name => this.drawBand(name, this.run.stack, "stack"));
        this.y += 20;
        lane("product", name => this.title(name, this.y));
        shape(this.back, "path", {class: "line", d: `M0,${this.y} H${this.width}`});
        gaps.productservice = gaps.serviceproduct = this.strip(3);
        for (const message of this.run.messages)
            this.drawMessage(message, lanes, gaps[message.from + message.to]);
    }

    drawMessage({number, from, to, style}, lanes, strip) {
        const entry = this.run.entries[number];
        const isDown = lanes[from].top < lanes[to].top;
        const start = isDown ? lanes[from].bottom : lanes[from].top;
        const end = isDown ? lanes[to].top : lanes[to].bottom;
        const x = this.xOf(number);
        this.drawArrow(this.mark("g", number, {class: `message ${style}`}), x, start, end);
        if (strip !== this.strips[2]) // The labels of the last gap stand below it.
            strip.arrows.add(Math.round(x));
        if (style === "reply" && !entry.arguments?.length)
            return; // It says nothing that its arrow does not.
        const isToProduct = entry.line[0] === "@" && style === "call";
        const importance = {error: 4, call: isToProduct ? 3 : 2, signal: 1}[style] ?? 0;
        this.label(strip, number, importance, `message ${style}`);
    }

    drawArrow(group, x, start, end) {
        const back = end > start ? -7 : 7;
        shape(group, "path", {class: "hit", d: `M${x},${start} V${end}`});
        shape(group, "path", {class: "shaft", d: `M${x},${start} V${end + back / 2}`});
        shape(group, "path", {class: "head", d: `M${x},${end} l-3.5,${back} h7 z`});
    }

    /** A lane of what happens at one time each: troubles, then information, then traces. */
    drawMarks(title, rowCount, isShown) {
        this.rule();
        const y = this.y + 7;
        this.title(title, y);
        this.y += BAR;
        const strip = this.strip(rowCount);
        this.run.entries.forEach((entry, number) => {
            if (!isShown(entry))
                return;
            const kind = troubleOf(entry);
            const isTrace = entry.line[0] === "9";
            if (kind)
                this.flag(kind, number, y);
            else
                this.mark("circle", number, {class: "dot", cx: this.xOf(number), cy: y,
                                             r: isTrace ? 1.5 : 3});
            this.label(strip, number, kind ? 2 : isTrace ? 0 : 1, kind ? `flag ${kind}` : "");
        });
        this.rule();
    }

    drawSound() {
        if (!this.sound)
            return;
        const middle = this.y + 32;
        this.title("sound", middle);
        const {start, bucket, peaks} = this.sound;
        const edge = way => peaks.map((peak, index) => {
            const x = this.x(start + index * bucket).toFixed(1);
            return `${x},${middle + way * (30 * peak + 0.5)}`;
        });
        const outline = [...edge(-1), ...edge(1).reverse()];
        shape(this.front, "path", {class: "sound", d: `M${outline.join(" ")} Z`});
        this.y += 64;
    }

    /** Shows where an entry is, and its answer or end. */
    point(number) {
        const partner = this.run.partners.get(number) ?? number;
        for (const one of this.svg.querySelectorAll("[data-entry]")) {
            const its = Number(one.dataset.entry);
            one.classList.toggle("current", its === number || its === partner);
        }
        this.cursor.setAttribute("d", `M${this.xOf(number)},16 V${this.y}`);
    }
}
