"use strict";

// What happened in a run, by its journal. Nothing here touches the page.

const DAEMONS = ["bluetoothd", "agent", "pulseaudio", "service"];
const AGENT_CALLS = ["DefaultAdapter", "RegisterAgent", "UnregisterAgent"];
const GIVE_UP = /^[12] .*(so disconnect( device)?$|not possible to restart|service timeout)/;
const REFUSED_PHONE = /^4 (disconnect device because there is another|.* not for me, disconnect)/;
const SIGTERM = 15;
const SIGKILL = 9;

/** What an entry is flagged as, the worst first, each with the word for more than one. */
const TROUBLES = new Map([
    ["crash", "crashes"], ["give-up", "give-ups"], ["error", "errors"], ["warning", "warnings"],
    ["failure", "failures"],
]);

/** A key of TROUBLES; null for most entries. */
function troubleOf({kind, lane, line, program, signal, status}) {
    // Daemons are asked to end by SIGTERM. Commands may fail, and so may agents: one that finds no
    // adapter yet ends, and is started again.
    const mayFail = !DAEMONS.includes(program) || program === "agent";
    if (kind === "end" && (status && !mayFail || (signal ?? SIGTERM) !== SIGTERM))
        return "crash";
    if (lane === "control")
        return /^- (error|note road failed)/.test(line) ? "failure" : null;
    if (kind !== "log")
        return null;
    return GIVE_UP.test(line) ? "give-up" : {"1": "error", "2": "warning"}[line[0]] ?? null;
}

/** States in time: pieces with "state", "number" (of the entry), "start" and "end". */
class Band {
    constructor() {
        this.pieces = [];
        this.state = null;
    }

    /** No state from here on when it is null. */
    enter(state, time, number) {
        if (state === this.state)
            return;
        this.close(time);
        this.state = state;
        if (state !== null)
            this.pieces.push({state, number, start: time, end: null});
    }

    close(time) {
        const last = this.pieces[this.pieces.length - 1];
        if (last && last.end === null)
            last.end = time;
    }
}

class Phone {
    constructor(name) {
        this.name = name;
        this.band = new Band();
        this.at = null; // what it is at by its own word
        this.reached = new Set(); // all that it was ever at
        this.isLinked = false; // the loopback to its source is in place
        this.awaited = ""; // what the service waits for, and how many times in vain
        this.waits = 0;
        this.why = ""; // it does not play
    }

    wait(awaited) {
        this.waits = awaited === this.awaited ? this.waits + 1 : 1;
        this.awaited = awaited;
        this.why = `${awaited} ${this.waits === 1 ? "once" : `${this.waits} times`}`;
    }

    /** Only what can be heard plays. */
    show(time, number) {
        const isUnheard = this.at === "playing" && !this.isLinked;
        this.band.enter(isUnheard ? "unheard" : this.at, time, number);
    }
}

class Run {
    constructor(entries) {
        this.entries = entries;
        this.end = entries.length > 0 ? entries[entries.length - 1].time : 0;
        this.troubles = []; // number, kind
        this.bars = []; // programs: number, program, start, end, endNumber, failed
        this.messages = []; // number, from, to, style
        this.partners = new Map(); // a call and its answer, a start and its end, by their numbers
        this.stack = new Band();
        this.phones = new Map();
        this.lastPhone = null; // the last one to get a link or a stream
        this.running = new Map();
        this.calls = new Map();
        // Agents call nothing else; nobody tells whose a sender's name was.
        this.noAgents = new Set(entries.filter(
            one => one.kind === "call" && /^org\.bluez\./.test(one.interface)
                && !AGENT_CALLS.includes(one.member)).map(({sender}) => sender));
        entries.forEach((entry, number) => this.read(entry, number));
        for (const bar of this.running.values())
            bar.end = this.end;
        for (const band of [this.stack, ...Array.from(this.phones.values(), phone => phone.band)])
            band.close(this.end);
    }

