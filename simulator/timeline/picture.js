
// Draws what model.js has made ready, as SVG: lanes from top to bottom, time from left to right.

const GUTTER = 124; // the lanes' names
const MARGIN = 14; // right of the end of the run
const AXIS = 34;
const BAND = 22;
const LANE = 46;
const SOUND = 92;
const BAR = 12;
const EXTRA_ROW = 15; // bars that overlap others, below them
const SHORTEST_VIEW = 0.0005; // seconds

const SVG = "http://www.w3.org/2000/svg";

function svgElement(name, className, parent, attributes = {}) {
    const element = document.createElementNS(SVG, name);
    if (className)
        element.setAttribute("class", className);
    for (const [key, value] of Object.entries(attributes))
        element.setAttribute(key, value);
    parent?.append(element);
    return element;
}

/** The shapes of marks, around 0,0: they differ by more than their colour. */
const MARK_SHAPES = {
    level1: "M0-7L7 5H-7Z",
    level2: "M0-5.5L5.5 0L0 5.5L-5.5 0Z",
    level4: "M-3 0A3 3 0 1 1 3 0A3 3 0 1 1-3 0Z",
    level9: "M-2.5-2.5H2.5V2.5H-2.5Z",
    phone: "M-3.5-6H3.5V6H-3.5Z",
    fault: "M2-7L-4 1H-.5L-2 7L4-1H.5Z",
    heard: "M-5-2H-2L2-6V6L-2 2H-5Z",
    output: "M-4-1H4V1H-4Z",
    message: "M-4 0A4 4 0 1 1 4 0A4 4 0 1 1-4 0Z",
    note: "M-1.5-5H1.5V5H-1.5Z",
};

/** Which label may stand where: no two in one row may overlap. */
class LabelRows {
    constructor() {
        this.rows = new Map();
    }

    place(y, start, end) {
        const row = this.rows.get(y) ?? [];
        if (row.some(taken => start < taken.end && end > taken.start))
            return false;
        row.push({start, end});
        this.rows.set(y, row);
        return true;
    }
}

class Picture {
    /** model: "items", "bands", "sound" (may be null), "lanes", "times" (of all entries), "end". */
    constructor(svg, model) {
        this.svg = svg;
        this.model = model;
        this.shown = new Set(model.lanes.filter(lane => !lane.hidden).map(lane => lane.id));
        this.highlighted = [];
        this.layers = {};
        svgElement("rect", "", svgElement("clipPath", "", svg, {id: "plot"}));
        for (const name of ["ground", "bands", "bars", "activations", "arrows", "marks", "sound",
                            "labels"]) {
            this.layers[name] = svgElement("g", name, svg);
            if (name !== "ground")
                this.layers[name].setAttribute("clip-path", "url(#plot)");
        }
        this.layers.gutter = svgElement("g", "gutter", svg);
        this.measure = document.createElement("canvas").getContext("2d");
        this.widths = new Map();
        this.createItems();
        this.setShortened(false);
    }

    createItems() {
        const {items} = this.model;
        this.everything = [];
        const add = (type, item, element) => {
            item.type = type;
            item.element = element;
            this.everything.push(item);
        };
        for (const item of items.activations)
            add("activation", item, svgElement("rect", "activation" + (item.failed ? " failed" : ""),
                                               this.layers.activations));
        for (const item of items.bars)
            add("bar", item, svgElement("path", "bar" + (item.failed ? " failed" : ""),
                                        this.layers.bars, {"data-label": item.label}));
        for (const item of items.arrows)
            add("arrow", item, svgElement("path", "arrow " + item.kind, this.layers.arrows));
        for (const item of items.marks)
            add("mark", item, svgElement("path", "mark " + item.style, this.layers.marks,
                                         {d: MARK_SHAPES[item.style]}));
        this.byNumber = this.everything.filter(item => item.type !== "activation").sort(
            (a, b) => a.number - b.number);
        // What matters most gets its label first.
        this.byImportance = [...this.byNumber].sort((a, b) => importance(a) - importance(b));
    }

    /** True draws stretches without entries short, false draws time to scale. */
    setShortened(shortened) {
        const times = [...this.model.times, this.model.end];
        const before = this.scale;
        const view = before && [before.time(this.from), before.time(this.to)];
        const isWhole = !before || (this.from <= before.start && this.to >= before.end);
        this.scale = new TimeScale(times, shortened);
        if (isWhole)
            this.fit();
        else
            this.setView(this.scale.drawn(view[0]), this.scale.drawn(view[1]));
    }

