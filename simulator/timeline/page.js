"use strict";

// The page around the picture: how the run went, its troubles, details and the journal.

const {entries, sound} = JSON.parse(byId("run").textContent);
const run = new Run(entries);
const view = byId("view");
const picture = new Picture(run, sound, byId("titles"), byId("picture"));
let current = null; // entry

function byId(id) {
    return document.getElementById(id);
}

function draw() {
    picture.draw(Math.round(Math.max(600, view.clientWidth) * 2 ** byId("zoom").value));
    if (current)
        picture.point(current);
}

/** Around the current entry, or else around the middle. */
function zoom() {
    const old = picture.width;
    const center = current ? picture.x(current.time) : view.scrollLeft + view.clientWidth / 2;
    draw();
    view.scrollLeft = center * picture.width / old - view.clientWidth / 2;
}

/** To the next entry that is wanted; behind the last one comes the first. */
function walk(way, isWanted) {
    const wanted = run.entries.filter(isWanted);
    if (way < 0)
        wanted.reverse();
    const next = current && wanted.find(({number}) => (number - current.number) * way > 0);
    if (wanted.length > 0)
        select(next ?? wanted[0]);
}

function select(entry) {
    current = entry;
    picture.point(entry);
    const journal = byId("journal");
    journal.scrollTop = journal.children[entry.number].offsetTop - journal.clientHeight / 2;
    const x = picture.x(entry.time);
    if (x < view.scrollLeft + 20 || x > view.scrollLeft + view.clientWidth - 20)
        view.scrollLeft = x - view.clientWidth / 2;
    showDetails(entry);
}

function showDetails(entry) {
    const {line, number, trouble, partner, ...facts} = entry;
    if (partner) {
        const distance = (Math.abs(partner.time - entry.time) * 1000).toFixed(1);
        facts[partner.number > number ? "then" : "before"] = `${partner.line} (${distance} ms)`;
    }
    const details = byId("details");
    details.replaceChildren();
    element(details, "b", {}, line);
    for (const [name, value] of Object.entries(facts)) {
        const text = typeof value === "string" ? value : JSON.stringify(value);
        element(details, "p", {}, `${name}: ${text}`);
    }
}

byId("sentence").textContent = sentence(run, sound);
for (const [kind, {mark, many}] of Object.entries(TROUBLES)) {
    const isOfKind = ({trouble}) => trouble === kind;
    const count = run.entries.filter(isOfKind).length;
    if (count === 0)
        continue;
    const button = element(byId("troubles"), "button", {title: `To the next ${kind}`});
    element(button, "b", {class: kind}, mark);
    button.append(` ${count} ${count > 1 ? many : kind}`);
    button.addEventListener("click", () => walk(1, isOfKind));
}
for (const {time, line, number, trouble} of run.entries) {
    element(byId("journal"), "li", {"data-entry": number, class: trouble ? "trouble" : ""},
            `${time.toFixed(3).padStart(8)}  ${line}`);
}

document.addEventListener("keydown", event => {
    const isTrouble = ({trouble}) => trouble;
    const walks = {n: [1, isTrouble], p: [-1, isTrouble], j: [1, () => true], k: [-1, () => true]};
    if (!event.ctrlKey && !event.altKey && !event.metaKey && Object.hasOwn(walks, event.key))
        walk(...walks[event.key]);
});
document.addEventListener("click", event => {
    const hit = event.target.closest("[data-entry]");
    if (hit)
        select(run.entries[hit.dataset.entry]);
});
byId("zoom").addEventListener("input", zoom);
addEventListener("resize", draw);
addEventListener("beforeprint", () => picture.draw(930));
addEventListener("afterprint", draw);
draw();
