"use strict";

// The page around the picture: how the run went, its troubles, details and the journal.

const LEGEND = [
    ["Service", [["piece off", "off"], ["piece starting", "starting"],
                 ["piece on", "on"]]],
    ["Phone", [["piece link-up", "linked, paired"], ["piece stream-open", "stream open"],
               ["piece playing", "playing"], ["piece paused", "paused"],
               ["piece unheard", "given up, or plays unheard"]]],
    ["Bus", [["call", "call"], ["reply", "answer"], ["error", "error"], ["signal", "signal"]]],
    ["Programs", [["bar", "ran"], ["bar failed", "failed"]]],
];

class Page {
    constructor({entries, skipped, sound}) {
        this.run = new Run(entries);
        this.current = null;
        this.byId("sentence").textContent = sentence(this.run, sound);
        this.byId("size").textContent = `${entries.length} entries in ${seconds(this.run.end)}`
            + (skipped > 0 ? `, and ${skipped} unreadable ${skipped > 1 ? "lines" : "line"}` : "");
        this.view = this.byId("view");
        this.picture = new Picture(this.run, sound, this.byId("titles"), this.byId("picture"));
        this.addTroubles();
        this.addLegend();
        this.addJournal();
        this.addActions();
        this.width = null; // the whole run
        this.draw();
    }

    byId(id) {
        return document.getElementById(id);
    }

    element(parent, name, text, attributes = {}) {
        const made = document.createElement(name);
        made.textContent = text;
        for (const [key, value] of Object.entries(attributes))
            made.setAttribute(key, value);
        parent.append(made);
        return made;
    }

    get wholeWidth() {
        return Math.max(600, this.view.clientWidth);
    }

    draw() {
        this.picture.draw(this.width ?? this.wholeWidth);
        if (this.current !== null)
            this.picture.point(this.current);
    }

    /** Around the current entry, or else around the middle. */
    zoom(factor) {
        const old = this.picture.width;
        const center = this.current !== null ? this.picture.xOf(this.current)
                                             : this.view.scrollLeft + this.view.clientWidth / 2;
        const width = Math.min(1e6, Math.max(this.wholeWidth, old * factor));
        this.width = width > this.wholeWidth ? width : null;
        this.draw();
        this.view.scrollLeft = center * this.picture.width / old - this.view.clientWidth / 2;
    }

    showWhole() {
        this.width = null;
        this.draw();
    }

    addTroubles() {
        const bar = this.byId("troubles");
        for (const [kind, many] of TROUBLES) {
            const count = this.run.troubles.filter(trouble => trouble.kind === kind).length;
            if (count === 0)
                continue;
            const button = this.element(bar, "button", "", {type: "button",
                                                            title: `To the next ${kind}`});
            shape(this.swatch(button, 16), "path", {class: `flag ${kind}`, d: FLAGS[kind],
                                                    transform: "translate(8 7)"});
            button.append(`${count} ${count > 1 ? many : kind}`);
            button.addEventListener("click", () => this.walkTroubles(1, kind));
        }
        if (this.run.troubles.length === 0)
            this.element(bar, "span", "No warnings, errors or crashes");
    }

    swatch(parent, width) {
        return shape(parent, "svg", {class: "swatch", width, height: 14, "aria-hidden": true});
    }

    addLegend() {
        for (const [title, parts] of LEGEND) {
            const group = this.element(this.byId("legend"), "p", "");
            this.element(group, "b", title);
            for (const [style, text] of parts) {
                const part = this.element(group, "span", "");
                const swatch = this.swatch(part, 22);
                if (title === "Bus")
                    this.picture.drawArrow(shape(swatch, "g", {class: `message ${style}`,
                        transform: "translate(0 7) rotate(-90)"}), 0, 0, 21);
                else
                    shape(swatch, "rect", {class: style, x: 1, y: 1, width: 20, height: 12});
                part.append(text);
            }
        }
    }

    addJournal() {
        const table = this.byId("journal").firstElementChild;
        const troubles = new Map(this.run.troubles.map(({number, kind}) => [number, kind]));
        this.rows = this.run.entries.map((entry, number) => {
            const row = this.element(table, "tr", "", {"data-entry": number});
            row.className = troubles.has(number) ? "trouble" : "";
            this.element(row, "td", entry.time.toFixed(3));
            this.element(row, "td", entry.line);
            return row;
        });
    }

    addActions() {
        const keys = {
            "n": () => this.walkTroubles(1), "p": () => this.walkTroubles(-1),
            "j": () => this.walk(1), "k": () => this.walk(-1),
            "+": () => this.zoom(2), "=": () => this.zoom(2), "-": () => this.zoom(0.5),
            "0": () => this.showWhole(),
        };
        document.addEventListener("keydown", event => {
            if (event.ctrlKey || event.altKey || event.metaKey || !Object.hasOwn(keys, event.key))
                return;
            event.preventDefault();
            keys[event.key]();
        });
        document.addEventListener("click", event => {
            const hit = event.target.closest("[data-entry]");
            if (hit)
                this.select(Number(hit.dataset.entry));
        });
        this.byId("zoom-in").addEventListener("click", keys["+"]);
        this.byId("zoom-out").addEventListener("click", keys["-"]);
        this.byId("whole").addEventListener("click", keys["0"]);
        addEventListener("resize", () => this.draw());
        addEventListener("beforeprint", () => this.picture.draw(930));
        addEventListener("afterprint", () => this.draw());
    }

    walk(way) {
        const number = this.current === null ? 0 : this.current + way;
        if (this.run.entries[number])
            this.select(number);
    }

    /** To the next trouble, of one kind if wanted; behind the last one comes the first. */
    walkTroubles(way, kind) {
        const numbers = this.run.troubles.filter(trouble => !kind || trouble.kind === kind).map(
            trouble => trouble.number);
        if (way < 0)
            numbers.reverse();
        if (numbers.length === 0)
            return;
        const from = this.current ?? (way > 0 ? -1 : this.run.entries.length);
        this.select(numbers.find(number => (number - from) * way > 0) ?? numbers[0]);
    }

    select(number) {
        this.rows[this.current]?.removeAttribute("aria-current");
        this.current = number;
        const row = this.rows[number];
        row.setAttribute("aria-current", "true");
        const journal = this.byId("journal");
        journal.scrollTop = row.offsetTop - journal.clientHeight / 2;
        this.picture.point(number);
        const x = this.picture.xOf(number);
        const {scrollLeft, clientWidth} = this.view;
        if (x < scrollLeft + 20 || x > scrollLeft + clientWidth - 20)
            this.view.scrollLeft = x - clientWidth / 2;
        this.showDetails(number);
    }

    showDetails(number) {
        const details = this.byId("details");
        const {line, ...facts} = this.run.entries[number];
        details.replaceChildren();
        this.element(details, "h2", line);
        const list = this.element(details, "dl", "");
        const partner = this.run.partners.get(number);
        if (partner !== undefined) {
            const {line, time} = this.run.entries[partner];
            const distance = (Math.abs(time - facts.time) * 1000).toFixed(1);
            facts[partner > number ? "then" : "before"] = `${line} (${distance} ms)`;
        }
        for (const [name, value] of Object.entries(facts)) {
            this.element(list, "dt", name);
            this.element(list, "dd", typeof value === "string" ? value : JSON.stringify(value));
        }
    }
}

new Page(JSON.parse(document.getElementById("run").textContent));