    fit() {
        this.setView(this.scale.start, this.scale.end);
    }

    /** Shows the part between two times as drawn, held within the run. */
    setView(from, to) {
        const whole = Math.max(this.scale.end - this.scale.start, SHORTEST_VIEW);
        const length = Math.min(Math.max(to - from, SHORTEST_VIEW), whole);
        const middle = (from + to) / 2;
        this.from = Math.min(Math.max(middle - length / 2, this.scale.start),
                             this.scale.start + whole - length);
        this.to = this.from + length;
    }

    zoom(factor, around = (this.from + this.to) / 2) {
        const from = around - (around - this.from) * factor;
        this.setView(from, from + (this.to - this.from) * factor);
    }

    move(part) {
        const way = (this.to - this.from) * part;
        this.setView(this.from + way, this.to + way);
    }

    /** Moves the view, if need be, so that the time is in it. */
    reveal(time) {
        const drawn = this.scale.drawn(time);
        const length = this.to - this.from;
        if (drawn < this.from || drawn > this.to)
            this.setView(drawn - length / 2, drawn + length / 2);
    }

    x(time) {
        return GUTTER + (this.scale.drawn(time) - this.from) * this.unit;
    }

    drawnAt(x) {
        return this.from + (x - GUTTER) / this.unit;
    }

    draw(width) {
        this.width = width;
        this.right = width - MARGIN;
        this.unit = (this.right - GUTTER) / (this.to - this.from);
        this.layOut();
        this.rows = new LabelRows();
        for (const name of ["ground", "bands", "labels", "gutter", "sound"])
            this.layers[name].replaceChildren();
        this.drawGround();
        this.drawAxis();
        this.drawBands();
        this.drawItems();
        this.drawSound();
        this.drawLabels();
    }

    /** Where the lanes are; only what is shown has a place. */
    layOut() {
        let top = AXIS;
        this.places = new Map();
        this.bandPlaces = {stack: {top: top + 4, title: "Stack"},
                           policy: {top: top + BAND + 8, title: "Connection"}};
        top += 2 * BAND + 18;
        for (const lane of this.model.lanes) {
            if (!this.shown.has(lane.id))
                continue;
            const rows = this.stackBars(lane.id);
            const height = LANE + EXTRA_ROW * Math.max(0, rows - 1);
            this.places.set(lane.id, {lane, top, height, line: top + 20,
                                      below: top + height - 8});
            top += height;
        }
        this.soundTop = top;
        this.height = top + (this.hasSoundRow() ? SOUND : 0) + 4;
        this.places.set("board", {top, line: top + 12, below: top + 30});
        this.svg.setAttribute("viewBox", `0 0 ${this.width} ${this.height}`);
        this.svg.setAttribute("height", this.height);
        const clip = this.svg.querySelector("#plot rect");
        for (const [key, value] of Object.entries({x: GUTTER - 8, y: 0, height: this.height,
                                                   width: this.width - GUTTER + 8}))
            clip.setAttribute(key, value);
    }

    hasSoundRow() {
        return this.model.sound !== null || this.model.items.marks.some(
            mark => mark.lane === "board");
    }

    /** Gives each bar of a lane its row, and says how many rows there are. */
    stackBars(laneId) {
        const bars = this.model.items.bars.filter(bar => bar.lane === laneId);
        const hasServer = bars.some(isServer);
        const ends = [];
        for (const bar of bars) {
            bar.row = hasServer && !isServer(bar) ? 1 : 0;
            while (ends[bar.row] > bar.time)
                ++bar.row;
            ends[bar.row] = bar.end;
        }
        return ends.length;
    }

    barY(bar) {
        return this.places.get(bar.lane).line + (bar.row ? 3 + bar.row * EXTRA_ROW : 0);
    }

    drawGround() {
        const {ground, gutter} = this.layers;
        let odd = false;
        for (const {lane, top, height, line} of this.places.values()) {
            if (!lane)
                continue;
            const place = svgElement("g", "lane", ground, {"data-lane": lane.id});
            odd = !odd;
            svgElement("rect", odd ? "stripe odd" : "stripe", place,
                       {x: 0, y: top, width: this.width, height});
            svgElement("line", "lifeline", place, {x1: GUTTER, x2: this.right, y1: line, y2: line});
            svgElement("text", "lane-title", gutter, {x: 10, y: line + 4}).textContent
                = this.fitted(lane.title, GUTTER - 16, 12.5);
        }
        for (const {title, top} of Object.values(this.bandPlaces))
            svgElement("text", "lane-title", gutter, {x: 10, y: top + 15}).textContent = title;
    }

