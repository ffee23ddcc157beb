"use strict";

const assert = require("node:assert/strict");
const {readFileSync} = require("node:fs");
const test = require("node:test");

const logic = readFileSync(`${__dirname}/../../../simulator/timeline/run.js`, "utf8");
const {Run, sentence} = new Function(`${logic}; return {Run, sentence};`)(); // no module
const KINDS = {"&": "start", "$": "start", ".": "end", "*": "phone", "-": "control", "@": "call"};
const LINKED = "0.5 4 agent started and wait registration\n 1.0 * anna link-up";
const ARRIVAL = `${LINKED}
    1.2 2 trust for /dev_anna is false
    1.5 * anna stream-open
    1.6 4 try to start pulseaudio for /dev_anna
    1.8 . pactl load-module module-loopback ended with status 1`;
const REFUSED = `${ARRIVAL}\n 2.0 1 error starting pulseaudio, so disconnect`;
const PLAYED = `${ARRIVAL}
    2.0 @ ConnectAudioDevice
    2.2 * anna playing`;
const STATES = "link-up,stream-open,playing,unheard";
const ENDED = "the service ended with status 0.";

/** The journal's entry of "TIME LINE"; the facts at the end of a line are such as "status 0". */
function entry(text) {
    const [time, ...words] = text.trim().split(" ");
    const [mark, name, state] = words;
    return {time: Number(time), lane: {"@": "bus", "-": "control"}[mark],
            kind: name === "error:" ? "error" : KINDS[mark] ?? "log", line: words.join(" "), pid: 7,
            program: name, phone: name, path: `/dev_${name}`, state: state?.replace(":", ""),
            [words.at(-2)]: Number(words.at(-1))};
}

/** What the page says first, what it flags, and what the phone is shown at. */
function check(journal, peaks, ...expected) {
    const run = new Run(journal.split("\n").map(entry));
    const troubles = run.entries.flatMap(({trouble}) => trouble ?? []);
    const states = run.phones.get("anna").lane.map(({state}) => state);
    const said = sentence(run, {bucket: 2, peaks});
    assert.deepEqual([said, troubles.join(), states.join()], expected);
}

test("A phone that is heard plays", () => {
    const journal = `${PLAYED}
        4.2 @ DisconnectAudioDevice
        9.1 . service ended with status 0`;
    const said = "The phone anna played from 2.2 s to 4.2 s";
    check(journal, [0, 0, 1], `${said}; ${ENDED}`, "warning", STATES);
    check(journal, [1, 0, 0, 1], `${said}, but nothing was heard; ${ENDED}`, "warning", STATES);
});

test("A phone that is given up plays unheard", () => {
    check(`${REFUSED}
        2.1 * anna playing
        9.1 . service ended with status 0`, [], "The phone anna played unheard from 2.1 s to 9.1 s:"
        + ` the loopback to its source was refused; ${ENDED}`,
        "warning,give-up", "link-up,stream-open,given-up,unheard");
});

test("What went wrong first is the cause, and printed lines are folded", () => {
    const never = "the phone anna connected but never played: ";
    for (const [journal, said] of [
        [`${LINKED}\n 1.1 * anna not-paired: PIN`, `${never}PIN`],
        [`${LINKED}\n 1.1 2 connectAudioSource /dev_anna error Connect\n 1.2 * berta link-up
          1.4 4 .. but not for me, disconnect !!`, `${never}the service could not connect to its `
          + "audio; the phone berta connected but never played: the service held another phone"],
        [REFUSED.replace("1.8", "1.7 2 pactl module-alsa-sink <- 256\n 1.8"),
         `${never}module-alsa-sink did not load`],
        [`${ARRIVAL}\n 1.9 * berta link-up\n 1.9 $ pactl stat`, `${never}"pactl stat" did not end`],
        [PLAYED.replace("2.0", "1.9 * berta link-up\n 2.0") + `
            3.0 . pactl set-source-output-mute 0 1 ended with status 0\n 4.0 * anna away`,
         "the phone anna played from 2.2 s to 3.0 s, played muted from 3.0 s to 4.0 s"],
        ["1.0 1 error starting bluez\n 2.0 - phone anna connect\n 2.1 - error: no",
         'bluetooth never came on: "error starting bluez"; the phone anna never got a link: no'],
    ]) {
        const all = `0.1 & service\n 0.1 | Usage:\n 0.1 | kill\n${journal}`;
        const run = new Run(all.split("\n").map(entry));
        assert.equal(run.entries[1].line, "| Usage: \u2026 (2 lines)");
        assert.match(sentence(run, {bucket: 2, peaks: []}), new RegExp(`^${said};`, "i"));
    }
});

test("Daemons that crash and a road that fails are told", () => {
    check(`${PLAYED}
        3.0 . pulseaudio ended by signal 6
        5.0 . bluetoothd ended by signal 9
        5.0 4 forceSyncDown
        6.5 4 agent started and wait registration
        7.0 - note road failed: no
        8.0 . agent ended by signal 15
        9.0 . service ended with status 3`, [], "The phone anna played from 2.2 s to 3.0 s; "
        + "pulseaudio ended by signal 6 at 3.0 s; bluetoothd ended by signal 9 at 5.0 s; the "
        + "stack was back after 1.5 s; service ended with status 3 at 9.0 s; the road failed: no.",
        "warning,crash,crash,failure,crash", STATES);
});