    read(entry, number) {
        const kind = troubleOf(entry);
        if (kind)
            this.troubles.push({number, kind});
        if (entry.lane === "bus")
            this.readMessage(entry, number);
        else if (entry.kind === "start")
            this.readStart(entry, number);
        else if (entry.kind === "end")
            this.readEnd(entry, number);
        else if (entry.kind === "log")
            this.readLog(entry, number);
        else if (entry.kind === "phone")
            this.readPhone(entry, number);
        else if (/^- phone \S+ (connect|pair)\b/.test(entry.line))
            this.phone(entry.line.split(" ")[2]);
    }

    readStart(entry, number) {
        const bar = {number, program: String(entry.program), start: entry.time, end: null};
        this.bars.push(bar);
        this.running.set(`${entry.program} ${entry.pid}`, bar);
        if (entry.program === "service")
            this.stack.enter("off", entry.time, number);
    }

    readEnd(entry, number) {
        const key = `${entry.program} ${entry.pid}`;
        const bar = this.running.get(key);
        if (bar) {
            const failed = Boolean(entry.status) || troubleOf(entry) !== null;
            Object.assign(bar, {end: entry.time, endNumber: number, failed});
            this.running.delete(key);
            this.partners.set(number, bar.number).set(bar.number, number);
        }
        if (entry.program === "service")
            this.stack.enter(null, entry.time, number);
        else if (entry.program === "pulseaudio")
            this.linkSound(false, entry.time, number);
    }

    linkSound(isLinked, time, number) {
        for (const phone of this.phones.values()) {
            phone.isLinked = isLinked && phone === this.lastPhone;
            if (phone.isLinked)
                phone.why = "all was ready, but it did not start";
            phone.show(time, number);
        }
    }

    readLog({line, time}, number) {
        const message = line.slice(2);
        const phone = this.lastPhone;
        if (message === "startStartupSequence requested")
            this.stack.enter("starting", time, number);
        else if (message === "agent started and wait registration"
                 || message === "startStartupSequence bluez already running")
            this.stack.enter("on", time, number);
        else if (message === "forceSyncDown")
            this.stack.enter("off", time, number);
        else if (phone)
            this.readPhoneLog(phone, line, time, number);
    }

    readPhoneLog(phone, line, time, number) {
        if (line.startsWith("4 wait pulseaudio bluetooth")) {
            phone.wait("the loopback to its source was refused");
        } else if (line.startsWith("4 wait pulseaudio")) {
            phone.wait("PulseAudio did not answer");
        } else if (line === "1 error starting pulseaudio, so disconnect") {
            phone.wait(phone.awaited);
            phone.at = "given-up";
            phone.show(time, number);
        } else if (/^2 connectAudioSource .* error/.test(line)) {
            phone.why = "the service could not connect to its audio";
        } else if (REFUSED_PHONE.test(line)) {
            phone.why = "another phone was connected";
        }
    }

    phone(name) {
        if (!this.phones.has(name))
            this.phones.set(name, new Phone(name));
        return this.phones.get(name);
    }

    readPhone(entry, number) {
        const phone = this.phone(String(entry.phone));
        phone.reached.add(entry.state);
        if (entry.state === "link-up" || entry.state === "stream-open")
            this.lastPhone = phone;
        if (entry.state === "link-down")
            phone.at = null;
        else if (entry.state !== "stream-closed")
            phone.at = String(entry.state);
        else if (phone.at !== "given-up")
            phone.at = "link-up";
        phone.show(entry.time, number);
    }

    readMessage(entry, number) {
        if (entry.sender === "org.freedesktop.DBus")
            return;
        if (entry.line === "@ ConnectAudioDevice" || entry.line === "@ DisconnectAudioDevice")
            this.linkSound(entry.member === "ConnectAudioDevice", entry.time, number);
        const message = {number, style: entry.kind, ...this.endsOf(entry)};
        this.messages.push(message);
        if (entry.kind === "call") {
            this.calls.set(`${entry.bus} ${entry.sender} ${entry.serial}`, message);
            return;
        }
        const key = `${entry.bus} ${entry.destination} ${entry.replySerial}`;
        const call = this.calls.get(key);
        if (entry.kind === "signal" || !call)
            return;
        [message.from, message.to] = [call.to, call.from];
        this.partners.set(number, call.number).set(call.number, number);
        this.calls.delete(key);
    }