    drawAxis() {
        const {ground} = this.layers;
        for (const pause of this.scale.breaks) {
            const start = Math.max(this.x(pause.start), GUTTER);
            const end = Math.min(this.x(pause.end), this.right);
            if (end <= start)
                continue;
            const text = `${(pause.end - pause.start).toFixed(1)} s`;
            svgElement("rect", "break", ground,
                       {x: start, y: AXIS, width: end - start, height: this.height - AXIS});
            if (end - start >= this.textWidth(text, 10.5))
                svgElement("text", "break-length", ground, {x: (start + end) / 2, y: 11})
                    .textContent = text;
        }
        const step = niceStep(80 / this.unit);
        const digits = Math.max(0, -Math.floor(Math.log10(step) + 1e-9));
        const last = this.scale.time(this.to);
        for (let time = Math.ceil(this.scale.time(this.from) / step) * step; time <= last + 1e-9;
             time = Math.round((time + step) / step) * step) {
            const pause = this.scale.breaks.find(({start, end}) => start < time && time < end);
            if (pause) {
                time = Math.max(time, (Math.ceil(pause.end / step) - 1) * step);
                continue;
            }
            this.drawTick(this.x(time), `${time.toFixed(digits)} s`);
        }
        svgElement("line", "axis", ground, {x1: GUTTER, x2: this.right, y1: AXIS, y2: AXIS});
    }

    drawTick(x, text) {
        const {ground} = this.layers;
        svgElement("line", "tick", ground, {x1: x, x2: x, y1: AXIS - 4, y2: this.height});
        const width = this.textWidth(text, 11);
        if (this.rows.place("axis", x - width / 2 - 6, x + width / 2 + 6)
            && x + width / 2 <= this.width)
            svgElement("text", "tick-label", ground, {x, y: AXIS - 8}).textContent = text;
    }

    drawBands() {
        const {stack, policy, reconnect} = this.model.bands;
        for (const piece of stack)
            this.drawPiece(piece, this.bandPlaces.stack.top, BAND);
        for (const piece of policy)
            this.drawPiece(piece, this.bandPlaces.policy.top, BAND);
        for (const piece of reconnect)
            this.drawPiece(piece, this.bandPlaces.policy.top + BAND - 5, 5);
    }

    drawPiece(piece, y, height) {
        const start = Math.max(this.x(piece.start), GUTTER - 8);
        const end = Math.min(this.x(piece.end), this.width);
        if (end < start)
            return;
        const group = svgElement("g", "piece " + stateClass(piece.state), this.layers.bands,
                                 {"data-state": piece.state, "data-start": piece.start,
                                  "data-end": piece.end});
        const rect = {x: start, y, width: Math.max(end - start, 0.7), height};
        svgElement("rect", "", group, rect);
        const device = piece.device ? `, ${deviceName(piece.device)}` : "";
        svgElement("title", "", group).textContent = `${piece.state}${device}, `
            + `${piece.start.toFixed(3)} s to ${piece.end.toFixed(3)} s`;
        if (height < BAND)
            return;
        svgElement("line", "edge", group, {x1: start, x2: start, y1: y, y2: y + height});
        const room = end - Math.max(start, GUTTER) - 10;
        if (this.textWidth(piece.state, 11.5) <= room)
            svgElement("text", "piece-label", group, {x: Math.max(start, GUTTER) + 6, y: y + 14.5})
                .textContent = piece.state;
    }

    drawItems() {
        for (const item of this.everything) {
            const start = this.x(item.time);
            const end = item.end === undefined ? start : this.x(item.end);
            const visible = this.isShown(item) && end >= GUTTER - 8 && start <= this.width;
            if (item.visible !== visible)
                item.element.style.display = visible ? "" : "none";
            item.visible = visible;
            if (visible)
                this.placeItem(item, start, end);
        }
    }

    isShown(item) {
        const lanes = item.type === "arrow" ? [item.from, item.to] : [item.lane];
        return lanes.every(lane => lane === "board" || this.shown.has(lane));
    }

