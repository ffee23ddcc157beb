"use strict";

// What happened in a run, by its journal. Nothing here touches the page.

const GIVE_UP = /^[12] .*(so disconnect( device)?$|not possible to restart|service timeout)/;
const SIGTERM = 15;
const LATENCY = 2; // seconds; the loopback is late by 1 by default

/** What an entry is flagged as, the worst first. */
const TROUBLES = {
    "crash": {mark: "\u2716", many: "crashes"},
    "give-up": {mark: "\u25a0", many: "give-ups"},
    "error": {mark: "\u25b2", many: "errors"},
    "warning": {mark: "\u25c6", many: "warnings"},
    "failure": {mark: "\u25bc", many: "failures"},
};

/** What the service's stack is at from a log line on. */
const STACK = {
    "4 startStartupSequence requested": "starting",
    "4 agent started and wait registration": "on",
    "2 startStartupSequence bluez already running": "on",
    "4 forceSyncDown": "off",
};

/** What a phone that has come so far waits for. */
const STAGES = [
    [/^\* \S+ link-up.*/, "it never opened a stream"],
    [/^\* \S+ stream-open.*/, "the service did not take it up"],
    [/^4 load timer for reconnect.*/, "the service waited to connect it again"],
    [/^(4 try to start pulseaudio|\. pactl stat ended).*/, "PulseAudio did not answer"],
    [/^\$ (pactl (stat|load-module \S+)).*/, "\"$1\" did not end"],
    [/^[24] \/usr\/bin\/pactl load-module .*/, "no loopback was asked for"],
    [/^\. pactl .*-loopback .* (status [1-9]|signal).*/, "the loopback to its source was refused"],
    [/^@ ConnectAudioDevice/, "all was ready, but it did not start"],
];

/** What goes wrong with a phone. The first of these is the cause of what follows. */
const ERRORS = [
    [/^(- error|\* \S+ (no-link|not-paired|refused)): (.*)/, "$3"],
    [/^2 connectAudioSource .* error.*/, "the service could not connect to its audio"],
    [/^4 (disconnect device because|.* but not for me).*/, "the service held another phone"],
    [/^2 problem starting pulseaudio.*/, "PulseAudio could not be started"],
    [/^2 .*(module-\S+) .*/, "$1 did not load"],
    [/^2 pulseaudio down.*/, "PulseAudio ended"],
    [/^4 there is step to start pulseaudio.*/, "it was let go before its sound was linked"],
];

/** Why Bluetooth does not come on, and why it is on and lets nobody in. */
const NOT_ON = /^(1|2 bluezDown|2 error (starting|connecting)) /;
const CLOSED = /^2 (not possible to restart agent|error executing  hciconfig hci0 piscan)/;
const SILENCER = /^\. pactl set-source-output-(\w+) 0 (\d+)%? ended with status 0$/;

/** What a phone does in such a state. */
const PLAYS = {playing: "played", muted: "played muted", unheard: "played unheard"};

/** A key of TROUBLES; none for most entries. */
function troubleOf({kind, lane, line, program, signal, status}) {
    // Daemons are asked to end by SIGTERM. Commands may fail, and so may agents: one that finds no
    // adapter yet ends, and is started again.
    const mustNotFail = ["bluetoothd", "pulseaudio", "service"].includes(program);
    if (kind === "end" && (status && mustNotFail || (signal ?? SIGTERM) !== SIGTERM))
        return "crash";
    if (lane === "control" && /^- (error|note road failed)/.test(line))
        return "failure";
    if (kind === "log")
        return GIVE_UP.test(line) ? "give-up" : {"1": "error", "2": "warning"}[line[0]];
}

/** From an entry on, a lane is in this state, or in none. */
function enter(lane, state, entry) {
    const open = lane.find(({end}) => end === undefined);
    if (open?.state === state)
        return;
    if (open)
        open.end = entry.time;
    if (state)
        lane.push({state, entry});
}

/** In the words of a line, what the first row says that fits it; empty when none does. */
function explained(table, line) {
    const [pattern, text] = table.find(([each]) => each.test(line)) ?? [/.*/, ""];
    return line.replace(pattern, text);
}

class Phone {
    lane = [];
    state = null; // by its own word
    wasLinked = false; // by radio
    stage = "";
    error = "";

    /** Of a line about it. What the product refuses says something of a phone that is away only. */
    learn(line) {
        if (/^(\* \S+ link-up|@ ConnectAudioDevice)/.test(line))
            [this.wasLinked, this.error] = [true, ""];
        this.stage = explained(STAGES, line) || this.stage;
        if (line[0] !== "-" || !this.wasLinked)
            this.error ||= explained(ERRORS, line);
    }
}

