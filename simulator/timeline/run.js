"use strict";

// What happened in a run, by its journal. Nothing here touches the page.

const GIVE_UP = /^[12] .*(so disconnect( device)?$|not possible to restart|service timeout)/;
const SIGTERM = 15;

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

/** Why the phone that connected last does not play, by the last such line. */
const REASONS = [
    [/^\* \S+ link-up/, "it never opened a stream"],
    [/^\* \S+ stream-open/, "no loopback was asked for"],
    [/^4 wait pulseaudio bluetooth/, "the loopback to its source was refused"],
    [/^4 wait pulseaudio/, "PulseAudio did not answer"],
    [/^2 connectAudioSource .* error/, "the service could not connect to its audio"],
    [/^4 (disconnect device because|.* but not for me)/, "another phone was connected"],
    [/^@ ConnectAudioDevice/, "all was ready, but it did not start"],
];

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

class Phone {
    lane = [];
    state = null; // by its own word
    isLinked = false; // the loopback to its source is in place
    why = "never got a link"; // it does not play

    /** Only what can be heard plays. */
    enter(state, entry) {
        this.state = state;
        enter(this.lane, state === "playing" && !this.isLinked ? "unheard" : state, entry);
    }
}

class Run {
    constructor(entries) {
        this.entries = entries.map(
            (entry, number) => ({...entry, number, trouble: troubleOf(entry)}));
        this.end = entries.at(-1)?.time || 1; // second
        // Of pieces: an entry, the state from there on, and when that ended, if it did.
        this.lanes = {agent: [], bluetoothd: [], service: [], pulseaudio: [], commands: [],
                      product: this.entries.slice(0, 1).map(entry => ({state: "running", entry}))};
        this.phones = new Map();
        this.lastPhone = null; // to get a link or a stream
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
        else if (/^- phone \S+ (connect|pair)\b/.test(entry.line))
            this.phone(entry.line.split(" ")[2]);
        const reason = REASONS.find(([pattern]) => pattern.test(entry.line));
        if (reason && this.lastPhone)
            this.lastPhone.why = `connected but never played: ${reason[1]}`;
    }

    lane({program}) {
        return this.lanes[program] ?? this.lanes.commands;
    }

    phone(name) {
        if (!this.phones.has(name))
            this.phones.set(name, new Phone());
        return this.phones.get(name);
    }

    /** A call and its answer, a start and its end. */
    pair(one, other) {
        [one.partner, other.partner] = [other, one];
    }

    readEnd(entry) {
        const lane = this.lane(entry);
        const start = lane.findLast(piece => piece.entry.pid === entry.pid);
        if (start) {
            this.pair(start.entry, entry);
            (entry.program === "service" ? lane.at(-1) : start).end = entry.time;
        }
        if (entry.status || entry.trouble)
            lane.push({state: "failed", entry, end: entry.time});
        if (entry.program === "pulseaudio")
            this.linkSound(false, entry);
    }

    linkSound(isLinked, entry) {
        for (const phone of this.phones.values()) {
            phone.isLinked = isLinked && phone === this.lastPhone;
            phone.enter(phone.state, entry);
        }
    }

    readLog(entry) {
        if (STACK[entry.line])
            enter(this.lanes.service, STACK[entry.line], entry);
        else if (entry.line === "1 error starting pulseaudio, so disconnect")
            this.lastPhone?.enter("given-up", entry);
    }

    readPhone(entry) {
        const phone = this.phone(entry.phone);
        if (entry.state === "link-up" || entry.state === "stream-open")
            this.lastPhone = phone;
        const states = {"link-down": null, "stream-closed": "link-up"};
        phone.enter(entry.state in states ? states[entry.state] : entry.state, entry);
    }

    readMessage(entry) {
        if (entry.interface === "org.freedesktop.DBus")
            return;
        if (entry.line === "@ ConnectAudioDevice" || entry.line === "@ DisconnectAudioDevice")
            this.linkSound(entry.line === "@ ConnectAudioDevice", entry);
        const call = this.calls.get(`${entry.bus} ${entry.destination} ${entry.replySerial}`);
        const message = call ? {entry, below: call.below, isDown: !call.isDown}
                             : {entry, ...this.wayOf(entry)};
        this.messages.push(message);
        if (call)
            this.pair(call.entry, entry);
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

function seconds(time) {
    return `${time.toFixed(1)} s`;
}

/** How the run went. */
function sentence(run, sound) {
    const parts = Array.from(run.phones, ([name, phone]) => phoneClause(name, phone, run, sound));
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

function phoneClause(name, phone, run, sound) {
    const spans = phone.lane.filter(({state}) => state === "playing").map(
        ({entry, end}) => ({start: entry.time, end: end ?? run.end}));
    if (spans.length === 0)
        return `the phone ${name} ${phone.why}`;
    const texts = spans.map(({start, end}) => `from ${seconds(start)} to ${seconds(end)}`);
    const isSilent = sound.peaks.length > 0 && !spans.some(span => isHeard(sound, span));
    return `the phone ${name} played ${texts.join(" and ")}`
        + (isSilent ? ", but nothing was heard" : "");
}

/** The loopback is late by a second by default. */
function isHeard({bucket, peaks}, {start, end}) {
    return peaks.slice(Math.round(start / bucket), Math.round((end + 2) / bucket))
        .some(peak => peak > 0);
}

function crashClause({line, program, time}, run) {
    const clause = `${line.slice(2)} at ${seconds(time)}`;
    if (program !== "bluetoothd")
        return clause;
    const back = run.lanes.service.find(({state, entry}) => state === "on" && entry.time > time);
    return clause + (back ? `; the stack was back after ${seconds(back.entry.time - time)}`
                          : "; the stack did not come back");
}