    placeItem(item, start, end) {
        const {element} = item;
        item.x = start;
        if (item.type === "mark") {
            item.y = this.places.get(item.lane).line;
            element.setAttribute("transform", `translate(${start.toFixed(1)} ${item.y})`);
        } else if (item.type === "arrow") {
            item.y = this.places.get(item.from).line;
            item.toY = this.places.get(item.to).line;
            const way = item.y + " " + item.toY;
            if (item.way !== way)
                element.setAttribute("d", arrowShape(item.kind, item.y, item.toY));
            item.way = way;
            element.setAttribute("transform", `translate(${start.toFixed(1)} 0)`);
        } else if (item.type === "bar") {
            item.y = this.barY(item);
            element.setAttribute("d", barShape(item, Math.max(start, -50),
                                               Math.min(end, this.width + 50), item.y));
        } else {
            const y = this.places.get(item.lane).line;
            const from = Math.max(start, -50);
            const rect = {x: from, y: y - 4, height: 8,
                          width: Math.max(Math.min(end, this.width + 50) - from, 1)};
            for (const [key, value] of Object.entries(rect))
                element.setAttribute(key, value);
        }
    }

    drawSound() {
        if (!this.hasSoundRow())
            return;
        const {sound, gutter, ground} = this.layers;
        const top = this.soundTop;
        const middle = top + 52;
        const half = 28;
        svgElement("rect", "stripe sound-ground", ground,
                   {x: 0, y: top, width: this.width, height: SOUND});
        svgElement("line", "lifeline", sound, {x1: GUTTER, x2: this.right, y1: middle, y2: middle});
        svgElement("text", "lane-title", gutter, {x: 10, y: middle - 2}).textContent = "Sound";
        const data = this.model.sound;
        svgElement("text", "lane-note", gutter, {x: 10, y: middle + 14}).textContent
            = data?.highest ? `peak ${(20 * Math.log10(data.highest)).toFixed(1)} dB` : "silent";
        if (!data)
            return;
        const height = half / Math.max(data.highest, 0.02);
        for (const stretch of data.stretches) {
            const shape = this.soundShape(stretch, data.bucket, middle, height);
            if (shape)
                svgElement("path", "wave", sound, {d: shape});
        }
        for (const time of data.late)
            svgElement("path", "late", sound,
                       {d: `M${this.x(time).toFixed(1)} ${middle + half + 3}l3 5h-6z`});
    }

    /** The outline of a stretch, one column for each half pixel at most. */
    soundShape(stretch, bucket, middle, height) {
        const upper = [];
        const lower = [];
        let column = null;
        const first = this.scale.time(this.from) - 2 * bucket;
        const last = this.scale.time(this.to) + 2 * bucket;
        const begin = Math.max(0, Math.floor((first - stretch.start) / bucket));
        for (let i = begin; 2 * i < stretch.peaks.length; ++i) {
            const time = stretch.start + i * bucket;
            if (time > last)
                break;
            const x = Math.round(this.x(time) * 2) / 2;
            const low = middle - stretch.peaks[2 * i] * height;
            const high = middle - stretch.peaks[2 * i + 1] * height;
            if (column?.x === x) {
                column.low = Math.max(column.low, low);
                column.high = Math.min(column.high, high);
                continue;
            }
            column = {x, low, high};
            upper.push(column);
            lower.unshift(column);
        }
        if (upper.length === 0)
            return "";
        const end = this.x(Math.min(stretch.end, last)).toFixed(1);
        const point = y => ({x}, i, all) => `${x} ${y(all[i]).toFixed(1)}`;
        return "M" + upper.map(point(at => at.high - 0.4)).join("L")
            + `H${end}V${(lower[0].low + 0.4).toFixed(1)}L`
            + lower.map(point(at => at.low + 0.4)).join("L") + "Z";
    }

    drawLabels() {
        for (const item of this.byImportance) {
            if (!item.visible || item.x < GUTTER - 4 && item.type !== "bar" || item.x > this.right)
                continue;
            if (item.type === "bar")
                this.drawBarLabel(item);
            else if (item.type === "arrow")
                this.drawArrowLabel(item);
            else
                this.drawLabel(item, item.x + 7, item.y - 9, "label " + item.style);
        }
    }

    /** Where the arrow ends. An answer is only named when it can be told from its call. */
    drawArrowLabel(arrow) {
        if (arrow.kind === "reply" && arrow.x - this.x(arrow.callTime) < 10)
            return;
        const y = arrow.toY > arrow.y ? arrow.toY - 9 : this.places.get(arrow.to).below;
        this.drawLabel(arrow, arrow.x + 5, y, "label " + arrow.kind);
    }

    drawLabel(item, x, y, className) {
        const text = shortened(item.label, 56);
        const width = this.textWidth(text, 11);
        if (text === "" || x + width > this.width
            || !this.rows.place(y, x - 3, x + width + 6))
            return;
        svgElement("text", className, this.layers.labels, {x: x.toFixed(1), y}).textContent = text;
    }