class Run {
    constructor(entries) {
        this.entries = [];
        for (const entry of entries.filter(({line}) => line !== "| ")) {
            const last = this.entries.at(-1);
            // What is printed in one go is folded: the usage of kill has 40 lines at each start.
            if (entry.line[0] === "|" && last?.line[0] === "|") {
                last.output = `${last.output ?? last.line}\n${entry.line}`;
                const lines = last.output.split("\n");
                last.line = `${lines[0]} \u2026 (${lines.length} lines)`;
                continue;
            }
            this.entries.push({...entry, number: this.entries.length, trouble: troubleOf(entry)});
        }
        this.end = entries.at(-1)?.time || 1; // second
        // Of pieces: an entry, the state from there on, and when that ended, if it did.
        this.lanes = {agent: [], bluetoothd: [], service: [], pulseaudio: [], commands: [],
                      product: this.entries.slice(0, 1).map(entry => ({state: "running", entry}))};
        this.phones = new Map();
        this.devices = new Map(); // the phones by the end of their object path
        this.named = null; // the phone that was spoken of last
        this.held = null; // the phone for which the service has started PulseAudio
        this.linked = null; // the phone whose loopback is in place
        this.silenced = {}; // whether by "mute", by "volume"
        this.messages = []; // an entry, below which lane it goes, and whether downwards
        this.calls = new Map();
        // Nobody tells whose a sender's name was, but agents make no other calls than these.
        this.noAgents = new Set(this.entries.filter(
            ({line}) => /^> (?!Manager\.DefaultAdapter|Adapter\.(R|Unr)egisterAgent)/.test(line))
            .map(({sender}) => sender));
        for (const entry of this.entries)
            this.read(entry);
    }

    read(entry) {
        if (entry.lane === "bus")
            this.readMessage(entry);
        else if (entry.kind === "start")
            this.lane(entry).push({entry, state: entry.program === "service" ? "off" : "running"});
        else if (entry.kind === "end")
            this.readEnd(entry);
        else if (entry.kind === "log")
            this.readLog(entry);
        else if (entry.kind === "phone")
            this.readPhone(entry);
        else if (entry.lane === "control" && entry.kind !== "error")
            this.named = /^- phone \S+ (connect|pair)/.test(entry.line)
                ? this.phone(entry.line.split(" ")[2]) : null;
        const isSound = /pulseaudio|pactl|AudioDevice/.test(entry.line);
        (isSound ? this.held : this.named)?.learn(entry.line);
        this.readSound(entry);
    }

    /** Of phones that play, the linked one is heard. */
    readSound(entry) {
        const [, by, value] = SILENCER.exec(entry.line) ?? [];
        if (by)
            this.silenced[by] = (by === "mute") === (value !== "0");
        else if (entry.line === "@ ConnectAudioDevice")
            this.linked = this.held;
        else if (/^(@ DisconnectAudioDevice|\. pulseaudio )/.test(entry.line))
            [this.linked, this.silenced] = [null, {}];
        const isSilent = this.silenced.mute || this.silenced.volume;
        for (const phone of this.phones.values()) {
            const sound = phone !== this.linked ? "unheard" : isSilent ? "muted" : "playing";
            enter(phone.lane, phone.state === "playing" ? sound : phone.state, entry);
        }
    }

    lane({program}) {
        return this.lanes[program] ?? this.lanes.commands;
    }

    phone(name) {
        if (!this.phones.has(name))
            this.phones.set(name, new Phone());
        return this.phones.get(name);
    }

    readEnd(entry) {
        const lane = this.lane(entry);
        const start = lane.findLast(piece => piece.entry.pid === entry.pid);
        if (start) {
            [start.entry.partner, entry.partner] = [entry, start.entry];
            (entry.program === "service" ? lane.at(-1) : start).end = entry.time;
        }
        if (entry.status || entry.trouble)
            lane.push({state: "failed", entry, end: entry.time});
    }

    readLog(entry) {
        this.named = this.devices.get(/dev_(\w+)/.exec(entry.line)?.[1]) ?? this.named;
        if (entry.line.startsWith("4 try to start pulseaudio"))
            this.held = this.named;
        if (STACK[entry.line])
            enter(this.lanes.service, STACK[entry.line], entry);
        else if (this.held && entry.line === "1 error starting pulseaudio, so disconnect")
            this.held.state = "given-up";
    }