    /** Between which two a call or a signal goes. */
    endsOf({interface: name, kind, line, sender}) {
        if (/^org\.bluez\.Agent$/.test(name))
            return {from: "bluetoothd", to: "agent"};
        if (line[0] === "@")
            return {from: "service", to: "product"};
        if (!/^org\.bluez\b/.test(name))
            return {from: "product", to: "service"};
        if (kind === "signal")
            return {from: "bluetoothd", to: "service"};
        return {from: this.noAgents.has(sender) ? "service" : "agent", to: "bluetoothd"};
    }
}

function seconds(time) {
    return `${time.toFixed(1)} s`;
}

/** How the run went. */
function sentence(run, sound) {
    if (run.entries.length === 0)
        return "The journal is empty.";
    const parts = Array.from(run.phones.values(), phone => phoneClause(phone, sound));
    if (parts.length > 3)
        parts.splice(2, parts.length, `${parts.length - 2} more phones came`);
    const crashes = run.troubles.filter(({kind}) => kind === "crash").map(
        ({number}) => run.entries[number]);
    parts.push(...crashes.slice(0, 2).map(entry => crashClause(entry, run)));
    if (crashes.length > 2)
        parts.push(`${crashes.length - 2} more programs crashed`);
    const service = run.bars.filter(({program}) => program === "service").pop();
    const end = service && run.entries[service.endNumber];
    if (!service)
        parts.push("the service never ran");
    else if (!end)
        parts.push("the service was still running at the end of the journal");
    else if (!crashes.includes(end))
        parts.push(end.line.replace(/^\. /, "the "));
    const road = run.entries.find(({line}) => line.startsWith("- note road failed"));
    if (road)
        parts.push(road.line.replace("- note", "the"));
    const text = parts.join("; ");
    return text[0].toUpperCase() + text.slice(1) + ".";
}

function phoneClause(phone, sound) {
    const plays = phone.band.pieces.filter(({state}) => state === "playing");
    if (plays.length === 0)
        return `the phone ${phone.name} ${whyNot(phone)}`;
    const spans = plays.map(({start, end}) => `from ${seconds(start)} to ${seconds(end)}`);
    const when = plays.length < 3 ? spans.join(" and ")
        : `${plays.length} times from ${seconds(plays[0].start)} to ${seconds(plays.pop().end)}`;
    const isSilent = sound && !plays.some(({start, end}) => isHeard(sound, start, end));
    return `the phone ${phone.name} played ${when}${isSilent ? ", but nothing was heard" : ""}`;
}

/** The loopback is late by a second by default. */
function isHeard(sound, start, end) {
    const bucketOf = time => Math.max(0, Math.round((time - sound.start) / sound.bucket));
    return sound.peaks.slice(bucketOf(start), bucketOf(end + 2)).some(peak => peak > 0);
}

function whyNot({reached, why}) {
    if (!reached.has("link-up"))
        return "never got a link";
    return "connected but never played: " + (why || (reached.has("stream-open")
        ? "no loopback was asked for" : "it never opened a stream"));
}

function crashClause({program, signal, status, time}, run) {
    const how = signal === undefined ? `ended with status ${status}`
        : signal === SIGKILL ? "was killed" : `crashed with signal ${signal}`;
    const clause = `${program === "service" ? "the service" : program} ${how} at ${seconds(time)}`;
    if (program !== "bluetoothd")
        return clause;
    const back = run.stack.pieces.find(({state, start}) => state === "on" && start > time);
    return clause + (back ? `; the stack was back after ${seconds(back.start - time)}`
                          : "; the stack did not come back");
}