    drawBarLabel(bar) {
        // What a lane's own program is, the lane's name says.
        if (isServer(bar) && !bar.failed)
            return;
        const x = Math.max(bar.x, GUTTER) + 1;
        const text = bar.failed ? `${bar.label}: ${bar.exit}` : bar.label;
        this.drawLabel({label: text}, x, this.places.get(bar.lane).below,
                       bar.failed ? "label bar-label failed" : "label bar-label");
    }

    textWidth(text, size) {
        const key = size + text;
        let width = this.widths.get(key);
        if (width === undefined) {
            this.measure.font = `${size}px ${getComputedStyle(this.svg).fontFamily}`;
            width = this.measure.measureText(text).width;
            this.widths.set(key, width);
        }
        return width;
    }

    fitted(text, room, size) {
        let length = text.length;
        while (length > 1 && this.textWidth(shortened(text, length), size) > room)
            --length;
        return shortened(text, length);
    }

    /** The item that is meant by pointing there, or null. */
    itemAt(x, y) {
        let best = null;
        let bestDistance = 9;
        for (const item of this.everything) {
            if (!item.visible)
                continue;
            const distance = this.distance(item, x, y);
            if (distance < bestDistance) {
                best = item;
                bestDistance = distance;
            }
        }
        return best;
    }

    distance(item, x, y) {
        if (item.type === "mark")
            return Math.hypot(x - item.x, y - item.y);
        if (item.type === "arrow") {
            const inside = y > Math.min(item.y, item.toY) && y < Math.max(item.y, item.toY);
            return inside ? Math.abs(x - item.x) + 1 : 9;
        }
        if (item.type === "bar") {
            const inside = x >= item.x - 2 && x <= Math.max(this.x(item.end), item.x + 2);
            return inside && Math.abs(y - item.y) < BAR ? 4 : 9;
        }
        return 9;
    }

    /** Draws these items so that they stand out, and no others. */
    highlight(items) {
        for (const item of this.highlighted)
            item.element.classList.remove("current");
        for (const item of items)
            item.element.classList.add("current");
        this.highlighted = items;
    }

    /** Draws the items fainter that the test does not hold for. */
    dim(isDim) {
        for (const item of this.everything)
            item.element.classList.toggle("dim", isDim(item));
    }
}

function isServer(bar) {
    return ["service", "bluetoothd", "agent", "pulseaudio"].includes(bar.label.split(" ")[0]);
}

function importance(item) {
    if (item.failed || item.style === "level1" || item.style === "fault")
        return 0;
    if (item.kind === "error" || item.style === "level2")
        return 1;
    if (["phone", "heard", "note"].includes(item.style))
        return 2;
    if (item.kind === "call" || item.kind === "signal" || item.type === "bar")
        return 3;
    return item.style === "level9" ? 5 : 4;
}

/** The next of 1, 2, 5, 10 ... that is not below the seconds. */
function niceStep(seconds) {
    const power = 10 ** Math.floor(Math.log10(seconds));
    return [1, 2, 5, 10].find(factor => factor * power >= seconds * 0.999) * power;
}

function stateClass(state) {
    return "state-" + state.toLowerCase().replaceAll(" ", "-");
}

/** "AA:BB:CC:DD:EE:FF" of a device's object path. */
function deviceName(path) {
    return path.split("/").pop().replace(/^dev_/, "").replaceAll("_", ":");
}

function arrowShape(kind, from, to) {
    const down = to > from ? 1 : -1;
    const start = from + 5 * down;
    const end = to - 5 * down;
    const back = end - 7 * down;
    const head = kind === "reply" ? `M-3.5 ${back}L0 ${end}L3.5 ${back}`
                                  : `M-3.5 ${back}H3.5L0 ${end}Z`;
    if (kind === "error")
        return `M0 ${start}V${end}M-4 ${end - 8 * down}L4 ${end}M4 ${end - 8 * down}L-4 ${end}`;
    if (kind === "signal")
        return `M-2 ${start}A2 2 0 1 1 2 ${start}A2 2 0 1 1-2 ${start}ZM0 ${start}V${back}${head}`;
    return `M0 ${start}V${back}${head}`;
}

/** A bar, with a cross at its end when the program failed. */
function barShape(bar, start, end, y) {
    const width = Math.max(end - start, 1.5);
    const half = BAR / 2;
    const box = `M${start.toFixed(1)} ${y - half}h${width.toFixed(1)}v${BAR}h${-width.toFixed(1)}Z`;
    if (!bar.failed)
        return box;
    const x = start + width;
    return `${box}M${x - 4} ${y - 4}l8 8m0-8l-8 8`;
}