    readPhone(entry) {
        const phone = this.named = this.phone(entry.phone);
        this.devices.set(entry.path.split("dev_")[1], phone);
        const states = {"link-down": null, "stream-closed": "link-up"};
        phone.state = entry.state in states ? states[entry.state] : entry.state;
    }

    readMessage(entry) {
        if (entry.interface === "org.freedesktop.DBus")
            return;
        const call = this.calls.get(`${entry.bus} ${entry.destination} ${entry.replySerial}`);
        const message = call ? {entry, below: call.below, isDown: !call.isDown}
                             : {entry, ...this.wayOf(entry)};
        this.messages.push(message);
        if (call)
            [call.entry.partner, entry.partner] = [entry, call.entry];
        else if (entry.kind === "call")
            this.calls.set(`${entry.bus} ${entry.sender} ${entry.serial}`, message);
    }

    /** Of a call or a signal: agents stand above bluetoothd, then come service and product. */
    wayOf({line, sender}) {
        if (line[0] === "@" || line[0] === "?")
            return {below: "service", isDown: line[0] === "@"};
        if (line.startsWith("> Agent."))
            return {below: "agent", isDown: false};
        if (line[0] === "~")
            return {below: "bluetoothd", isDown: true};
        return this.noAgents.has(sender) ? {below: "bluetoothd", isDown: false}
                                         : {below: "agent", isDown: true};
    }
}

const seconds = time => `${time.toFixed(1)} s`;

/** How the run went. */
function sentence(run, sound) {
    const parts = Array.from(run.phones, ([name, phone]) => phoneClause(name, phone, run, sound));
    if (run.lanes.service.length > 0 && !run.lanes.service.some(({state}) => state === "on"))
        parts.unshift(bluetoothClause(run));
    for (const crash of run.entries.filter(({trouble}) => trouble === "crash"))
        parts.push(crashClause(crash, run));
    const last = run.entries.findLast(({program}) => program === "service");
    if (!last)
        parts.push("the service never ran");
    else if (last.kind === "start")
        parts.push("the service was still running at the end of the journal");
    else if (!last.trouble)
        parts.push(`the ${last.line.slice(2)}`);
    const road = run.entries.find(({line}) => line.startsWith("- note road failed"));
    if (road)
        parts.push(road.line.replace("- note", "the"));
    const text = parts.join("; ");
    return text[0].toUpperCase() + text.slice(1) + ".";
}

/** Why it never came on. */
function bluetoothClause({entries}) {
    const cause = entries.find(({line, partner}) => (
        NOT_ON.test(line) || line[0] === "$" && !partner));
    const how = cause?.kind === "start" ? " did not end" : "";
    return "Bluetooth never came on" + (cause ? `: "${cause.line.slice(2)}"${how}` : "");
}

function phoneClause(name, phone, run, {bucket, peaks}) {
    const pieces = phone.lane.filter(({state}) => PLAYS[state]);
    const heard = pieces.filter(({state}) => state !== "unheard");
    const told = (heard.length > 0 ? heard : pieces).map(
        ({state, entry, end = run.end}, at, all) => (
            `${state === all[at - 1]?.state ? "and" : PLAYS[state]} from ${seconds(entry.time)} to `
            + seconds(end))).join(", ");
    const text = `the phone ${name} `
        + (told || (phone.wasLinked ? "connected but never played" : "never got a link"));
    if (heard.length === 0) {
        const cause = phone.error || phone.stage;
        const closed = cause.endsWith("not connectable")
            && run.entries.findLast(({line}) => CLOSED.test(line));
        return text + (cause && `: ${cause}`) + (closed ? ` ("${closed.line.slice(2)}")` : "");
    }
    const played = heard.filter(({state}) => state === "playing");
    const bucketOf = time => Math.round(time / bucket);
    const isHeard = ({entry, end = run.end}) => peaks.slice(
        bucketOf(entry.time), bucketOf(end + LATENCY)).some(peak => peak > 0);
    const isSilent = peaks.length > 0 && played.length > 0 && !played.some(isHeard);
    return text + (isSilent ? ", but nothing was heard" : "");
}

function crashClause({line, program, time}, run) {
    const clause = `${line.slice(2)} at ${seconds(time)}`;
    if (program !== "bluetoothd")
        return clause;
    const back = run.lanes.service.find(({state, entry}) => state === "on" && entry.time > time);
    return clause + (back ? `; the stack was back after ${seconds(back.entry.time - time)}`
                          : "; the stack did not come back");
}
